#include "client/zdepa/epa_dl_call.h"

#include <dlfcn.h>
#include <string.h>

#include "client/zdepa/dlc_x64_system_v.h"
#include "client/zdepa/epa_log.h"
#include "client/zdepa/epa_msg.h"
#include "client/zdepa/epa_option.h"
#include "common/alloc/region_clialloc.h"
#include "common/ec.h"
#include "common/zd_err.h"
#include "common/zdmsg/zdmsg.h"
#include "zdextproc.h"

namespace {

constexpr char unit[] = "epa_dl_call";
constexpr char kRequestIndent[] = "            ";
constexpr int kSlotSize = 8;

// What differs between the socket agent's build of a descriptor and the direct form's.
struct build_form {
    const char *creator; // names reported by raises
    const char *builder;
    bool copies_strings; // the codec terminates strings in the receive buffer; a caller need not
};

constexpr build_form kSocketForm = {"epa_dlfunc_new", "epa_get_managed_dlf", false};
constexpr build_form kDirectForm = {"epl_dlfunc_new", "epl_get_managed_dlf", true};

template <class T>
T *allocate(allocator_t *alloc, size_t bytes, int line) {
    return static_cast<T *>(zd_malloc(alloc, static_cast<int64_t>(bytes), unit, line));
}

[[noreturn]] void raise(int line, const char *function, ec_t ec) {
    zd_push_and_throw(epa_ctx_mgr_->errstack, unit, line, function, ec);
}

void copy_terminated(char *to, const char *from, int length) {
    if (length > 0)
        memcpy(to, from, static_cast<size_t>(length));
    to[length > 0 ? length : 0] = '\0';
}

// --- descriptor --------------------------------------------------------------------------------

void check_lengths(int library_path_len, int function_name_len, const char *function) {
    if (library_path_len > EPA_LIBRARY_PATH_MAX)
        raise(__LINE__, function, ERROR_EPA_TOO_LONG_USER_LIBRARY_PATH);
    if (function_name_len > EPA_FUNCTION_NAME_MAX)
        raise(__LINE__, function, ERROR_EPA_TOO_LONG_USER_FUNCTION_NAME);
}

epa_dlfunc_t *allocate_descriptor() {
    allocator_t *const alloc = epa_ctx_mgr_->alloc;
    epa_dlfunc_t *const dlf = allocate<epa_dlfunc_t>(alloc, sizeof(epa_dlfunc_t), __LINE__);
    dlf->alloc = real_sys_region_allocator_new(alloc, unit, __LINE__);
    return dlf;
}

// The routine context: the routine's own memory, and the connection that an earlier call left.
epa_util_context_t *new_routine_context(epa_dlfunc_t *dlf) {
    const epa_context_mgr_t *const context = epa_ctx_mgr_;
    epa_util_context_t *const routine =
        allocate<epa_util_context_t>(dlf->alloc, sizeof(epa_util_context_t), __LINE__);
    routine->alloc = real_sys_region_allocator_new(dlf->alloc, unit, __LINE__);
    routine->fd = context->fd;
    routine->errstack = context->errstack;
    const bool connected = context->is_connected != 0;
    routine->henv = connected ? context->henv : 0;
    routine->hdbc = connected ? context->hdbc : 0;
    routine->is_connected = connected ? 1 : 0;
    return routine;
}

char *new_stack_block(epa_dlfunc_t *dlf, uint32_t param_cnt, bool with_context) {
    const uint64_t arguments = static_cast<uint64_t>(param_cnt) + (with_context ? 1 : 0);
    if (arguments <= EPA_INT_REGISTERS)
        return nullptr;
    const int64_t bytes = static_cast<int64_t>((arguments - EPA_INT_REGISTERS) * kSlotSize);
    return static_cast<char *>(zd_calloc(dlf->alloc, bytes, unit, __LINE__));
}

void fill_descriptor(epa_dlfunc_t *dlf, int library_path_len, const char *library_path,
                     int function_name_len, const char *function_name, bool with_context,
                     uint32_t param_cnt, int return_flag) {
    copy_terminated(dlf->library_path, library_path, library_path_len);
    copy_terminated(dlf->function_name, function_name, function_name_len);
    dlf->epa_util_ctx = nullptr;
    if (with_context)
        dlf->epa_util_ctx = new_routine_context(dlf);
    dlf->return_info.call_method = ep_get_call_method_in_param(return_flag);
    dlf->return_info.psm_param_mode = ep_get_psm_param_mode_in_param(return_flag);
    dlf->return_info.zd_type = static_cast<zd_type_t>(ep_get_zd_type_in_param(return_flag));
    dlf->return_info.zd_type_ext =
        static_cast<zd_type_ext_t>(ep_get_zd_type_ext_in_param(return_flag));
    dlf->param_cnt = param_cnt;
    dlf->out_param_cnt = 0;
    dlf->rdx_cnt = 0;
    dlf->rcx_cnt = 0;
    memset(dlf->rdx, 0, sizeof dlf->rdx);
    memset(dlf->rcx, 0, sizeof dlf->rcx);
    dlf->param_stack = new_stack_block(dlf, param_cnt, with_context);
    list_init(&dlf->param_list_head);
}

// --- arguments ---------------------------------------------------------------------------------

// A slot takes 4 or 8 bytes, seldom none: sizes known to the compiler need no call.
void fill_slot(void *slot, const epa_dlfunc_param_t *p) {
    if (p->copy_len == 8)
        memcpy(slot, p->copy_data, 8);
    else if (p->copy_len == 4)
        memcpy(slot, p->copy_data, 4);
    else
        memcpy(slot, p->copy_data, static_cast<size_t>(p->copy_len));
}

void write_on_stack(epa_dlfunc_t *dlf, const epa_dlfunc_param_t *p, int data_offset_len,
                    size_t *param_offset) {
    EPA_LOG(unit, LOG_LVL_TRACE,
            "Writing on stack: param_offset[%d] data_offset_len[%d]copy_len[%d]",
            static_cast<int>(*param_offset), data_offset_len, p->copy_len);
    fill_slot(dlf->param_stack + *param_offset, p);
    *param_offset += static_cast<size_t>(data_offset_len);
}

bool is_sized_by_routine(zd_type_ext_t zd_type_ext) {
    switch (zd_type_ext) {
    case EXT_TYPE_ZDNUMBER:
    case EXT_TYPE_STRING:
    case EXT_TYPE_ZDSTRING:
    case EXT_TYPE_RAW:
    case EXT_TYPE_ZDRAW:
        return true;
    default:
        return false;
    }
}

bool is_text(zd_type_ext_t zd_type_ext) {
    return zd_type_ext == EXT_TYPE_STRING || zd_type_ext == EXT_TYPE_ZDSTRING;
}

// A buffer of size bytes that begins with the value's bytes and is zero behind them.
char *widened(allocator_t *alloc, const char *data, int length, int64_t size) {
    char *const buffer = allocate<char>(alloc, static_cast<size_t>(size), __LINE__);
    const size_t copied = length > 0 ? static_cast<size_t>(length) : 0;
    if (copied > 0)
        memcpy(buffer, data, copied);
    memset(buffer + copied, 0, static_cast<size_t>(size) - copied);
    return buffer;
}

// A by-value argument fills its register or slot from copy_len bytes of its data, with zeros where
// the value is shorter.
void set_copy_by_value(epa_dlfunc_t *dlf, epa_dlfunc_param_t *param) {
    param->copy_data = param->data;
    param->copy_len = get_zd_type_size(static_cast<zd_type_t>(param->zd_type));
    if (param->data == nullptr || param->data_len < param->copy_len)
        param->copy_data = widened(dlf->alloc, param->data,
                                   param->data == nullptr ? 0 : param->data_len, kSlotSize);
}

void place(const build_form &form, epa_dlfunc_t *dlf, epa_dlfunc_param_t *param,
           size_t *param_offset) {
    if (param->call_method == EPA_CALL_BY_REFERENCE) {
        param->copy_data = reinterpret_cast<char *>(&param->data);
        param->copy_len = sizeof param->data;
        epa_dlfunc_setarg_integer(dlf, param, kSlotSize, param_offset);
        return;
    }
    set_copy_by_value(dlf, param);
    const int zd_type_ext = param->zd_type_ext;
    if (zd_type_ext >= EXT_TYPE_CHAR && zd_type_ext <= EXT_TYPE_SIZE_T)
        epa_dlfunc_setarg_integer(dlf, param, kSlotSize, param_offset);
    else if (zd_type_ext == EXT_TYPE_FLOAT || zd_type_ext == EXT_TYPE_DOUBLE)
        epa_dlfunc_setarg_floating(dlf, param, kSlotSize, param_offset);
    else
        raise(__LINE__, form.builder, ERROR_EPA_INVALID_PARAMETER_INFO);
}

void append_param(epa_dlfunc_t *dlf, epa_dlfunc_param_t *param, int call_method, int psm_param_mode,
                  zd_type_t zd_type, zd_type_ext_t zd_type_ext, char *data, int data_len,
                  int data_maxlen) {
    param->call_method = call_method;
    param->psm_param_mode = psm_param_mode;
    param->zd_type = zd_type;
    param->zd_type_ext = zd_type_ext;
    param->data = data;
    param->data_len = data_len;
    param->data_maxlen = data_maxlen;
    param->copy_data = nullptr;
    param->copy_len = 0;
    list_add_tail(&dlf->param_list_head, &param->link);
}

// The routine context is the first argument whatever the request's parameters are.
void place_routine_context(epa_dlfunc_t *dlf, epa_dlfunc_param_t *param, size_t *param_offset) {
    append_param(dlf, param, EPA_CALL_BY_REFERENCE, 1, ZD_TYPE_NONE, EXT_TYPE_NONE,
                 reinterpret_cast<char *>(dlf->epa_util_ctx), sizeof(void *), sizeof(void *));
    param->copy_data = reinterpret_cast<char *>(&dlf->epa_util_ctx);
    param->copy_len = sizeof(void *);
    epa_dlfunc_setarg_integer(dlf, param, kSlotSize, param_offset);
}

void place_request_param(const build_form &form, epa_dlfunc_t *dlf, epa_dlfunc_param_t *param,
                         int index, const zdmsg_struct_extproc_param_t *request_param,
                         allocator_t *buffers, size_t *param_offset) {
    const int flag = request_param->flag;
    const int call_method = ep_get_call_method_in_param(flag);
    const int psm_param_mode = ep_get_psm_param_mode_in_param(flag);
    const zd_type_t zd_type = static_cast<zd_type_t>(ep_get_zd_type_in_param(flag));
    const zd_type_ext_t zd_type_ext = static_cast<zd_type_ext_t>(ep_get_zd_type_ext_in_param(flag));
    const int length = request_param->data_value.len;
    const int maxlen = request_param->maxlen;
    const bool is_out = (psm_param_mode & EPA_PARAM_MODE_OUT) != 0;
    if (is_out)
        dlf->out_param_cnt += 1;
    EPA_LOG(unit, LOG_LVL_TRACE,
            "%dth param - call_method : %d, param_mode : %d, zd_type : %d, zd_type_ext : %d, "
            "len : %d, maxlen : %d",
            index, call_method, psm_param_mode, zd_type, zd_type_ext, length, maxlen);

    char *data = request_param->data_value.data;
    if (is_out && maxlen > length && maxlen > 0 && is_sized_by_routine(zd_type_ext))
        data = widened(buffers, data, length, maxlen);
    else if (form.copies_strings && is_text(zd_type_ext))
        data = widened(buffers, data, length, length > 0 ? int64_t{length} + 1 : 1);
    if (epa_log_prints_data())
        epa_log_print_value(kRequestIndent, zd_type_ext, data, length);

    append_param(dlf, param, call_method, psm_param_mode, zd_type, zd_type_ext, data, length,
                 maxlen);
    place(form, dlf, param, param_offset);
}

// Counts and lengths below 0 describe nothing.
uint32_t param_count(const zdmsg_extproc_execute_t *request) {
    return request->param.array_cnt > 0 ? static_cast<uint32_t>(request->param.array_cnt) : 0;
}

void place_arguments(const build_form &form, epa_dlfunc_t *dlf,
                     const zdmsg_extproc_execute_t *request, allocator_t *buffers,
                     size_t *param_offset) {
    if (dlf->return_info.zd_type != ZD_TYPE_NONE)
        dlf->out_param_cnt += 1;
    const bool with_context = dlf->epa_util_ctx != nullptr;
    const size_t records = size_t{dlf->param_cnt} + (with_context ? 1 : 0);
    if (records == 0)
        return;
    // The records of a call are one block: they come and go together.
    epa_dlfunc_param_t *param =
        allocate<epa_dlfunc_param_t>(dlf->alloc, records * sizeof(epa_dlfunc_param_t), __LINE__);
    if (with_context)
        place_routine_context(dlf, param++, param_offset);
    const int count = static_cast<int>(dlf->param_cnt);
    for (int i = 0; i < count; i++)
        place_request_param(form, dlf, param++, i, &request->param.data[i], buffers, param_offset);
}

epa_dlfunc_t *epa_get_managed_dlf(zdmsg_t *recv_msg, size_t *param_offset) {
    const zdmsg_extproc_execute_t *const request =
        reinterpret_cast<const zdmsg_extproc_execute_t *>(recv_msg);
    epa_dlfunc_t *const dlf = epa_dlfunc_new(
        request->library_path.len, request->library_path.data, request->function_name.len,
        request->function_name.data, ep_get_with_context(request->property), param_count(request),
        request->return_flag);
    place_arguments(kSocketForm, dlf, request, dlf->alloc, param_offset);
    return dlf;
}

// --- library cache -----------------------------------------------------------------------------

const char *loader_error() {
    const char *const text = dlerror();
    return text != nullptr ? text : "the loader gives no reason";
}

void evict_last(epa_context_mgr_t *context) {
    epa_dl_cache_t *last_dlc = nullptr;
    if (!list_is_empty(&context->dl_cache_list))
        last_dlc = list_entry(context->dl_cache_list.prev, epa_dl_cache_t, link);
    ZD_ASSERT(unit, last_dlc != NULL);
    dlclose(last_dlc->dl_obj);
    list_unlink(&last_dlc->link);
    zd_free(context->alloc, last_dlc, unit, __LINE__);
}

void *open_library(const char *path) {
    void *const handle = dlopen(path, RTLD_LAZY | RTLD_GLOBAL);
    if (handle == nullptr)
        zd_push_and_throw(epa_ctx_mgr_->errstack, unit, 1092, "epa_dlopen",
                          ERROR_EPA_LIBRARY_OPEN_FAILED, path, loader_error());
    return handle;
}

void insert_library(epa_context_mgr_t *context, const char *path, void *handle) {
    epa_dl_cache_t *const entry =
        allocate<epa_dl_cache_t>(context->alloc, sizeof(epa_dl_cache_t), __LINE__);
    const size_t length = strlen(path);
    memcpy(entry->library_path, path,
           length < sizeof entry->library_path ? length + 1 : sizeof entry->library_path);
    entry->dl_obj = handle;
    list_add_head(&context->dl_cache_list, &entry->link);
}

// --- call --------------------------------------------------------------------------------------

void *find_function(void *handle, const char *name) {
    void *const fn = dlsym(handle, name);
    EPA_LOG(unit, LOG_LVL_TRACE, "dlsym success");
    if (fn == nullptr)
        zd_push_and_throw(epa_ctx_mgr_->errstack, unit, 605, "epa_dl_call",
                          ERROR_EPA_FUNCTION_OPEN_FAILED, name, loader_error());
    return fn;
}

// The result cell is 8 zeroed bytes whatever its kind, so that a reply that looks at it by another
// type than it was filled by reads nothing else.
template <class Result>
char *new_result_cell(epa_dlfunc_t *dlf, Result result) {
    char *const cell = static_cast<char *>(zd_calloc(dlf->alloc, sizeof(int64_t), unit, __LINE__));
    memcpy(cell, &result, sizeof result);
    return cell;
}

char *call_function(epa_dlfunc_t *dlf, size_t param_size, void *fn) {
    if (dlf->return_info.zd_type_ext == EXT_TYPE_DOUBLE) {
        const auto call = dlc_view<ext_func_dbl_t>();
        return new_result_cell(dlf, call(param_size, dlf->param_stack, dlf->rdx, dlf->rcx, fn));
    }
    if (dlf->return_info.zd_type_ext == EXT_TYPE_FLOAT) {
        const auto call = dlc_view<ext_func_flo_t>();
        return new_result_cell(dlf, call(param_size, dlf->param_stack, dlf->rdx, dlf->rcx, fn));
    }
    const auto call = dlc_view<ext_func_t>();
    return new_result_cell(dlf, call(param_size, dlf->param_stack, dlf->rdx, dlf->rcx, fn));
}

// The connection that the routine's database library opened outlives the call.
void keep_connection(const epa_util_context_t *routine) {
    if (routine == nullptr || routine->is_connected != 1)
        return;
    epa_ctx_mgr_->henv = routine->henv;
    epa_ctx_mgr_->hdbc = routine->hdbc;
    epa_ctx_mgr_->is_connected = 1;
}

// --- the direct form's reply -------------------------------------------------------------------

// The bytes from data to the end of the region of alloc, or of an allocator below it, that data
// lies in; 0 when it lies in none.
size_t bytes_left_in_region(const allocator_t *alloc, const char *data) {
    const region_t *const sentinel = &reinterpret_cast<const CLI_alloc_t *>(alloc)->regions;
    for (const region_t *region = sentinel->next; region != sentinel; region = region->next) {
        const char *const start = reinterpret_cast<const char *>(region);
        if (data >= start && data < start + region->size)
            return static_cast<size_t>(start + region->size - data);
    }
    list_for_each(position, &alloc->child) {
        const size_t left = bytes_left_in_region(list_entry(position, allocator_t, link), data);
        if (left != 0)
            return left;
    }
    return 0;
}

// A reply outlives the memory of its call: values that lie in it move to the caller's allocator.
void move_values_out_of_call(const epa_dlfunc_t *dlf, zdmsg_extproc_execute_reply_t *reply,
                             allocator_t *alloc) {
    for (int i = 0; i < reply->reply_param.array_cnt; i++) {
        zdmsg_struct_extproc_reply_param_t *const entry = &reply->reply_param.data[i];
        const size_t left = bytes_left_in_region(dlf->alloc, entry->data_value.data);
        if (left == 0)
            continue;
        // A raw result is sent at its full length even where the routine's block is shorter.
        const int length = entry->data_value.len;
        const int readable = left < static_cast<size_t>(length) ? static_cast<int>(left) : length;
        entry->data_value.data =
            widened(alloc, entry->data_value.data, readable, int64_t{length} + 1);
    }
}

} // namespace

epa_dlfunc_t *epa_dlfunc_new(int library_path_len, char *library_path_data, int function_name_len,
                             char *function_name_data, int with_context, uint32_t param_cnt,
                             int return_flag) {
    check_lengths(library_path_len, function_name_len, kSocketForm.creator);
    epa_dlfunc_t *const dlf = allocate_descriptor();
    fill_descriptor(dlf, library_path_len, library_path_data, function_name_len, function_name_data,
                    with_context != 0, param_cnt, return_flag);
    return dlf;
}

void epl_dlfunc_new(int library_path_len, char *library_path_data, int function_name_len,
                    char *function_name_data, int with_context, uint32_t param_cnt,
                    int return_flag) {
    check_lengths(library_path_len, function_name_len, kDirectForm.creator);
    if (epa_ctx_mgr_->dlf == nullptr)
        epa_ctx_mgr_->dlf = allocate_descriptor();
    fill_descriptor(epa_ctx_mgr_->dlf, library_path_len, library_path_data, function_name_len,
                    function_name_data, with_context != 0, param_cnt, return_flag);
}

epa_dlfunc_param_t *epa_dlfunc_param_new(epa_dlfunc_t *dlf, int call_method, int psm_param_mode,
                                         zd_type_t zd_type, zd_type_ext_t zd_type_ext, char *data,
                                         int data_len, int data_maxlen) {
    epa_dlfunc_param_t *const param =
        allocate<epa_dlfunc_param_t>(dlf->alloc, sizeof(epa_dlfunc_param_t), __LINE__);
    append_param(dlf, param, call_method, psm_param_mode, zd_type, zd_type_ext, data, data_len,
                 data_maxlen);
    return param;
}

void epa_dlfunc_setarg_integer(epa_dlfunc_t *dlf, epa_dlfunc_param_t *p, int data_offset_len,
                               size_t *param_offset) {
    EPA_LOG(unit, LOG_LVL_TRACE, "epa_dlfunc_setarg_integer called");
    if (dlf->rdx_cnt >= EPA_INT_REGISTERS) {
        write_on_stack(dlf, p, data_offset_len, param_offset);
        return;
    }
    EPA_LOG(unit, LOG_LVL_TRACE, "Writing on rdx: rdx_cnt[%d] data_offset_len[%d]copy_len[%d]",
            static_cast<int>(dlf->rdx_cnt), data_offset_len, p->copy_len);
    fill_slot(&dlf->rdx[dlf->rdx_cnt], p);
    dlf->rdx_cnt += 1;
}

void epa_dlfunc_setarg_floating(epa_dlfunc_t *dlf, epa_dlfunc_param_t *p, int data_offset_len,
                                size_t *param_offset) {
    EPA_LOG(unit, LOG_LVL_TRACE, "epa_dlfunc_setarg_floating called");
    if (dlf->rcx_cnt >= EPA_FLOAT_REGISTERS) {
        write_on_stack(dlf, p, data_offset_len, param_offset);
        return;
    }
    fill_slot(&dlf->rcx[dlf->rcx_cnt], p);
    dlf->rcx_cnt += 1;
}

void epl_get_managed_dlf(zdmsg_t *recv_msg, size_t *param_offset, allocator_t *alloc) {
    const zdmsg_extproc_execute_t *const request =
        reinterpret_cast<const zdmsg_extproc_execute_t *>(recv_msg);
    epl_dlfunc_new(request->library_path.len, request->library_path.data,
                   request->function_name.len, request->function_name.data,
                   ep_get_with_context(request->property), param_count(request),
                   request->return_flag);
    place_arguments(kDirectForm, epa_ctx_mgr_->dlf, request, alloc, param_offset);
}

void *epa_dlopen(const char *library_path) {
    epa_context_mgr_t *const context = epa_ctx_mgr_;
    int count = 0;
    list_for_each(position, &context->dl_cache_list) {
        epa_dl_cache_t *const entry = list_entry(position, epa_dl_cache_t, link);
        if (strncmp(entry->library_path, library_path, sizeof entry->library_path) == 0) {
            if (count >= epa_option_->dl_cache_hot_region_cnt) {
                list_unlink(&entry->link);
                list_add_head(&context->dl_cache_list, &entry->link);
            }
            return entry->dl_obj;
        }
        count++;
    }
    void *const handle = open_library(library_path);
    insert_library(context, library_path, handle);
    // Tested against the count before the insertion: the cache settles at one above its maximum.
    if (count > epa_option_->max_dl_cache_cnt)
        evict_last(context);
    return handle;
}

void epa_dl_call(epa_dlfunc_t *dlf, char **ret, size_t param_size) {
    EPA_LOG(unit, LOG_LVL_INFO, "libpath : %s, funcname : %s", dlf->library_path,
            dlf->function_name);
    EPA_LOG(unit, LOG_LVL_TRACE, "epa_dl_call: param_size[%d]", static_cast<int>(param_size));
    void *const handle = epa_dlopen(dlf->library_path);
    EPA_LOG(unit, LOG_LVL_TRACE, "dlopen success");
    void *const fn = find_function(handle, dlf->function_name);
    EPA_LOG(unit, LOG_LVL_TRACE, "function call to user library %s", dlf->function_name);
    *ret = call_function(dlf, param_size, fn);
    EPA_LOG(unit, LOG_LVL_TRACE, "function call end");
}

void epa_dl_execute(void) {
    zdmsg_t *const request = epa_ctx_mgr_->msg;
    size_t param_offset = 0;
    epa_dlfunc_t *const dlf = epa_get_managed_dlf(request, &param_offset);
    // Gives back the parameter array; the values stay in the receive buffer.
    zdmsg_free(epa_ctx_mgr_->alloc, request);
    char *ret;
    epa_dl_call(dlf, &ret, param_offset);
    keep_connection(dlf->epa_util_ctx);
    epa_msg_send(dlf, ret);
}

void epa_dl_execute_dir(zdmsg_t *msg, zdmsg_t *reply_msg, allocator_t *alloc) {
    size_t param_offset = 0;
    epl_get_managed_dlf(msg, &param_offset, alloc);
    epa_dlfunc_t *const dlf = epa_ctx_mgr_->dlf;
    char *ret;
    epa_dl_call(dlf, &ret, param_offset);
    epa_msg_reply_param_set(dlf, ret, reply_msg, alloc);
    move_values_out_of_call(dlf, reinterpret_cast<zdmsg_extproc_execute_reply_t *>(reply_msg),
                            alloc);
    epa_resource_cleanup(dlf);
}
