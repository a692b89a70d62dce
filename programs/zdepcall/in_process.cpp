#include "in_process.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <cstdlib>
#include <cstring>
#include <vector>

#include "client/zdepa/epa_init.h"
#include "client/zdepa/epa_proc.h"
#include "common/alloc/region_clialloc.h"
#include "common/alloc/system_clialloc.h"
#include "common/zdmsg/zdmsg.h"
#include "native_type.h"
#include "zdextproc.h"

namespace zdepcall {

namespace {

constexpr char readiness_signal[] = "BOOT SUCCESS"; // its zero byte belongs to it

// The other end being gone is the orderly end.
void read_fully(int socket, char *bytes, size_t count) {
    if (count != 0 && recv(socket, bytes, count, MSG_WAITALL) != static_cast<ssize_t>(count))
        std::exit(EXIT_SUCCESS);
}

void write_fully(int socket, const char *bytes, size_t count) {
    if (send(socket, bytes, count, MSG_NOSIGNAL) != static_cast<ssize_t>(count))
        std::exit(EXIT_SUCCESS);
}

// Whether the direct form gave the parameter a buffer of its own, from the caller's allocator.
bool has_own_buffer(const zdmsg_struct_extproc_param_t &param) {
    const auto ext = static_cast<zd_type_ext_t>(ep_get_zd_type_ext_in_param(param.flag));
    const bool is_text = ext == EXT_TYPE_STRING || ext == EXT_TYPE_ZDSTRING;
    for (const NativeType &type : native_types()) {
        if (type.ext == ext)
            return type.is_widened() && (is_text || param.maxlen > param.data_value.len);
    }
    return false;
}

// Gives back the buffers of the outputs: the allocator checks the red zones of a block that it
// takes, and ends the process with a report when the routine wrote beyond it.
void check_outputs(const zdmsg_extproc_execute_t &request,
                   const zdmsg_extproc_execute_reply_t &reply, allocator_t *alloc) {
    if (reply.errstack.len != 0)
        return;
    int entry = ep_get_zd_type_in_param(request.return_flag) != 0 ? 1 : 0;
    for (int at = 0; at < request.param.array_cnt; at++) {
        const zdmsg_struct_extproc_param_t &param = request.param.data[at];
        if ((ep_get_psm_param_mode_in_param(param.flag) & EPA_PARAM_MODE_OUT) == 0)
            continue;
        if (has_own_buffer(param))
            zd_free(alloc, reply.reply_param.data[entry].data_value.data, "in_process", __LINE__);
        entry++;
    }
}

std::vector<char> serialize(zdmsg_t *message) {
    std::vector<char> bytes(static_cast<size_t>(zdmsg_get_msg_raw_size(message)));
    zdmsg_serialize(&_system_allocator, message, bytes.data());
    return bytes;
}

// body outlives the call: the routine's strings lie in it.
void serve_one(int socket, const zdmsg_t &header, std::vector<char> &body, allocator_t *alloc) {
    // Any type is passed on; the record must be large enough for all.
    std::vector<char> record(static_cast<size_t>(zdmsg_get_max_msg_size()));
    auto *const message = reinterpret_cast<zdmsg_t *>(record.data());
    *message = header;
    zdmsg_deserialize_body(alloc, message, body.data());

    zdmsg_extproc_execute_reply_t reply = {};
    epa_process_request_dir(message, &reply.base, alloc);
    const std::vector<char> bytes = serialize(&reply.base);
    if (header.type == ZDMSG_EXTPROC_EXECUTE)
        check_outputs(*reinterpret_cast<zdmsg_extproc_execute_t *>(message), reply, alloc);
    if (reply.errstack.len != 0)
        zdmsg_free(epa_ctx_mgr_->alloc, &reply.base); // whose the stack is
    write_fully(socket, bytes.data(), bytes.size());
}

} // namespace

void serve_in_process(int socket) {
    epa_init_dir();
    allocator_t *const alloc =
        real_sys_region_allocator_new(&_system_allocator, "in_process", __LINE__);
    write_fully(socket, readiness_signal, sizeof readiness_signal);
    for (;;) {
        zdmsg_t header = {};
        read_fully(socket, reinterpret_cast<char *>(&header.type), ZDMSG_HDR_SIZE);
        header.type = static_cast<int32_t>(ntohl(static_cast<uint32_t>(header.type)));
        header.body_size = ntohl(header.body_size);
        std::vector<char> body(header.body_size);
        read_fully(socket, body.data(), body.size());
        serve_one(socket, header, body, alloc);
        region_cleanup(alloc);
    }
}

} // namespace zdepcall
