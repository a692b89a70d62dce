#include "common/zd_network.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "common/ec.h"
#include "common/zd_network_socket.h"

namespace {

constexpr int kMillisecondsPerSecond = 1000;
constexpr int kNoWait = 0;
constexpr int kNoLimit = -1;
constexpr size_t kLookupBuffer = 16384; // a host with a thousand addresses fits

ec_t code_of(int result) {
    return result < 0 ? ERROR_IO : ERROR_NONE;
}

ec_t give_up(int fd, ec_t ec) {
    zd_close_failed(fd);
    return ec;
}

ec_t fill_address(const char *host, int port, sockaddr_in *address) {
    *address = {};
    address->sin_family = AF_INET;
    address->sin_port = htons(static_cast<uint16_t>(port));
    return zd_network_get_ip_by_hostname(host, &address->sin_addr.s_addr);
}

int connect_to(int fd, const sockaddr_in *address) {
    return connect(fd, reinterpret_cast<const sockaddr *>(address), sizeof *address);
}

int poll_time_of(int sec) {
    if (sec == -1)
        return kNoWait;
    if (sec == 0)
        return kNoLimit;
    int milliseconds;
    if (__builtin_mul_overflow(sec, kMillisecondsPerSecond, &milliseconds))
        return sec > 0 ? INT_MAX : kNoLimit;
    return milliseconds;
}

// Waits for the outcome of a connect that is under way. Whatever ends the wait before its time,
// the socket is asked how it stands.
ec_t await_connection(int fd, int sec) {
    pollfd polled = {fd, POLLIN | POLLOUT, 0};
    if (poll(&polled, 1, poll_time_of(sec)) == 0)
        return ERROR_IO_SOCKET_TIMEOUT;
    int pending = 0;
    socklen_t size = sizeof pending;
    const int result = getsockopt(fd, SOL_SOCKET, SO_ERROR, &pending, &size);
    if (pending != 0)
        errno = pending;
    return result < 0 || pending != 0 ? ERROR_IO : ERROR_NONE;
}

int set_buffer_size(int fd, int option, int bufsize) {
    int size = -1;
    socklen_t length = sizeof size;
    if (setsockopt(fd, SOL_SOCKET, option, &bufsize, sizeof bufsize) < 0 ||
        getsockopt(fd, SOL_SOCKET, option, &size, &length) < 0)
        return -1;
    return size;
}

} // namespace

ec_t zd_network_init(void) {
    return ERROR_NONE;
}

ec_t zd_network_down(void) {
    return ERROR_NONE;
}

ec_t zd_network_get_ip_by_hostname(const char *hostname, uint32_t *ip) {
    const in_addr_t dotted = inet_addr(hostname);
    // 255.255.255.255 reads like a failure, and is looked up as a name.
    if (dotted != INADDR_NONE) {
        *ip = dotted;
        return ERROR_NONE;
    }
    hostent record;
    hostent *found = nullptr;
    int cause;
    char buffer[kLookupBuffer];
    if (gethostbyname_r(hostname, &record, buffer, sizeof buffer, &found, &cause) != 0 ||
        found == nullptr || found->h_length != sizeof *ip || found->h_addr_list[0] == nullptr)
        return ERROR_IO;
    memcpy(ip, found->h_addr_list[0], sizeof *ip);
    return ERROR_NONE;
}

ec_t zd_network_connect(const char *host, int port, int *sock_fd, uchar is_svr) {
    sockaddr_in address;
    const ec_t ec = fill_address(host, port, &address);
    if (ec != ERROR_NONE)
        return ec;
    const int fd = zd_stream_socket(AF_INET, is_svr);
    if (fd < 0)
        return ERROR_IO;
    if (connect_to(fd, &address) < 0)
        return give_up(fd, ERROR_IO);
    *sock_fd = fd;
    return ERROR_NONE;
}

ec_t zd_network_connect_nonb(const char *host, int port, int *sock_fd, int sec, uchar is_svr) {
    sockaddr_in address;
    ec_t ec = fill_address(host, port, &address);
    if (ec != ERROR_NONE)
        return ec;
    const int fd = zd_stream_socket(AF_INET, is_svr);
    if (fd < 0)
        return ERROR_IO;
    const int flags = fcntl(fd, F_GETFL);
    if (flags < 0 || ((flags & O_NONBLOCK) == 0 && fcntl(fd, F_SETFL, flags | O_NONBLOCK) < 0))
        return give_up(fd, ERROR_IO);
    if (connect_to(fd, &address) < 0) {
        ec = errno == EINPROGRESS ? await_connection(fd, sec) : ERROR_IO;
        if (ec != ERROR_NONE)
            return give_up(fd, ec);
    }
    fcntl(fd, F_SETFL, flags);
    *sock_fd = fd;
    return ERROR_NONE;
}

ec_t zd_network_shutdown(int sock_fd) {
    return code_of(shutdown(sock_fd, SHUT_RDWR));
}

ec_t zd_network_close(int sock_fd) {
    return code_of(close(sock_fd));
}

ec_t zd_network_set_nodelay_ex(int fd, int val) {
    return code_of(setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &val, sizeof val));
}

ec_t zd_network_set_keepalive(int fd) {
    const int on = 1;
    return code_of(setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on));
}

int zd_network_get_port_from_fd(int fd) {
    union {
        sockaddr any;
        sockaddr_in v4;
        sockaddr_in6 v6;
    } address = {};
    socklen_t size = sizeof address;
    if (getsockname(fd, &address.any, &size) < 0)
        return -1;
    if (address.any.sa_family == AF_INET)
        return ntohs(address.v4.sin_port);
    return address.any.sa_family == AF_INET6 ? ntohs(address.v6.sin6_port) : -1;
}

int zd_network_set_tcp_sndbuf_size(int fd, int bufsize) {
    return set_buffer_size(fd, SO_SNDBUF, bufsize);
}

int zd_network_set_tcp_rcvbuf_size(int fd, int bufsize) {
    return set_buffer_size(fd, SO_RCVBUF, bufsize);
}
