#include "common/zd_sock_io.h"

#include <arpa/inet.h>
#include <errno.h>
#include <limits.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>
#include <x86intrin.h>

#include "client/common/client_assert.h"
#include "client/common/client_try.h"
#include "common/ec.h"
#include "common/zd_gettime.h"
#include "common/zd_sock_io_core.h"

// Of the process that loads the library, if it has them.
extern "C" {
int SSL_read(void *ssl, void *buf, int num) __attribute__((weak));
int SSL_write(void *ssl, const void *buf, int num) __attribute__((weak));
}

namespace {

constexpr char unit[] = "zd_sock_io";
constexpr int kMillisecondsPerSecond = 1000;
constexpr uint32_t kNoAddress = 0xFFFFFFFF;
constexpr int kInterfaceEntries = 32;

enum interface_status { kRunning = 0, kNotRunning = 1, kDown = 2 };

int poll_one(int fd, short events, int milliseconds) {
    pollfd polled = {fd, events, 0};
    return poll(&polled, 1, milliseconds);
}

[[noreturn]] void raise(int line, const char *function, ec_t ec) {
    zd_err_and_jmp(unit, line, function, 0, 0, ec);
}

// ---- one call, in the four ways that there are. A negative count would reach the system as a huge
// one. ----

int receive(int fd, char *at, int nbytes, int flags) {
    if (nbytes < 0) {
        errno = EINVAL;
        return -1;
    }
    return static_cast<int>(recv(fd, at, static_cast<size_t>(nbytes), flags));
}

int transmit(int fd, const char *at, int nbytes, int flags) {
    if (nbytes < 0) {
        errno = EINVAL;
        return -1;
    }
    return static_cast<int>(send(fd, at, static_cast<size_t>(nbytes), flags));
}

int ssl_receive(void *ssl, char *at, int nbytes) {
    if (SSL_read == nullptr) {
        errno = ENOSYS;
        return -1;
    }
    errno = 0; // a session that fails by itself sets none, and an old one must not tell it to go on
    return SSL_read(ssl, at, nbytes);
}

int ssl_transmit(void *ssl, const char *at, int nbytes) {
    if (SSL_write == nullptr) {
        errno = ENOSYS;
        return -1;
    }
    return SSL_write(ssl, at, nbytes);
}

// ---- reads ----

enum class Outcome { done, timed_out, failed };

// What tells one reading function from another.
struct ReadRules {
    int timeout_sec;          // waited before every read, unless it is 0
    bool repeats_interrupted; // else a signal fails the read
    bool waits_when_blocked;  // else EAGAIN fails the read
};

constexpr ReadRules timed(int sec) {
    return {sec, true, false};
}

ec_t code_of(Outcome outcome) {
    return outcome == Outcome::timed_out ? ERROR_IO_SOCKET_TIMEOUT : ERROR_IO;
}

bool recovers(int error, int fd, const ReadRules &rules) {
    if (error == EINTR)
        return rules.repeats_interrupted;
    if (error != EAGAIN || !rules.waits_when_blocked)
        return false;
    zd_sock_wait_readable(fd);
    return true;
}

// One read() that neither was interrupted nor would have blocked, as the rules have it.
template <class Read>
Outcome read_once(int fd, const ReadRules &rules, int *count, Read read) {
    for (;;) {
        if (rules.timeout_sec != 0 && zd_sock_check_read_timeout(fd, rules.timeout_sec) == 0)
            return Outcome::timed_out;
        *count = read();
        if (*count >= 0)
            return Outcome::done;
        if (!recovers(errno, fd, rules))
            return Outcome::failed;
    }
}

// Reads by read(at, left) until nbytes are there or the stream ends.
template <class Read>
Outcome read_all(int fd, void *ptr, int nbytes, const ReadRules &rules, int *received, Read read) {
    int64_t total = 0; // one kind of read may go beyond nbytes
    while (total < nbytes) {
        int count;
        const Outcome outcome = read_once(fd, rules, &count, [&] {
            return read(static_cast<char *>(ptr) + total, static_cast<int>(nbytes - total));
        });
        if (outcome != Outcome::done)
            return outcome;
        if (count == 0)
            break;
        total += count;
    }
    *received = static_cast<int>(total);
    return Outcome::done;
}

Outcome receive_all(int fd, void *ptr, int nbytes, const ReadRules &rules, int *received) {
    return read_all(fd, ptr, nbytes, rules, received,
                    [&](char *at, int left) { return receive(fd, at, left, 0); });
}

int read_line(const char *function, int fd, void *ptr, int nbytes, int sec) {
    if (nbytes == 0)
        return 0;
    char *const line = static_cast<char *>(ptr);
    int len = 0;
    while (len < nbytes) {
        int count;
        const Outcome outcome =
            read_once(fd, timed(sec), &count, [&] { return receive(fd, line + len, 1, 0); });
        if (outcome != Outcome::done)
            raise(__LINE__, function, code_of(outcome));
        if (count == 0)
            return len;
        if (line[len++] == '\n')
            return len;
    }
    ZD_ASSERT(unit, len == nbytes);
    return -1;
}

// ---- writes ----

// The first write() that takes anything; false, with the last result in *sent, when none will.
template <class Write>
bool write_some(int fd, int *sent, Write write) {
    for (;;) {
        errno = 0; // a write of nothing sets none, and an old one must not tell it to go on
        *sent = write();
        if (*sent > 0)
            return true;
        if (errno == EAGAIN)
            zd_sock_wait_writable(fd);
        else if (errno != EINTR)
            return false;
    }
}

// Writes by write(at, left) until nothing is left. label: what a failure is printed under, or NULL.
template <class Write>
bool write_all(int fd, const void *ptr, int nbytes, const char *label, Write write) {
    int left = nbytes;
    while (left > 0) {
        const char *const at = static_cast<const char *>(ptr) + (nbytes - left);
        int sent;
        if (write_some(fd, &sent, [&] { return write(at, left); })) {
            left -= sent;
            continue;
        }
        const int cause = errno;
        if (label != nullptr)
            fprintf(stderr, "%s error. fd:%d nbytes:%d nleft:%d nwritten:%d errno:%d\n", label, fd,
                    nbytes, left, sent, cause);
        errno = cause;
        return false;
    }
    return true;
}

// What a whole-count write returns, or throws.
int finish_write(bool written, uchar nothrow, int line, const char *function) {
    if (written)
        return 0;
    if (!nothrow)
        raise(line, function, ERROR_IO);
    return -1;
}

// write(at, count) for each piece of a buffer that may be longer than a count can say.
template <class Write>
void write_pieces(const void *ptr, size_t size, Write write) {
    const char *at = static_cast<const char *>(ptr);
    while (size > 0) {
        const int count = size > INT_MAX ? INT_MAX : static_cast<int>(size);
        write(at, count);
        at += count;
        size -= static_cast<size_t>(count);
    }
}

// ---- gathered writes ----

void take_off(iovec *piece, size_t count) {
    piece->iov_base = static_cast<char *>(piece->iov_base) + count;
    piece->iov_len -= count;
}

// Takes count bytes off the vectors from first to last: the first that has bytes left, or last.
iovec *take_off_all(iovec *first, iovec *last, size_t count) {
    while (first < last && count >= first->iov_len) {
        count -= first->iov_len;
        first->iov_len = 0;
        first++;
    }
    take_off(first, count);
    return first;
}

// Writes from first to last, which hold something, as often as it takes until something went out;
// its count, or 0 on failure.
size_t writev_some(int fd, const iovec *first, const iovec *last, bool outlives_timeout) {
    const ptrdiff_t nvecs = last - first + 1;
    for (;;) {
        errno = 0;
        const ssize_t sent = writev(fd, first, nvecs > IOV_MAX ? IOV_MAX : static_cast<int>(nvecs));
        if (sent > 0)
            return static_cast<size_t>(sent);
        if (errno == EAGAIN || (errno == ETIMEDOUT && outlives_timeout))
            zd_sock_wait_writable(fd);
        else if (errno != EINTR)
            return 0;
    }
}

enum class Room { there, timed_out, cancelled, failed };

// Waits until the socket takes more, errfd has input, or *msec, which it lowers, has passed.
Room wait_for_room(int fd, int errfd, int *msec) {
    pollfd polled[2] = {{fd, POLLOUT, 0}, {errfd, POLLIN, 0}};
    int ready;
    do {
        const uint64_t before = __rdtsc();
        ready = poll(polled, errfd < 0 ? 1 : 2, *msec);
        *msec = zd_remaining_msec(*msec, before, __rdtsc(), zd_scale_factor);
    } while (ready < 0 && errno == EINTR);
    if (ready <= 0)
        return ready == 0 ? Room::timed_out : Room::failed;
    if ((polled[1].revents & POLLIN) == 0)
        return Room::there;
    char byte;
    while (read(errfd, &byte, 1) < 0 && errno == EINTR)
        continue;
    return Room::cancelled;
}

// What becomes of a vector in a time-limited write.
enum class Sending { done, out_of_time, cancelled, failed };

Sending send_in_time(int fd, iovec *piece, int *msec, int errfd) {
    while (piece->iov_len != 0) {
        if (errno == EINTR)
            errno = 0; // a stale one would send the same bytes again
        const ssize_t sent = send(fd, piece->iov_base, piece->iov_len, MSG_DONTWAIT);
        // A failure is -1, which compares as huge, and so is sent again.
        if (static_cast<uint64_t>(sent) >= piece->iov_len) {
            if (sent > 0)
                take_off(piece, static_cast<size_t>(sent));
            continue;
        }
        if (*msec <= 0)
            return Sending::out_of_time;
        if (errno == EINTR)
            continue;
        if (errno == EAGAIN) {
            const Room room = wait_for_room(fd, errfd, msec);
            if (room == Room::timed_out)
                return Sending::out_of_time;
            if (room != Room::there)
                return room == Room::cancelled ? Sending::cancelled : Sending::failed;
        }
        take_off(piece, static_cast<size_t>(sent));
    }
    return Sending::done;
}

// The summed length. A sum that no memory could hold comes out as a size that none will be given
// for.
int64_t total_of(const iovec *vector, int nvecs) {
    int64_t total = 0;
    for (int i = 0; i < nvecs; i++) {
        if (__builtin_add_overflow(total, vector[i].iov_len, &total))
            return INT64_MAX;
    }
    return total;
}

// ---- interfaces ----

// The local address; false when the socket cannot be asked. Of another family than AF_INET its
// contents are of no use.
bool local_address(int fd, sockaddr_in *address) {
    sockaddr_storage any = {};
    socklen_t size = sizeof any;
    if (getsockname(fd, reinterpret_cast<sockaddr *>(&any), &size) < 0)
        return false;
    memcpy(address, &any, sizeof *address);
    return true;
}

void copy_name(char *to, const char *from) {
    const size_t length = strnlen(from, IFNAMSIZ - 1);
    memcpy(to, from, length);
    to[length] = '\0';
}

// Whether the listed entry has the address. On a match also whether it loops back.
bool entry_has(int fd, const ifreq &entry, const in_addr &target, uchar *is_loopback) {
    ifreq flags = entry;
    // The address is asked for with the entry as it was listed: an interface may have several, and
    // then the listed one is meant.
    ifreq address = entry;
    if (ioctl(fd, SIOCGIFFLAGS, &flags) < 0 || ioctl(fd, SIOCGIFADDR, &address) < 0)
        return false;
    sockaddr_in found;
    memcpy(&found, &address.ifr_addr, sizeof found);
    if (found.sin_addr.s_addr != target.s_addr)
        return false;
    *is_loopback = (flags.ifr_flags & IFF_LOOPBACK) != 0;
    return true;
}

bool find_interface(int fd, const in_addr &target, char *ifname, uchar *is_loopback) {
    ifreq entries[kInterfaceEntries];
    static_assert(sizeof entries == 1280, "the list's size is fixed");
    ifconf list;
    list.ifc_len = sizeof entries;
    list.ifc_req = entries;
    if (ioctl(fd, SIOCGIFCONF, &list) < 0) {
        fprintf(stderr, "ioctl(%d, SIOCGIFCONF, %p) faild. %d\n", fd, static_cast<void *>(&list),
                errno);
        return false;
    }
    bool found = false;
    const size_t count = static_cast<size_t>(list.ifc_len) / sizeof entries[0];
    for (size_t i = 0; i < count; i++) {
        if (!entry_has(fd, entries[i], target, is_loopback))
            continue;
        copy_name(ifname, entries[i].ifr_name);
        found = true;
    }
    return found;
}

} // namespace

int zd_sock_check_read_timeout(int fd, int sec) {
    int milliseconds;
    if (__builtin_mul_overflow(sec, kMillisecondsPerSecond, &milliseconds))
        milliseconds = sec > 0 ? INT_MAX : INT_MIN;
    for (;;) {
        const int result = poll_one(fd, POLLIN, milliseconds);
        if (result >= 0 || errno != EINTR)
            return result;
    }
}

int zd_sock_wait_readable(int fd) {
    return poll_one(fd, POLLIN, -1);
}

int zd_sock_wait_writable(int fd) {
    return poll_one(fd, POLLOUT, -1);
}

int zd_sock_readn_ex(int fd, void *ptr, int nbytes, uchar nothrow) {
    int received;
    if (receive_all(fd, ptr, nbytes, {0, true, true}, &received) == Outcome::done)
        return received;
    if (!nothrow)
        raise(__LINE__, "zd_sock_readn_ex", ERROR_IO);
    return -1;
}

int zd_sock_readn_nonb_ex(int fd, void *ptr, int nbytes, int sec, uchar nothrow) {
    int received;
    const Outcome outcome = receive_all(fd, ptr, nbytes, timed(sec), &received);
    if (outcome == Outcome::done)
        return received;
    if (!nothrow)
        raise(__LINE__, "zd_sock_readn_nonb_ex", code_of(outcome));
    return outcome == Outcome::timed_out ? ERROR_IO_SOCKET_TIMEOUT : -1;
}

int zd_sock_readn_sig(int fd, void *ptr, int nbytes) {
    int received;
    const Outcome outcome = receive_all(fd, ptr, nbytes, {0, false, true}, &received);
    return outcome == Outcome::done ? received : -1;
}

int zd_sock_read_once_ex(int fd, void *ptr, int nbytes, int flags) {
    int count;
    if (read_once(fd, timed(0), &count, [&] {
            return receive(fd, static_cast<char *>(ptr), nbytes, flags);
        }) != Outcome::done)
        raise(__LINE__, "zd_sock_read_once_ex", ERROR_IO);
    return count;
}

int zd_sock_read_once_nonb_ex(int fd, void *ptr, int nbytes, int sec, int flags) {
    int count;
    const Outcome outcome = read_once(fd, timed(sec), &count, [&] {
        return receive(fd, static_cast<char *>(ptr), nbytes, flags);
    });
    if (outcome != Outcome::done)
        raise(__LINE__, "zd_sock_read_once_nonb_ex", code_of(outcome));
    return count;
}

int zd_sock_read_line(int fd, void *ptr, int nbytes) {
    return read_line("zd_sock_read_line", fd, ptr, nbytes, 0);
}

int zd_sock_read_line_nonb(int fd, void *ptr, int nbytes, int sec) {
    return read_line("zd_sock_read_line_nonb", fd, ptr, nbytes, sec);
}

int zd_sock_writen_ex(int fd, const void *ptr, int nbytes, int flags, uchar nothrow, uchar is_svr) {
    const bool written =
        write_all(fd, ptr, nbytes, is_svr ? "zd_sock_writen" : nullptr,
                  [&](const char *at, int left) { return transmit(fd, at, left, flags); });
    return finish_write(written, nothrow, __LINE__, "zd_sock_writen_ex");
}

int zd_sock_write_once_ex(int fd, const void *ptr, int nbytes, int flags) {
    int sent;
    if (!write_some(fd, &sent,
                    [&] { return transmit(fd, static_cast<const char *>(ptr), nbytes, flags); }))
        raise(__LINE__, "zd_sock_write_once_ex", ERROR_IO);
    return sent;
}

void zd_sock_write2(int fd, const void *ptr1, int nbytes1, const void *ptr2, int nbytes2) {
    iovec both[2] = {{const_cast<void *>(ptr1), static_cast<size_t>(nbytes1 > 0 ? nbytes1 : 0)},
                     {const_cast<void *>(ptr2), static_cast<size_t>(nbytes2 > 0 ? nbytes2 : 0)}};
    while (both[0].iov_len > 0) {
        const size_t sent = writev_some(fd, both, both + 1, false);
        if (sent == 0)
            raise(__LINE__, "zd_sock_write2", ERROR_IO);
        take_off_all(both, both + 1, sent);
    }
    zd_sock_writen_ex(fd, both[1].iov_base, static_cast<int>(both[1].iov_len), 0, 0, 0);
}

int zd_sock_writev(int fd, struct iovec *vector, int nvecs) {
    if (nvecs < 1)
        return -1;
    iovec *const last = vector + nvecs - 1;
    for (iovec *first = take_off_all(vector, last, 0); first < last;) {
        const size_t sent = writev_some(fd, first, last, true);
        if (sent == 0)
            raise(__LINE__, "zd_sock_writev", ERROR_IO);
        first = take_off_all(first, last, sent);
    }
    write_pieces(last->iov_base, last->iov_len,
                 [&](const char *at, int count) { zd_sock_writen_ex(fd, at, count, 0, 0, 0); });
    return nvecs;
}

int zd_sock_writev_timeo(int fd, struct iovec *vector, int nvecs, int msec, int errfd) {
    for (int whole = 0; whole < nvecs; whole++) {
        switch (send_in_time(fd, &vector[whole], &msec, errfd)) {
        case Sending::done:
            break;
        case Sending::out_of_time:
            return whole;
        case Sending::cancelled:
            return -1;
        case Sending::failed:
            raise(__LINE__, "zd_sock_writev_timeo", ERROR_IO);
        }
    }
    return nvecs;
}

int zd_sock_ssl_readn(int fd, void *ssl, void *ptr, int nbytes) {
    int received;
    const Outcome outcome = read_all(fd, ptr, nbytes, timed(0), &received,
                                     [&](char *at, int) { return ssl_receive(ssl, at, nbytes); });
    if (outcome != Outcome::done)
        raise(__LINE__, "zd_sock_ssl_readn", ERROR_IO);
    return received;
}

int zd_sock_ssl_readn_nonb(int fd, void *ssl, void *ptr, int nbytes, int sec) {
    int received;
    const Outcome outcome =
        read_all(fd, ptr, nbytes, timed(sec), &received,
                 [&](char *at, int left) { return ssl_receive(ssl, at, left); });
    if (outcome != Outcome::done)
        raise(__LINE__, "zd_sock_ssl_readn_nonb", code_of(outcome));
    return received;
}

int zd_sock_ssl_read_once(int fd, void *ssl, void *ptr, int nbytes) {
    int count;
    if (read_once(fd, timed(0), &count, [&] {
            return ssl_receive(ssl, static_cast<char *>(ptr), nbytes);
        }) != Outcome::done)
        raise(__LINE__, "zd_sock_ssl_read_once", ERROR_IO);
    return count;
}

int zd_sock_ssl_read_once_nonb(int fd, void *ssl, void *ptr, int nbytes, int sec) {
    int count;
    const Outcome outcome = read_once(
        fd, timed(sec), &count, [&] { return ssl_receive(ssl, static_cast<char *>(ptr), nbytes); });
    if (outcome != Outcome::done)
        raise(__LINE__, "zd_sock_ssl_read_once_nonb", code_of(outcome));
    return count;
}

int zd_sock_ssl_writen_ex(int fd, void *ssl, const void *ptr, int nbytes, uchar nothrow,
                          uchar is_svr) {
    const bool written =
        write_all(fd, ptr, nbytes, is_svr ? "zd_sock_ssl_writen" : nullptr,
                  [&](const char *at, int left) { return ssl_transmit(ssl, at, left); });
    return finish_write(written, nothrow, __LINE__, "zd_sock_ssl_writen_ex");
}

int zd_sock_ssl_writev(int fd, allocator_t *alloc, void *ssl, struct iovec *vector, int nvecs) {
    if (nvecs < 1)
        return -1;
    const int64_t total = total_of(vector, nvecs);
    char *const buf = static_cast<char *>(zd_malloc(alloc, total, unit, __LINE__));
    char *end = buf;
    for (int i = 0; i < nvecs; i++) {
        if (vector[i].iov_len != 0) // an empty one may have no base
            memcpy(end, vector[i].iov_base, vector[i].iov_len);
        end += vector[i].iov_len;
    }
    bool written = true;
    write_pieces(buf, static_cast<size_t>(total), [&](const char *at, int count) {
        written = written && zd_sock_ssl_writen_ex(fd, ssl, at, count, 1, 0) == 0;
    });
    const int cause = errno;
    zd_free(alloc, buf, unit, __LINE__);
    errno = cause;
    if (!written)
        raise(__LINE__, "zd_sock_ssl_writev", ERROR_IO);
    return nvecs;
}

rc_t zd_get_ip_from_fd(int fd, char *ip, int iplen) {
    sockaddr_in address;
    if (!local_address(fd, &address))
        return 0;
    if (address.sin_family == AF_INET)
        inet_ntop(AF_INET, &address.sin_addr, ip, static_cast<socklen_t>(iplen > 0 ? iplen : 0));
    return 1;
}

uint32_t zd_get_int_ip_from_fd(int fd) {
    sockaddr_in address;
    if (!local_address(fd, &address))
        return kNoAddress;
    return address.sin_family == AF_INET ? address.sin_addr.s_addr : 0;
}

rc_t zd_get_ifname_from_ip(char *ifname, const char *target_ip, uchar *is_loopback_nic) {
    in_addr target;
    if (inet_pton(AF_INET, target_ip, &target) != 1)
        return 0;
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0) {
        fprintf(stderr, "socket(AF_INET, SOCK_DGRAM, 0) failed. %d\n", errno);
        return 0;
    }
    const bool found = find_interface(fd, target, ifname, is_loopback_nic);
    close(fd);
    return found;
}

int zd_get_if_status(const char *if_name) {
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0) {
        fprintf(stderr, "sock() failed. errno = %d\n", errno);
        return kDown;
    }
    ifreq request = {};
    copy_name(request.ifr_name, if_name);
    const int result = ioctl(fd, SIOCGIFFLAGS, &request);
    if (result < 0)
        fprintf(stderr, "ioctl (%s) failed. errno = %d\n", request.ifr_name, errno);
    close(fd);
    if (result < 0 || (request.ifr_flags & IFF_UP) == 0)
        return kDown;
    return (request.ifr_flags & IFF_RUNNING) != 0 ? kRunning : kNotRunning;
}
