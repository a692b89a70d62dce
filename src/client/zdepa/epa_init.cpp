#include "client/zdepa/epa_init.h"

#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "client/zdepa/epa_context_mgr.h"
#include "client/zdepa/epa_log.h"
#include "client/zdepa/epa_msg.h"
#include "client/zdepa/epa_option.h"
#include "common/zd_env.h"
#include "common/zd_getenv.h"
#include "common/zd_signal.h"
#include "common/zd_util_file.h"

namespace {

constexpr char unit[] = "epa_init";
constexpr int kSendReadinessSignal = 1;
constexpr size_t kHomeDirMax = 4096;

// Empty rather than undefined: it may be deleted, or a crash look for its log, before it is filled.
epa_context_mgr_t *new_empty_context() {
    epa_context_mgr_t *const context = epa_context_mgr_new(epa_allocator_new());
    *context = {.alloc = context->alloc};
    list_init(&context->dl_cache_list);
    return context;
}

char *new_home_dir(const char *home) {
    const size_t size = strlen(home) + sizeof "/client/zdepa";
    char *const home_dir = static_cast<char *>(
        zd_malloc(epa_ctx_mgr_->alloc, static_cast<int64_t>(size), unit, __LINE__));
    snprintf(home_dir, size < kHomeDirMax ? size : kHomeDirMax, "%s/client/zdepa", home);
    return home_dir;
}

} // namespace

void epa_init(void) {
    epa_ctx_mgr_ = new_empty_context();
    const char *const home = zd_getenv("ZD_HOME", "WQ_HOME", nullptr);
    if (home == nullptr)
        epa_exit_abnormally(unit, 68, "%s is not set",
                            env_get_home_name_with_type(ENV_TYPE_EXTPROC_AGENT));
    epa_home_dir_ = new_home_dir(home);
    zd_create_dir(epa_home_dir_);
    epa_option_read();
}

void epa_worker_init(const int fd, const int mode) {
    epa_context_mgr_init();
    epa_ctx_mgr_->fd = fd;
    if (mode == kSendReadinessSignal && epa_send_zd_boot_success() != 0)
        exit(1);
    zd_signal_register(SIGSEGV, epa_sigseg_handler);
    EPA_LOG(unit, LOG_LVL_WARN, "epa_worker_init succeeded");
}

void epa_init_dir(void) {
    if (epa_ctx_mgr_ != nullptr)
        return;
    epa_init();
    epa_worker_init_dir();
}

void epa_worker_init_dir(void) {
    epa_context_mgr_init();
}

void epa_print_version(void) {
    const int type = ENV_TYPE_EXTPROC_AGENT;
    printf("\n%s %d %s External Procedure Agent (Build %s)\n%s version (%s)\n",
           env_get_product_name_with_type(type), env_build_info_major_with_type(type),
           env_build_info_branch_with_type(type), env_build_info_build_revision_with_type(type),
           env_build_info_platform_with_type(type), env_build_info_byte_ordering_with_type(type));
    printf("Compiled at %s %s\n\n", env_build_info_build_date_with_type(type),
           env_build_info_build_time_with_type(type));
}

// Runs in the crashed thread, which may hold whatever it held: writes the one line and ends
// without the process's exit handlers. A thread of the routine's own has no context to log with.
void epa_sigseg_handler(int) {
    if (epa_ctx_mgr_ != nullptr)
        EPA_LOG(unit, LOG_LVL_FATAL, "SEGMENTATION FAULT DETECTED");
    _exit(1);
}
