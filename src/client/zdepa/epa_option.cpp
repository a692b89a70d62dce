#include "client/zdepa/epa_option.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "client/common/client_util.h"
#include "client/zdepa/epa_type.h"

__thread epa_option_t *epa_option_;
__thread char *epa_home_dir_;

namespace {

constexpr char unit[] = "epa_option";
constexpr int kLineSize = 1024;
constexpr int kKeySize = 32;
constexpr int kPathSize = 4096;
constexpr int kMinDlCacheCount = 10;

int decimal(const char *value) {
    return static_cast<int>(strtol(value, nullptr, 10));
}

void set_log_dir(epa_option_t *option, const char *value) {
    allocator_t *const alloc = epa_ctx_mgr_->alloc;
    // The default is the home directory's own string, which stays in use.
    if (option->log_dir != epa_home_dir_)
        zd_free(alloc, option->log_dir, unit, __LINE__);
    const size_t size = strlen(value) + 1;
    option->log_dir =
        static_cast<char *>(zd_malloc(alloc, static_cast<int64_t>(size), unit, __LINE__));
    memcpy(option->log_dir, value, size);
}

// The hot zone follows the cache's size, so a hot zone given earlier in the file is lost.
void set_max_dl_cache_count(epa_option_t *option, int count) {
    option->max_dl_cache_cnt = count >= kMinDlCacheCount ? count : kMinDlCacheCount;
    option->dl_cache_hot_region_cnt = option->max_dl_cache_cnt / 3;
}

void set_hot_zone_count(epa_option_t *option, int count) {
    const int least = option->max_dl_cache_cnt / 3;
    option->dl_cache_hot_region_cnt = count >= least ? count : least;
}

void set_option(epa_option_t *option, const char *key, const char *value) {
    if (strcmp(key, "LOG_DIR") == 0)
        set_log_dir(option, value);
    else if (strcmp(key, "LOG_LVL") == 0)
        option->log_lvl = static_cast<client_log_lvl_t>(decimal(value));
    else if (strcmp(key, "MAX_LOG_SIZE") == 0)
        option->max_log_size = client_atoi_kmg(value);
    else if (strcmp(key, "MAX_LOG_BACKUP_SIZE") == 0)
        option->max_log_backup_size = client_atoi_kmg(value);
    else if (strcmp(key, "MAX_DL_CACHE_CNT") == 0)
        set_max_dl_cache_count(option, decimal(value));
    else if (strcmp(key, "DL_CACHE_HOT_ZONE_CNT") == 0)
        set_hot_zone_count(option, decimal(value));
}

void read_lines(epa_option_t *option, FILE *file) {
    char line[kLineSize];
    char key[kKeySize];
    char value[kLineSize];
    while (fgets(line, sizeof line, file) != nullptr) {
        if (line[0] == '#' || strchr(line, '=') == nullptr)
            continue;
        client_parse_value(line, key, sizeof key, value, sizeof value);
        set_option(option, key, value);
    }
}

} // namespace

void epa_option_read(void) {
    epa_option_t *const option = static_cast<epa_option_t *>(
        zd_calloc(epa_ctx_mgr_->alloc, sizeof(epa_option_t), unit, __LINE__));
    option->log_dir = epa_home_dir_;
    option->log_lvl = LOG_LVL_WARN;
    set_max_dl_cache_count(option, kMinDlCacheCount);
    epa_option_ = option;

    char path[kPathSize];
    snprintf(path, sizeof path, "%s/zdepa.cfg", epa_home_dir_);
    FILE *const file = fopen(path, "rb");
    if (file == nullptr)
        return;
    read_lines(option, file);
    fclose(file);
}
