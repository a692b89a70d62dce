// Namespaces of a test's own: a network where only an idle loop-back interface is, mounts that
// nobody else sees. They are made in a child process, as root or, where the machine allows it, in a
// user namespace.

#ifndef TESTS_SUPPORT_NAMESPACES_H
#define TESTS_SUPPORT_NAMESPACES_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

namespace namespaces {

constexpr int kRefused = 77; // exit status of the child

inline bool write_text(const char *path, const std::string &text) {
    const int fd = open(path, O_WRONLY);
    if (fd < 0)
        return false;
    const bool written = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    close(fd);
    return written;
}

inline bool enter(int flags) {
    const uid_t user = getuid();
    const gid_t group = getgid();
    if (unshare(flags) == 0)
        return true;
    return unshare(flags | CLONE_NEWUSER) == 0 && write_text("/proc/self/setgroups", "deny") &&
           write_text("/proc/self/uid_map", "0 " + std::to_string(user) + " 1") &&
           write_text("/proc/self/gid_map", "0 " + std::to_string(group) + " 1");
}

// For a body that finds the machine without something it needs: ends it as refused.
[[noreturn]] inline void refuse() {
    fflush(nullptr);
    _exit(kRefused);
}

// Runs body in new namespaces (flags of unshare). The status of the child: 0 when no expectation
// failed, or kRefused.
template <class Body>
int run(int flags, Body body) {
    fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        if (!enter(flags))
            refuse();
        body();
        fflush(nullptr);
        _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    int status = -1;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : status;
}

} // namespace namespaces

// Runs the body, a callable, in new namespaces; its failures are the test's. Skips the test where
// the machine does not allow it.
#define EXPECT_IN_NAMESPACE(flags, ...)                                                            \
    do {                                                                                           \
        const int namespace_status = namespaces::run(flags, __VA_ARGS__);                          \
        if (namespace_status == namespaces::kRefused)                                              \
            GTEST_SKIP() << "this machine refuses a namespace, or a device in it";                 \
        EXPECT_EQ(namespace_status, 0) << "failed in the namespace";                               \
    } while (false)

#endif
