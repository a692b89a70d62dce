// Reads and writes on connected sockets: whole counts, single shots, lines, gathered writes, the
// same through an SSL session, and questions about the machine's addresses. No state. Where a call
// fails, ERROR_IO is thrown, where a wait runs out, ERROR_IO_SOCKET_TIMEOUT; neither is pushed on
// an error stack, and errno tells the cause. A nothrow flag turns the throw into a return.
// Interrupted calls are repeated, and a descriptor that is in non-blocking mode is waited for
// without limit, unless said otherwise. A write to a peer that has gone raises SIGPIPE, which is
// the program's to ignore, unless the flags of the call say MSG_NOSIGNAL. Counts are in bytes; a
// negative one where a single call is made is a failure.

#ifndef ZD_SOCK_IO_H
#define ZD_SOCK_IO_H

#include <sys/uio.h>

#include "common/alloc/allocator.h"
#include "common/zd_base.h"

ZD_BEGIN_DECLS

// Waits up to sec seconds (negative: without limit) until fd is readable. Positive when it is, 0
// when the time ran out, -1 on failure. An interrupted wait starts again in full.
ZD_API int zd_sock_check_read_timeout(int fd, int sec);

// One poll without time limit; its result. An interruption ends it with -1.
ZD_API int zd_sock_wait_readable(int fd);
ZD_API int zd_sock_wait_writable(int fd);

// ---- reads

// Reads nbytes. Fewer are returned only at the end of the stream, and 0 when nbytes is below 1.
// With nothrow a failure returns -1.
ZD_API int zd_sock_readn_ex(int fd, void *ptr, int nbytes, uchar nothrow);

// The same, waiting up to sec seconds before every piece when sec is not 0. With nothrow a wait
// that ran out returns ERROR_IO_SOCKET_TIMEOUT. A descriptor that would block is a failure here.
ZD_API int zd_sock_readn_nonb_ex(int fd, void *ptr, int nbytes, int sec, uchar nothrow);

// The same as zd_sock_readn_ex, but never throws, and a signal ends it with -1, so that a handler
// can break a waiting reader.
ZD_API int zd_sock_readn_sig(int fd, void *ptr, int nbytes);

// One recv of up to nbytes with the given flags: the count, 0 at the end of the stream. A
// descriptor that would block is a failure here.
ZD_API int zd_sock_read_once_ex(int fd, void *ptr, int nbytes, int flags);

// The same, waiting up to sec seconds first when sec is not 0.
ZD_API int zd_sock_read_once_nonb_ex(int fd, void *ptr, int nbytes, int sec, int flags);

// Reads up to and including a newline, byte by byte, and returns the length; no zero byte follows
// the line. At the end of the stream the length so far, which may be 0. -1 when nbytes bytes hold
// no newline; they are in ptr then. A descriptor that would block is a failure. Requires nbytes >=
// 0 (an assertion).
ZD_API int zd_sock_read_line(int fd, void *ptr, int nbytes);

// The same, waiting up to sec seconds before every byte when sec is not 0.
ZD_API int zd_sock_read_line_nonb(int fd, void *ptr, int nbytes, int sec);

// ---- writes

// Sends nbytes with the given flags. 0 when all went out, not the count; with nothrow a failure
// returns -1. is_svr: a failure also prints a line about the descriptor to standard error.
ZD_API int zd_sock_writen_ex(int fd, const void *ptr, int nbytes, int flags, uchar nothrow,
                             uchar is_svr);

// The count of the first send that sends anything.
ZD_API int zd_sock_write_once_ex(int fd, const void *ptr, int nbytes, int flags);

// Sends one buffer and then the other. A count below 1 is an empty buffer.
ZD_API void zd_sock_write2(int fd, const void *ptr1, int nbytes1, const void *ptr2, int nbytes2);

// Sends the vectors in order and returns nvecs; -1 when that is below 1. Uses up the caller's
// array: bases and lengths move on with what was sent.
ZD_API int zd_sock_writev(int fd, struct iovec *vector, int nvecs);

// Sends the vectors in order, waiting msec milliseconds at most for room in the socket's buffer.
// Returns nvecs when all went out; the number of vectors that went out whole when the time ran out
// (bytes of the next one may have gone out too); -1, with one byte read from it, when errfd (-1:
// none) had input during a wait. Uses up the caller's array like zd_sock_writev. The time is looked
// at only after a send that took less than it was given, and waited for only if errno then is
// EAGAIN, however it came by that: set errno to 0 before the call. A send that fails is repeated at
// once, without limit and whatever the cause; so the peer must be known to read, or be closed
// from elsewhere. Time is counted by zd_scale_factor, of zd_init_gettime.
ZD_API int zd_sock_writev_timeo(int fd, struct iovec *vector, int nvecs, int msec, int errfd);

// ---- through an SSL session

// ssl is an SSL of OpenSSL over fd, with its handshake done; it stays the caller's. SSL_read and
// SSL_write are taken from the process as it is when this library is loaded; in a process without
// them every call that would use them fails (errno ENOSYS). Waits look at the descriptor alone:
// bytes that the session has already taken from it do not count as readable.

// As zd_sock_readn_ex. Every piece is asked for with the whole nbytes, whatever came before: ptr
// must have room for up to nbytes bytes behind any place below nbytes where a piece may end, 2 *
// nbytes - 1 in all, and the count that is returned may be as large.
ZD_API int zd_sock_ssl_readn(int fd, void *ssl, void *ptr, int nbytes);

// As zd_sock_readn_nonb_ex; asks for the remainder only.
ZD_API int zd_sock_ssl_readn_nonb(int fd, void *ssl, void *ptr, int nbytes, int sec);

// As zd_sock_read_once_ex and zd_sock_read_once_nonb_ex.
ZD_API int zd_sock_ssl_read_once(int fd, void *ssl, void *ptr, int nbytes);
ZD_API int zd_sock_ssl_read_once_nonb(int fd, void *ssl, void *ptr, int nbytes, int sec);

// As zd_sock_writen_ex.
ZD_API int zd_sock_ssl_writen_ex(int fd, void *ssl, const void *ptr, int nbytes, uchar nothrow,
                                 uchar is_svr);

// Sends the vectors, copied into one buffer from alloc, and returns nvecs; -1 when that is below 1.
// The buffer goes back to alloc, also before a failure is thrown. The vectors stay as they are.
ZD_API int zd_sock_ssl_writev(int fd, allocator_t *alloc, void *ssl, struct iovec *vector,
                              int nvecs);

// ---- addresses and interfaces

// The local IPv4 address of a socket as text, in iplen bytes at ip (16 take any; fewer than it
// needs leave ip untouched). 0 when the socket cannot be asked; else 1, with ip untouched when it
// is no IPv4 socket.
ZD_API rc_t zd_get_ip_from_fd(int fd, char *ip, int iplen);

// The same as a number in network order: 0xFFFFFFFF when the socket cannot be asked, 0 when it is
// no IPv4 socket.
ZD_API uint32_t zd_get_int_ip_from_fd(int fd);

// Whether an interface has the IPv4 address target_ip. Then its name is in ifname, which needs 16
// bytes, and *is_loopback_nic is 1 for a loop-back interface, else 0. Of several the last one
// counts. Looks at 32 addresses of interfaces at most.
ZD_API rc_t zd_get_ifname_from_ip(char *ifname, const char *target_ip, uchar *is_loopback_nic);

// 0: the interface is up and running; 1: up, not running (no carrier); 2: down or not there. Names
// count up to 15 characters.
ZD_API int zd_get_if_status(const char *if_name);

ZD_END_DECLS

#endif
