// Stream sockets on this machine, named by a path ("fifo" in the system's language). Nothing here
// throws: failures return a negative number and leave their cause in errno, and nothing is left
// open behind them. An interrupted call is not repeated. Descriptors belong to the caller.

#ifndef ZD_NETWORK_FIFO_H
#define ZD_NETWORK_FIFO_H

#include <sys/socket.h>

#include "common/zd_base.h"

// The longest paths, in bytes without the terminator: of a connect the system asks more room
// behind the path. Longer ones fail like any that cannot be bound or connected to.
enum { ZD_FIFO_LISTEN_PATH_MAX = 108, ZD_FIFO_CONNECT_PATH_MAX = 100 };

ZD_BEGIN_DECLS

// Listens on the path. Whatever file is there (a socket that a crash left behind, say) is removed
// first. The listening descriptor; -1 when there is no socket to be had, -2 when the path cannot be
// bound, -3 when it cannot be listened on (the socket's file then stays).
ZD_API int zd_network_listen_fifo(const char *fifo_path_name);

// Connects to the path. The descriptor, in non-blocking mode if is_nonblock is set, and unless
// is_svr is set none of the standard ones, 0 to 2. -1 when there is no socket to be had or the mode
// cannot be set, -4 when the path cannot be connected to.
ZD_API int zd_network_connect_fifo(const char *fifo_path_name, uchar is_svr, uchar is_nonblock);

// Takes the next connection: its descriptor, or -1. The peer's address goes to addr_caller, of
// *len_caller bytes, when both are given.
ZD_API int zd_network_accept(int listenfd, struct sockaddr *addr_caller, socklen_t *len_caller);

// The same without an address. timeout is not used.
ZD_API int zd_network_accept_fifo(int listenfd, int *timeout);

ZD_END_DECLS

#endif
