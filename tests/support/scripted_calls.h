// System calls that answer as a test says. The library's calls to the functions below come here
// instead of to libc; each takes the next answer of its script, and goes to the system when there
// is none left. Scripts and records belong to the thread. For one source file a program.

#ifndef TESTS_SUPPORT_SCRIPTED_CALLS_H
#define TESTS_SUPPORT_SCRIPTED_CALLS_H

#include <errno.h>
#include <poll.h>
#include <stdarg.h>
#include <stdint.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>
#include <x86intrin.h>

#include <deque>
#include <vector>

struct Answer {
    enum class Kind { fails, takes, claims, asks } kind;
    long value;
    int error;          // left in errno, unless 0
    uint64_t ticks = 0; // that the processor's counter goes on by meanwhile, at least
};

// The call fails, and the system never hears of it.
inline Answer fails_with(int error) {
    return {Answer::Kind::fails, -1, error, 0};
}

// The system is asked, with so many bytes at most; errno is then set, whatever came of it.
inline Answer takes(long bytes, int error = 0) {
    return {Answer::Kind::takes, bytes, error, 0};
}

// The call returns the value, and the system never hears of it.
inline Answer claims(long value, int error = 0) {
    return {Answer::Kind::claims, value, error, 0};
}

// The system is asked.
inline Answer asks() {
    return {Answer::Kind::asks, 0, 0, 0};
}

// The same, after so many ticks of the processor's counter.
inline Answer later(Answer answer, uint64_t ticks) {
    answer.ticks = ticks;
    return answer;
}

struct ScriptedCall {
    std::deque<Answer> answers;
    std::vector<long> seen; // what was asked for: bytes, vectors, milliseconds, length, command

    // Runs ask(limit) unless the script knows better; limit is -1 for none.
    template <class Ask>
    long answer(long asked, Ask ask) {
        seen.push_back(asked);
        Answer next = asks();
        if (!answers.empty()) {
            next = answers.front();
            answers.pop_front();
        }
        for (const uint64_t start = __rdtsc(); next.ticks != 0 && __rdtsc() - start <= next.ticks;)
            continue;
        const bool goes_out = next.kind == Answer::Kind::takes || next.kind == Answer::Kind::asks;
        const long result =
            goes_out ? ask(next.kind == Answer::Kind::takes ? next.value : -1L) : next.value;
        if (next.error != 0)
            errno = next.error;
        return result;
    }

    void clear() {
        answers.clear();
        seen.clear();
    }
};

inline thread_local ScriptedCall scripted_recv;
inline thread_local ScriptedCall scripted_send;
inline thread_local ScriptedCall scripted_writev;
inline thread_local ScriptedCall scripted_poll;
inline thread_local ScriptedCall scripted_fcntl;
inline thread_local ScriptedCall scripted_socket;
inline thread_local ScriptedCall scripted_bind;
inline thread_local ScriptedCall scripted_listen;
inline thread_local ScriptedCall scripted_connect;
inline thread_local ScriptedCall scripted_accept;
inline thread_local ScriptedCall scripted_getsockopt;
inline thread_local ScriptedCall scripted_ioctl;

inline void clear_scripts() {
    for (ScriptedCall *call :
         {&scripted_recv, &scripted_send, &scripted_writev, &scripted_poll, &scripted_fcntl,
          &scripted_socket, &scripted_bind, &scripted_listen, &scripted_connect, &scripted_accept,
          &scripted_getsockopt, &scripted_ioctl})
        call->clear();
}

inline size_t cut(size_t asked, long limit) {
    return limit < 0 || static_cast<size_t>(limit) > asked ? asked : static_cast<size_t>(limit);
}

extern "C" {

ssize_t recv(int fd, void *at, size_t size, int flags) {
    return scripted_recv.answer(static_cast<long>(size), [&](long limit) {
        return syscall(SYS_recvfrom, fd, at, cut(size, limit), flags, nullptr, nullptr);
    });
}

ssize_t send(int fd, const void *at, size_t size, int flags) {
    return scripted_send.answer(static_cast<long>(size), [&](long limit) {
        return syscall(SYS_sendto, fd, at, cut(size, limit), flags, nullptr, 0);
    });
}

// With a limit, the first vector alone goes out, cut.
ssize_t writev(int fd, const struct iovec *vector, int nvecs) {
    return scripted_writev.answer(nvecs, [&](long limit) {
        if (limit < 0)
            return syscall(SYS_writev, fd, vector, nvecs);
        return syscall(SYS_write, fd, vector->iov_base, cut(vector->iov_len, limit));
    });
}

int poll(struct pollfd *polled, nfds_t count, int milliseconds) {
    return static_cast<int>(scripted_poll.answer(
        milliseconds, [&](long) { return syscall(SYS_poll, polled, count, milliseconds); }));
}

int fcntl(int fd, int command, ...) {
    va_list arguments;
    va_start(arguments, command);
    const long argument = va_arg(arguments, long);
    va_end(arguments);
    return static_cast<int>(scripted_fcntl.answer(
        command, [&](long) { return syscall(SYS_fcntl, fd, command, argument); }));
}

int socket(int domain, int type, int protocol) noexcept {
    return static_cast<int>(scripted_socket.answer(
        domain, [&](long) { return syscall(SYS_socket, domain, type, protocol); }));
}

int bind(int fd, const struct sockaddr *address, socklen_t size) noexcept {
    return static_cast<int>(
        scripted_bind.answer(size, [&](long) { return syscall(SYS_bind, fd, address, size); }));
}

int listen(int fd, int backlog) noexcept {
    return static_cast<int>(
        scripted_listen.answer(backlog, [&](long) { return syscall(SYS_listen, fd, backlog); }));
}

int connect(int fd, const struct sockaddr *address, socklen_t size) {
    return static_cast<int>(scripted_connect.answer(
        size, [&](long) { return syscall(SYS_connect, fd, address, size); }));
}

int accept(int fd, struct sockaddr *address, socklen_t *size) {
    return static_cast<int>(
        scripted_accept.answer(size != nullptr ? static_cast<long>(*size) : -1,
                               [&](long) { return syscall(SYS_accept, fd, address, size); }));
}

int getsockopt(int fd, int level, int option, void *value, socklen_t *size) noexcept {
    return static_cast<int>(scripted_getsockopt.answer(
        option, [&](long) { return syscall(SYS_getsockopt, fd, level, option, value, size); }));
}

int ioctl(int fd, unsigned long request, ...) noexcept {
    va_list arguments;
    va_start(arguments, request);
    void *const argument = va_arg(arguments, void *);
    va_end(arguments);
    return static_cast<int>(scripted_ioctl.answer(static_cast<long>(request), [&](long) {
        return syscall(SYS_ioctl, fd, request, argument);
    }));
}

} // extern "C"

#endif
