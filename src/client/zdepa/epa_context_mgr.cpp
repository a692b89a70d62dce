#include "client/zdepa/epa_context_mgr.h"

#include <dlfcn.h>

#include "client/zdepa/epa_log.h"
#include "client/zdepa/epa_option.h"
#include "common/alloc/region_clialloc.h"
#include "common/alloc/system_clialloc.h"
#include "common/zdmsg/zdmsg_meta_gen.h"

namespace {

constexpr char unit[] = "epa_context_mgr";

template <class T>
T *allocate(allocator_t *alloc, int64_t bytes, int line) {
    return static_cast<T *>(zd_malloc(alloc, bytes, unit, line));
}

void close_cached_libraries(epa_context_mgr_t *context) {
    while (!list_is_empty(&context->dl_cache_list)) {
        epa_dl_cache_t *const entry = list_entry(context->dl_cache_list.next, epa_dl_cache_t, link);
        dlclose(entry->dl_obj);
        list_unlink(&entry->link);
        zd_free(context->alloc, entry, unit, __LINE__);
    }
}

} // namespace

allocator_t *epa_allocator_new(void) {
    return real_sys_region_allocator_new(&_system_allocator, unit, __LINE__);
}

void epa_allocator_delete(void) {}

epa_context_mgr_t *epa_context_mgr_new(allocator_t *alloc) {
    epa_context_mgr_t *const context =
        allocate<epa_context_mgr_t>(alloc, sizeof(epa_context_mgr_t), __LINE__);
    context->alloc = alloc;
    return context;
}

void epa_context_mgr_init(void) {
    epa_context_mgr_t *const context = epa_ctx_mgr_;
    allocator_t *const alloc = context->alloc;
    list_init(&context->dl_cache_list);
    context->fd = -1;
    context->henv = 0;
    context->hdbc = 0;
    context->is_connected = 0;
    context->recv_buf = allocate<char>(alloc, EPA_MSG_BUF_SIZE, __LINE__);
    context->reply_buf = allocate<char>(alloc, EPA_MSG_BUF_SIZE, __LINE__);
    context->msg =
        allocate<zdmsg_t>(alloc, static_cast<int64_t>(zdmsg_get_max_msg_size()), __LINE__);

    context->log_hdl = client_log_hdl_new(alloc);
    client_log_hdl_set_log_attr(context->log_hdl, "EPA", epa_option_->log_lvl, epa_option_->log_dir,
                                "zdepa.log", epa_option_->max_log_size,
                                epa_option_->max_log_backup_size, epa_exit_abnormally);

    context->dlf = nullptr;
    context->errstack = allocate<zd_err_stack_t>(alloc, sizeof(zd_err_stack_t), __LINE__);
    zd_err_stack_init(context->errstack, alloc);
}

void epa_context_mgr_delete(void) {
    epa_context_mgr_t *const context = epa_ctx_mgr_;
    if (context == nullptr)
        return;
    close_cached_libraries(context);
    // The root allocator releases the handle's memory, but not its open file.
    if (context->log_hdl != nullptr)
        client_log_hdl_free(context->log_hdl, context->alloc);
    context->alloc->desc->func_delete(context->alloc);
    epa_ctx_mgr_ = nullptr;
    epa_option_ = nullptr;
    epa_home_dir_ = nullptr;
}
