// The agent's configuration: "zdepa.cfg" in the agent home directory, read once at start-up.
// Nothing in the file is an error: what cannot be read keeps its default.

#ifndef EPA_OPTION_H
#define EPA_OPTION_H

#include "client/common/log/client_log.h"
#include "common/zd_base.h"

typedef struct epa_option_s {
    char *log_dir;               // LOG_DIR; by default the agent home directory's own string
    client_log_lvl_t log_lvl;    // LOG_LVL
    uchar stop_at_start;         // no key sets it
    int max_log_size;            // MAX_LOG_SIZE, bytes; 0: the log never rotates
    int max_log_backup_size;     // MAX_LOG_BACKUP_SIZE, bytes; 0: no pruning
    int max_dl_cache_cnt;        // MAX_DL_CACHE_CNT
    int dl_cache_hot_region_cnt; // DL_CACHE_HOT_ZONE_CNT
} epa_option_t;

static_assert(sizeof(epa_option_t) == 32, "epa_option_t is part of the ABI");
static_assert(offsetof(epa_option_t, log_lvl) == 8, "epa_option_t is part of the ABI");
static_assert(offsetof(epa_option_t, stop_at_start) == 12, "epa_option_t is part of the ABI");
static_assert(offsetof(epa_option_t, max_log_size) == 16, "epa_option_t is part of the ABI");
static_assert(offsetof(epa_option_t, max_dl_cache_cnt) == 24, "epa_option_t is part of the ABI");

ZD_BEGIN_DECLS

// This thread's configuration, in the context's memory.
ZD_API extern __thread epa_option_t *epa_option_;

// This thread's agent home: the home variable's value followed by "/client/zdepa".
ZD_API extern __thread char *epa_home_dir_;

// Fills epa_option_ from the file. Requires the context and epa_home_dir_.
ZD_API void epa_option_read(void);

ZD_END_DECLS

#endif
