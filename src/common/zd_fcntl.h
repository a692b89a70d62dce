// Descriptor flags and whole-file record locks. Beware that setting and clearing a flag returns 1
// for success, not 0. Failures leave their cause in errno.

#ifndef ZD_FCNTL_H
#define ZD_FCNTL_H

#include "common/zd_base.h"

ZD_BEGIN_DECLS

// Set or clear bits of the file status flags (O_NONBLOCK and the like). 1, or -1 on failure.
ZD_API int zd_set_fl(int fd, int flags);
ZD_API int zd_clr_fl(int fd, int flags);

// Sets the descriptor flag val, which must be FD_CLOEXEC. 1, or -1 on failure and for any other
// val.
ZD_API int zd_set_fd(int fd, int val);

// Applies a lock of type (F_RDLCK, F_WRLCK, F_UNLCK) to the whole file by cmd (F_SETLK, F_SETLKW).
// Returns fcntl's result: -1 on failure.
ZD_API int zd_lock_file(int fd, int cmd, int type);

ZD_END_DECLS

#endif
