#include "common/zd_sock_io.h"

#include <errno.h>
#include <limits.h>
#include <poll.h>
#include <stdio.h>
#include <sys/socket.h>

#include "client/common/client_try.h"
#include "common/ec.h"

namespace {

constexpr char unit[] = "zd_sock_io";
constexpr int kMillisecondsPerSecond = 1000;

int poll_one(int fd, short events, int milliseconds) {
    pollfd polled = {fd, events, 0};
    return poll(&polled, 1, milliseconds);
}

[[noreturn]] void raise(int line, const char *function, ec_t ec) {
    zd_err_and_jmp(unit, line, function, 0, 0, ec);
}

enum class Outcome { done, timed_out, failed };

// What tells one reading function from another.
struct ReadRules {
    int timeout_sec;          // waited before every recv, unless it is 0
    bool repeats_interrupted; // else a signal fails the read
    bool waits_when_blocked;  // else EAGAIN fails the read
};

bool recovers(int error, int fd, const ReadRules &rules) {
    if (error == EINTR)
        return rules.repeats_interrupted;
    if (error != EAGAIN || !rules.waits_when_blocked)
        return false;
    zd_sock_wait_readable(fd);
    return true;
}

// One recv that neither was interrupted nor would have blocked, as the rules have it.
Outcome receive_once(int fd, char *at, int nbytes, int flags, const ReadRules &rules, int *count) {
    for (;;) {
        if (rules.timeout_sec != 0 && zd_sock_check_read_timeout(fd, rules.timeout_sec) == 0)
            return Outcome::timed_out;
        *count = static_cast<int>(recv(fd, at, static_cast<size_t>(nbytes), flags));
        if (*count >= 0)
            return Outcome::done;
        if (!recovers(errno, fd, rules))
            return Outcome::failed;
    }
}

// Reads until nbytes are there or the stream ends.
Outcome receive_all(int fd, void *ptr, int nbytes, const ReadRules &rules, int *received) {
    *received = 0;
    while (*received < nbytes) {
        int count;
        const Outcome outcome = receive_once(fd, static_cast<char *>(ptr) + *received,
                                             nbytes - *received, 0, rules, &count);
        if (outcome != Outcome::done)
            return outcome;
        if (count == 0)
            break;
        *received += count;
    }
    return Outcome::done;
}

// The first send that sends anything; false, with the last result in *sent, when none will.
bool send_some(int fd, const char *at, int nbytes, int flags, int *sent) {
    for (;;) {
        errno = 0; // a send of nothing sets none, and an old one must not tell it to go on
        *sent = static_cast<int>(send(fd, at, static_cast<size_t>(nbytes), flags));
        if (*sent > 0)
            return true;
        if (errno == EAGAIN)
            zd_sock_wait_writable(fd);
        else if (errno != EINTR)
            return false;
    }
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
    const Outcome outcome = receive_all(fd, ptr, nbytes, {sec, true, false}, &received);
    if (outcome == Outcome::done)
        return received;
    const bool timed_out = outcome == Outcome::timed_out;
    if (!nothrow)
        raise(__LINE__, "zd_sock_readn_nonb_ex", timed_out ? ERROR_IO_SOCKET_TIMEOUT : ERROR_IO);
    return timed_out ? ERROR_IO_SOCKET_TIMEOUT : -1;
}

int zd_sock_readn_sig(int fd, void *ptr, int nbytes) {
    int received;
    const Outcome outcome = receive_all(fd, ptr, nbytes, {0, false, true}, &received);
    return outcome == Outcome::done ? received : -1;
}

int zd_sock_read_once_ex(int fd, void *ptr, int nbytes, int flags) {
    int count;
    if (receive_once(fd, static_cast<char *>(ptr), nbytes, flags, {0, true, false}, &count) !=
        Outcome::done)
        raise(__LINE__, "zd_sock_read_once_ex", ERROR_IO);
    return count;
}

int zd_sock_writen_ex(int fd, const void *ptr, int nbytes, int flags, uchar nothrow, uchar is_svr) {
    int left = nbytes;
    while (left > 0) {
        int sent;
        if (send_some(fd, static_cast<const char *>(ptr) + (nbytes - left), left, flags, &sent)) {
            left -= sent;
            continue;
        }
        if (is_svr)
            fprintf(stderr, "zd_sock_writen error. fd:%d nbytes:%d nleft:%d nwritten:%d errno:%d\n",
                    fd, nbytes, left, sent, errno);
        if (!nothrow)
            raise(__LINE__, "zd_sock_writen_ex", ERROR_IO);
        return -1;
    }
    return 0;
}

int zd_sock_write_once_ex(int fd, const void *ptr, int nbytes, int flags) {
    int sent;
    if (!send_some(fd, static_cast<const char *>(ptr), nbytes, flags, &sent))
        raise(__LINE__, "zd_sock_write_once_ex", ERROR_IO);
    return sent;
}
