// How stream sockets are created and given up, for the units that set up connections. Not part of
// the interface.

#ifndef ZD_NETWORK_SOCKET_H
#define ZD_NETWORK_SOCKET_H

#ifdef __cplusplus

#include <errno.h>
#include <sys/socket.h>
#include <unistd.h>

#include "common/zd_base.h"

// Closes the socket of a set-up that failed; errno keeps telling why it did.
inline void zd_close_failed(int fd) {
    const int cause = errno;
    close(fd);
    errno = cause;
}

// A new stream socket, or -1. Unless is_svr is set it is none of the three standard descriptors:
// those that are free are held while the next one is asked for.
inline int zd_stream_socket(int domain, uchar is_svr) {
    if (is_svr)
        return socket(domain, SOCK_STREAM, 0);
    constexpr int kStandardDescriptors = STDERR_FILENO + 1;
    int held[kStandardDescriptors + 1];
    int held_count = 0;
    int fd = -1;
    while (held_count <= kStandardDescriptors) {
        fd = socket(domain, SOCK_STREAM, 0);
        if (fd < 0 || fd >= kStandardDescriptors)
            break;
        held[held_count++] = fd;
        fd = -1;
    }
    while (held_count > 0)
        zd_close_failed(held[--held_count]);
    return fd;
}

#endif

#endif
