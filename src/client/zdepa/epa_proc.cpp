#include "client/zdepa/epa_proc.h"

#include <stdlib.h>

#include "client/common/client_try.h"
#include "client/zdepa/epa_dl_call.h"
#include "client/zdepa/epa_log.h"
#include "client/zdepa/epa_msg.h"
#include "common/ec.h"
#include "common/zd_err.h"
#include "common/zd_err_info.h"
#include "common/zdmsg/zdmsg.h"

namespace {

constexpr char unit[] = "epa_proc";
constexpr int kEndOfService = -1;

void log_request(int type) {
    EPA_LOG(unit, LOG_LVL_INFO, "REQUEST[type=%d] RECEIVED", type);
}

void log_raised(ec_t ec) {
    const zd_err_info_t *const info = zd_get_err_info_for_zderr(ec);
    if (info != nullptr)
        EPA_LOG(unit, LOG_LVL_ERROR, "%s occurred", info->name);
    else
        EPA_LOG(unit, LOG_LVL_ERROR, "ec %d occurred", ec);
}

[[noreturn]] void refuse_request(const char *function) {
    EPA_LOG(unit, LOG_LVL_FATAL, "Unknown Request Type");
    zd_push_and_throw(epa_ctx_mgr_->errstack, unit, __LINE__, function, ERROR_EPA_INVALID_PROTOCOL);
}

// Gives back what was decoded of a request that is not served.
void release_decoded(zdmsg_t *msg) {
    if (msg->type >= 0 && msg->type < ZDMSG_TYPE_CNT)
        zdmsg_free(epa_ctx_mgr_->alloc, msg);
}

void serve_until_end(void) {
    for (;;) {
        const int type = epa_msg_recv();
        if (type == kEndOfService)
            return;
        log_request(type);
        if (type != ZDMSG_EXTPROC_EXECUTE) {
            release_decoded(epa_ctx_mgr_->msg);
            refuse_request("epa_process_request");
        }
        epa_dl_execute();
    }
}

[[noreturn]] void end_of_connection(void) {
    client_log_finish(epa_ctx_mgr_->log_hdl);
    exit(0);
}

void answer_error(void) {
    epa_msg_set_ereply(epa_ctx_mgr_->errstack);
    zd_err_stack_clear(epa_ctx_mgr_->errstack);
}

void handle_raised(ec_t ec) {
    log_raised(ec);
    if (ec == ERROR_EPA_CONN_CLOSED || ec == ERROR_IO)
        end_of_connection();
    // An enclosing frame gets what goes wrong with the reply. Without one, a server that went away
    // before its error reply ends the connection like any other.
    if (pthread_getspecific(client_try_jmpbuf_key_) != nullptr) {
        answer_error();
        return;
    }
    const ec_t reply_ec = client_try(answer_error);
    if (reply_ec == 0)
        return;
    log_raised(reply_ec);
    if (reply_ec == ERROR_IO)
        end_of_connection();
    zd_err_and_jmp(unit, __LINE__, "epa_process_request", 0, 0, reply_ec);
}

} // namespace

void epa_process_request(void) {
    for (;;) {
        const ec_t ec = client_try(serve_until_end);
        if (ec == 0)
            return;
        handle_raised(ec);
    }
}

void epa_process_request_dir(zdmsg_t *msg, zdmsg_t *reply_msg, allocator_t *alloc) {
    const ec_t ec = client_try([&] {
        log_request(msg->type);
        if (msg->type != ZDMSG_EXTPROC_EXECUTE)
            refuse_request("epa_process_request_dir");
        epa_dl_execute_dir(msg, reply_msg, alloc);
    });
    if (ec == 0)
        return;
    epa_context_mgr_t *const context = epa_ctx_mgr_;
    log_raised(ec);
    epl_msg_set_ereply(reinterpret_cast<zdmsg_extproc_execute_reply_t *>(reply_msg),
                       context->errstack);
    zd_err_stack_clear(context->errstack);
    // What the failed call left in the reusable descriptor would wait for the next success.
    if (context->dlf != nullptr)
        epa_resource_cleanup(context->dlf);
}
