#include "common/zd_network_fifo.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/un.h>
#include <unistd.h>

#include "common/zd_fcntl.h"
#include "common/zd_network_socket.h"

namespace {

constexpr int kBacklog = 256;

// What the length of an address has beyond that of its path. Eight more when connecting than when
// binding: part of the design, and harmless, as the path ends inside the zeroed record.
constexpr socklen_t kBindExtra = 2;
constexpr socklen_t kConnectExtra = 10;

enum failure { kNoSocket = -1, kNotBound = -2, kNotListening = -3, kNotConnected = -4 };

// A local address with room for the lengths above behind any path that it takes.
union local_address {
    sockaddr any;
    sockaddr_un local;
    sockaddr_storage room;
};

static_assert(sizeof(sockaddr_un) == 110, "the system refuses longer addresses");
static_assert(ZD_FIFO_LISTEN_PATH_MAX == sizeof(sockaddr_un::sun_path), "paths fill their field");
static_assert(ZD_FIFO_CONNECT_PATH_MAX + kConnectExtra == sizeof(sockaddr_un), "and no more");
static_assert(sizeof(sockaddr_un::sun_path) + kConnectExtra <= sizeof(local_address), "all fit");

// The length of the path, or -1 with errno set when it does not fit the address.
int fill_address(local_address *address, const char *path) {
    const size_t length = strnlen(path, sizeof address->local.sun_path + 1);
    if (length > sizeof address->local.sun_path) {
        errno = ENAMETOOLONG;
        return -1;
    }
    memset(address, 0, sizeof *address);
    address->local.sun_family = AF_UNIX;
    memcpy(address->local.sun_path, path, length);
    return static_cast<int>(length);
}

int give_up(int fd, failure result) {
    zd_close_failed(fd);
    return result;
}

} // namespace

int zd_network_listen_fifo(const char *fifo_path_name) {
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    if (fd < 0)
        return kNoSocket;
    local_address address;
    const int length = fill_address(&address, fifo_path_name);
    if (length < 0)
        return give_up(fd, kNotBound);
    unlink(fifo_path_name);
    if (bind(fd, &address.any, static_cast<socklen_t>(length) + kBindExtra) < 0)
        return give_up(fd, kNotBound);
    if (listen(fd, kBacklog) < 0)
        return give_up(fd, kNotListening);
    return fd;
}

int zd_network_connect_fifo(const char *fifo_path_name, uchar is_svr, uchar is_nonblock) {
    const int fd = zd_stream_socket(AF_UNIX, is_svr);
    if (fd < 0)
        return kNoSocket;
    local_address address;
    const int length = fill_address(&address, fifo_path_name);
    if (length < 0 || connect(fd, &address.any, static_cast<socklen_t>(length) + kConnectExtra) < 0)
        return give_up(fd, kNotConnected);
    if (is_nonblock && zd_set_fl(fd, O_NONBLOCK) < 0)
        return give_up(fd, kNoSocket);
    return fd;
}

int zd_network_accept(int listenfd, struct sockaddr *addr_caller, socklen_t *len_caller) {
    local_address own;
    socklen_t own_length = sizeof(sockaddr_un);
    const bool given = addr_caller != nullptr && len_caller != nullptr;
    const int fd =
        accept(listenfd, given ? addr_caller : &own.any, given ? len_caller : &own_length);
    return fd < 0 ? -1 : fd;
}

int zd_network_accept_fifo(int listenfd, int *) {
    return zd_network_accept(listenfd, nullptr, nullptr);
}
