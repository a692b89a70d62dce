// Assertions: reports of programming faults. A report goes to standard error as one line; the
// process then ends with abort(). Reporting and ending are two calls, so that a site can print
// more (a message dump, say) in between. They are active in every build.

#ifndef CLIENT_ASSERT_H
#define CLIENT_ASSERT_H

#include "common/zd_base.h"

typedef struct zdmsg_s zdmsg_t;

ZD_BEGIN_DECLS

// Prints "file:line: Assertion fail with condition 'msg' (PID=..., pthread id=...)". Returns.
ZD_API void zd_assert_msg(const char *msg, const char *filename, int lineno);

// Prints the condition and argc values. Each value is three arguments: its expression's text
// (const char *), its size in bytes (int), the value. Sizes 1, 2 and 4 are passed as int, size 8
// as long; any other size ends the list. Returns.
ZD_API void zd_assert_msg_detail(const char *cond, int argc, const char *filename, int line,
                                 const char *func, ...);

// End the process with abort(); the second is the entry for server-side code.
ZD_API ZD_NORETURN void zd_thr_assert_cmd(void);
ZD_API ZD_NORETURN void zd_svr_assert_cmd(void);

// Prints header fields, raw header and raw body of a message. Requires msg->raw to point at
// msg->body_size readable bytes. The 16 bytes before them are the raw header where sender and
// receiver keep both in one buffer; bytes there that cannot be read print as "??".
ZD_API void zd_asserted_zdmsg_dump(const zdmsg_t *msg);

ZD_END_DECLS

#ifdef __cplusplus

[[noreturn]] inline void zd_assert_fail(const char *condition, const char *unit, int line) {
    zd_assert_msg(condition, unit, line);
    zd_thr_assert_cmd();
}

// unit is the reporting unit's name. ZD_ASSERT_AT is for the sites whose line is fixed, because
// other systems compare it; ZD_ASSERT reports its own line. Both print the condition as it is
// written, so neither is built on the other: NULL would arrive expanded.
#define ZD_ASSERT_AT(unit, line, condition)                                                        \
    (ZD_UNLIKELY(!(condition)) ? zd_assert_fail(#condition, unit, line) : (void)0)
#define ZD_ASSERT(unit, condition)                                                                 \
    (ZD_UNLIKELY(!(condition)) ? zd_assert_fail(#condition, unit, __LINE__) : (void)0)

#endif

#endif
