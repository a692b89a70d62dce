#include "client/zdepa/epa_msg.h"

#include <arpa/inet.h>
#include <string.h>

#include "client/common/client_try.h"
#include "client/zdepa/epa_log.h"
#include "common/alloc/region_clialloc.h"
#include "common/ec.h"
#include "common/zd_err.h"
#include "common/zd_sock_io.h"
#include "common/zdmsg/zdmsg.h"
#include "common/zdmsg/zdmsg_setter_gen.h"

namespace {

constexpr char unit[] = "epa_msg";
constexpr char kReplyIndent[] = "                ";
constexpr char kReplyTrace[] = "%dth out param - call_method : %d, zd_type_ext : %d, len : %d";

void write_to_server(const void *bytes, int count) {
    zd_sock_writen_ex(epa_ctx_mgr_->fd, const_cast<void *>(bytes), count, 0, 0, 0);
}

// readable: the bytes at data, which may be more than the length that is sent.
void trace_entry(int index, int call_method, zd_type_ext_t zd_type_ext, int length,
                 const char *data, int readable) {
    EPA_LOG(unit, LOG_LVL_TRACE, kReplyTrace, index, call_method, zd_type_ext, length);
    if (epa_log_prints_data())
        epa_log_print_value(kReplyIndent, zd_type_ext, data, readable);
}

void set_entry(zdmsg_struct_extproc_reply_param_t *entry, char *data, int length) {
    // A number's length byte can make a length below 0; nothing is sent of such a value.
    entry->data_value.len = length > 0 ? length : 0;
    entry->data_value.data = data;
}

int number_length_byte(const char *number) {
    return static_cast<unsigned char>(number[0]);
}

int length_of_returned_reference(zd_type_ext_t zd_type_ext, const char *data) {
    if (data == nullptr)
        return 0;
    switch (zd_type_ext) {
    case EXT_TYPE_CHAR:
    case EXT_TYPE_UCHAR:
        return 1;
    case EXT_TYPE_SHORT:
    case EXT_TYPE_USHORT:
        return 2;
    case EXT_TYPE_INT:
    case EXT_TYPE_UINT:
    case EXT_TYPE_FLOAT:
        return 4;
    case EXT_TYPE_LONG:
    case EXT_TYPE_ULONG:
    case EXT_TYPE_SIZE_T:
    case EXT_TYPE_DOUBLE:
        return 8;
    case EXT_TYPE_STRING:
    case EXT_TYPE_ZDSTRING:
        return static_cast<int>(strlen(data));
    case EXT_TYPE_RAW:
    case EXT_TYPE_ZDRAW:
        return EPA_RAW_REPLY_MAX;
    case EXT_TYPE_ZDNUMBER:
        // One more than the length byte says; an OUT number has one less. Servers know both.
        return number_length_byte(data) + 1;
    default:
        zd_push_and_throw(epa_ctx_mgr_->errstack, unit, 170, "epa_msg_reply_param_set",
                          ERROR_EPA_NOT_SUPPORTED_SQL_TYPE);
    }
}

void set_return_entry(const epa_return_info_t *info, void *ret,
                      zdmsg_struct_extproc_reply_param_t *entry) {
    char *data = static_cast<char *>(ret);
    int length;
    int readable;
    if (info->call_method == EPA_CALL_BY_REFERENCE) {
        memcpy(&data, ret, sizeof data);
        length = length_of_returned_reference(info->zd_type_ext, data);
        readable = length;
    } else {
        length = get_zd_type_size(info->zd_type);
        readable = sizeof(int64_t); // the whole cell
    }
    set_entry(entry, data, length);
    trace_entry(0, info->call_method, info->zd_type_ext, length, data, readable);
}

// The length of what the routine left behind an OUT parameter. The kinds whose length the routine
// decides may not exceed the parameter's maximum.
int length_of_out_param(const epa_dlfunc_param_t *param) {
    int length;
    switch (param->zd_type_ext) {
    case EXT_TYPE_ZDNUMBER:
        length = param->data == nullptr ? 0 : number_length_byte(param->data) - 1;
        break;
    case EXT_TYPE_STRING:
    case EXT_TYPE_ZDSTRING:
        length = param->data == nullptr ? 0 : static_cast<int>(strlen(param->data));
        break;
    case EXT_TYPE_RAW:
    case EXT_TYPE_ZDRAW:
        if (param->data == nullptr)
            length = 0;
        else
            length =
                param->data_maxlen < EPA_RAW_REPLY_MAX ? param->data_maxlen : EPA_RAW_REPLY_MAX;
        break;
    default:
        return param->data_len;
    }
    if (param->data_maxlen < length)
        zd_push_and_throw(epa_ctx_mgr_->errstack, unit, 220, "epa_msg_reply_param_set",
                          ERROR_EPA_LENGTH_OVERFLOW);
    return length;
}

void set_out_entry(int index, const epa_dlfunc_param_t *param,
                   zdmsg_struct_extproc_reply_param_t *entry) {
    const int length = length_of_out_param(param);
    set_entry(entry, param->data, length);
    trace_entry(index, param->call_method, static_cast<zd_type_ext_t>(param->zd_type_ext), length,
                param->data, length);
}

} // namespace

int epa_send_zd_boot_success(void) {
    static constexpr char kReadinessSignal[] = "BOOT SUCCESS";
    return client_try([] {
        write_to_server(kReadinessSignal, sizeof kReadinessSignal);
        EPA_LOG(unit, LOG_LVL_INFO, "socket writes prepare");
    });
}

int epa_msg_recv(void) {
    epa_context_mgr_t *const context = epa_ctx_mgr_;
    zdmsg_t *const msg = context->msg;
    msg->raw = context->recv_buf;
    if (zd_sock_readn_ex(context->fd, &msg->type, ZDMSG_HDR_SIZE, 0) < ZDMSG_HDR_SIZE)
        zd_err_and_jmp(unit, 66, "epa_msg_recv", 0, 0, ERROR_EPA_CONN_CLOSED);
    msg->type = static_cast<int32_t>(ntohl(static_cast<uint32_t>(msg->type)));
    msg->body_size = ntohl(msg->body_size);
    if (msg->body_size > EPA_MSG_BUF_SIZE) {
        EPA_LOG(unit, LOG_LVL_ERROR, "recv msg body size exceeded!");
        zd_err_and_jmp(unit, __LINE__, "epa_msg_recv", 0, 0, ERROR_EPA_FAIL);
    }
    const int body_size = static_cast<int>(msg->body_size);
    if (zd_sock_readn_ex(context->fd, context->recv_buf, body_size, 1) != body_size)
        zd_err_and_jmp(unit, __LINE__, "epa_msg_recv", 0, 0, ERROR_IO);
    if (msg->type >= 0 && msg->type < ZDMSG_TYPE_CNT)
        zdmsg_deserialize_body(context->alloc, msg, context->recv_buf);
    return msg->type;
}

void epa_msg_reply_param_set(epa_dlfunc_t *dlf, void *ret, zdmsg_t *msg, allocator_t *alloc) {
    zdmsg_extproc_execute_reply_t *const reply =
        reinterpret_cast<zdmsg_extproc_execute_reply_t *>(msg);
    const int count = dlf->out_param_cnt;
    zdmsg_struct_extproc_reply_param_t *entries = nullptr;
    if (count > 0)
        entries = static_cast<zdmsg_struct_extproc_reply_param_t *>(
            zd_malloc(alloc, count * static_cast<int64_t>(sizeof *entries), unit, __LINE__));
    zdmsg_extproc_execute_reply_set(reply, nullptr, 0, nullptr, count, entries);

    int index = 0;
    if (dlf->return_info.zd_type != ZD_TYPE_NONE) {
        set_return_entry(&dlf->return_info, ret, &entries[0]);
        index = 1;
    }
    list_for_each(position, &dlf->param_list_head) {
        const epa_dlfunc_param_t *const param =
            list_entry(position, const epa_dlfunc_param_t, link);
        if ((param->psm_param_mode & EPA_PARAM_MODE_OUT) == 0)
            continue;
        set_out_entry(index, param, &entries[index]);
        index++;
    }
}

void epa_msg_send(epa_dlfunc_t *dlf, void *ret) {
    epa_context_mgr_t *const context = epa_ctx_mgr_;
    zdmsg_extproc_execute_reply_t reply;
    epa_msg_reply_param_set(dlf, ret, &reply.base, context->alloc);
    const int64_t size = zdmsg_get_msg_raw_size(&reply.base);
    if (size > EPA_MSG_BUF_SIZE) {
        EPA_LOG(unit, LOG_LVL_ERROR, "reply msg body size exceeded!");
        zd_err_and_jmp(unit, __LINE__, "epa_msg_send", 0, 0, ERROR_EPA_FAIL);
    }
    zdmsg_serialize(context->alloc, &reply.base, context->reply_buf);
    write_to_server(context->reply_buf, static_cast<int>(size));
    zdmsg_free(context->alloc, &reply.base);
    epa_resource_free(dlf);
}

void epa_resource_free(epa_dlfunc_t *dlf) {
    if (dlf->epa_util_ctx != nullptr) {
        allocator_t *const routine_alloc = dlf->epa_util_ctx->alloc;
        routine_alloc->desc->func_delete(routine_alloc);
    }
    dlf->alloc->desc->func_delete(dlf->alloc);
    zd_free(epa_ctx_mgr_->alloc, dlf, unit, __LINE__);
}

void epa_resource_cleanup(epa_dlfunc_t *dlf) {
    if (dlf->epa_util_ctx != nullptr) {
        allocator_t *const routine_alloc = dlf->epa_util_ctx->alloc;
        routine_alloc->desc->func_delete(routine_alloc);
        dlf->epa_util_ctx = nullptr;
    }
    region_cleanup(dlf->alloc);
}

void epa_msg_set_ereply(zd_err_stack_t *errstack) {
    allocator_t *const alloc = epa_ctx_mgr_->alloc;
    zdmsg_extproc_execute_reply_t reply;
    epl_msg_set_ereply(&reply, errstack);
    const int64_t size = zdmsg_get_msg_raw_size(&reply.base);
    char *const buffer = static_cast<char *>(zd_malloc(alloc, size, unit, __LINE__));
    zdmsg_serialize(alloc, &reply.base, buffer);
    write_to_server(buffer, static_cast<int>(reply.base.body_size) + ZDMSG_HDR_SIZE);
    zd_free(alloc, buffer, unit, __LINE__);
    zdmsg_free(alloc, &reply.base);
}

void epl_msg_set_ereply(zdmsg_extproc_execute_reply_t *ereply, zd_err_stack_t *errstack) {
    void *stack_bytes;
    unsigned int length;
    zd_err_stack_serialize(errstack, 0, epa_ctx_mgr_->alloc, &stack_bytes, &length);
    zdmsg_extproc_execute_reply_set2(ereply, nullptr, static_cast<int>(length),
                                     static_cast<char *>(stack_bytes), 0, nullptr);
}
