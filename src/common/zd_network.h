// TCP connections from the client's side, and what is set on sockets. IPv4 alone: an address is a
// uint32_t in network order, a port an int of which the low 16 bits count. Nothing here throws:
// failures return a code and leave their cause in errno, also where a socket was closed on the way.
// An interrupted call is not repeated. Descriptors belong to the caller.

#ifndef ZD_NETWORK_H
#define ZD_NETWORK_H

#include "common/zd_base.h"

ZD_BEGIN_DECLS

// Nothing has to be set up or torn down on this platform: both return 0.
ZD_API ec_t zd_network_init(void);
ZD_API ec_t zd_network_down(void);

// The address that hostname, a dotted address or a name, stands for. 0, or ERROR_IO with *ip
// untouched. May ask name servers, and take their time.
ZD_API ec_t zd_network_get_ip_by_hostname(const char *hostname, uint32_t *ip);

// Connects to the host. 0 and the descriptor in *sock_fd; on failure ERROR_IO, *sock_fd untouched
// and nothing left open. Unless is_svr is set, the descriptor is never 0, 1 or 2: a client whose
// standard streams are closed must not have its prints and its protocol on one descriptor.
ZD_API ec_t zd_network_connect(const char *host, int port, int *sock_fd, uchar is_svr);

// The same, waiting sec seconds at most; 0: without limit; -1: not at all. Returns
// ERROR_IO_SOCKET_TIMEOUT when the time ran out. A signal ends the wait and counts as connected
// unless the socket already knows an error: then the connection may still be under way. The
// descriptor comes back blocking.
ZD_API ec_t zd_network_connect_nonb(const char *host, int port, int *sock_fd, int sec,
                                    uchar is_svr);

// Ends both directions; 0 or ERROR_IO.
ZD_API ec_t zd_network_shutdown(int sock_fd);
ZD_API ec_t zd_network_close(int sock_fd);

// Set TCP_NODELAY to val, and SO_KEEPALIVE to 1. 0 or ERROR_IO.
ZD_API ec_t zd_network_set_nodelay_ex(int fd, int val);
ZD_API ec_t zd_network_set_keepalive(int fd);

// The local port of an Internet socket in host order; -1 on failure and for other sockets.
ZD_API int zd_network_get_port_from_fd(int fd);

// Set the size of a buffer and return what the kernel made of it (it doubles and bounds the
// value), or -1.
ZD_API int zd_network_set_tcp_sndbuf_size(int fd, int bufsize);
ZD_API int zd_network_set_tcp_rcvbuf_size(int fd, int bufsize);

ZD_END_DECLS

#endif
