// What the agent writes about itself: its log lines, the values of a call at trace level, and the
// last message of an agent that cannot go on.

#ifndef EPA_LOG_H
#define EPA_LOG_H

#include "client/zdepa/epa_type.h"

ZD_BEGIN_DECLS

// One TRACE line with the value, prefixed by tab, for the types that have a printable form; no
// line for the others. data is read at the type's size; text is zero-terminated.
ZD_API void epa_log_print_data(const char *tab, zd_type_ext_t zd_type_ext, const void *data);

// Fatal exit, and the log's error callback: appends the message as a line to "./extproc.err" and
// exits with status 1. filename and line are not used.
ZD_API ZD_NORETURN ZD_PRINTF(3, 4) void epa_exit_abnormally(const char *filename, int line,
                                                            const char *format, ...);

ZD_END_DECLS

#ifdef __cplusplus

// A line into the agent's log. The arguments are evaluated only when the level is written.
#define EPA_LOG(unit, level, ...)                                                                  \
    do {                                                                                           \
        client_log_hdl_t *const epa_log_hdl = epa_ctx_mgr_->log_hdl;                               \
        if (ZD_UNLIKELY(client_log_enabled(epa_log_hdl, level)))                                   \
            client_log_write(epa_log_hdl, level, unit, __LINE__, __VA_ARGS__);                     \
    } while (0)

// Values are printed at exactly this level: INTERNAL shows the library's own doings without the
// callers' data.
inline bool epa_log_prints_data(void) {
    return epa_ctx_mgr_->log_hdl->max_lvl == LOG_LVL_TRACE;
}

// epa_log_print_data for a value of length bytes, which may be shorter than its type. Of no value
// only a text has a line.
void epa_log_print_value(const char *tab, zd_type_ext_t zd_type_ext, const char *data, int length);

#endif

#endif
