// Reads and writes on connected sockets, whole counts and single shots. No state. Where a call
// fails, ERROR_IO is thrown, where a wait runs out, ERROR_IO_SOCKET_TIMEOUT; neither is pushed on
// an error stack. A nothrow flag turns the throw into a return. Interrupted calls are repeated, and
// a descriptor that is in non-blocking mode is waited for without limit, unless said otherwise.

#ifndef ZD_SOCK_IO_H
#define ZD_SOCK_IO_H

#include "common/zd_base.h"

ZD_BEGIN_DECLS

// Waits up to sec seconds (negative: without limit) until fd is readable. Positive when it is, 0
// when the time ran out, -1 on failure. An interrupted wait starts again in full.
ZD_API int zd_sock_check_read_timeout(int fd, int sec);

// One poll without time limit; its result. An interruption ends it with -1.
ZD_API int zd_sock_wait_readable(int fd);
ZD_API int zd_sock_wait_writable(int fd);

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

// Sends nbytes with the given flags. 0 when all went out, not the count; with nothrow a failure
// returns -1. is_svr: a failure also prints a line about the descriptor to standard error.
ZD_API int zd_sock_writen_ex(int fd, const void *ptr, int nbytes, int flags, uchar nothrow,
                             uchar is_svr);

// The count of the first send that sends anything.
ZD_API int zd_sock_write_once_ex(int fd, const void *ptr, int nbytes, int flags);

ZD_END_DECLS

#endif
