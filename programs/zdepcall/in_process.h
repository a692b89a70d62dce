// The direct form of the library behind a socket: what an agent host does, done by a child of this
// program through epa_process_request_dir.

#ifndef ZDEPCALL_IN_PROCESS_H
#define ZDEPCALL_IN_PROCESS_H

namespace zdepcall {

// Announces readiness on the socket, then answers requests until the other end closes it; then the
// process exits. After each call it checks that the routine kept to the buffers of its outputs,
// which the agent host does not do.
[[noreturn]] void serve_in_process(int socket);

} // namespace zdepcall

#endif
