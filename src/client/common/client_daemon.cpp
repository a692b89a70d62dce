#include "client/common/client_daemon.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "client/common/client_assert.h"
#include "common/ec.h"
#include "common/zd_signal.h"
#include "common/zd_svc_log.h"

namespace {

constexpr unsigned int kDescriptorsWhenUnlimited = 1024;

// Runs as a signal handler: nothing but the end of the process is safe here.
void end_by_signal(int signo) {
    _exit(signo == SIGUSR1 ? 0 : 1);
}

// Runs as a signal handler. One arrival may stand for several children.
void reap_children(int) {
    const int saved_errno = errno;
    while (waitpid(-1, nullptr, WNOHANG) > 0) {
    }
    errno = saved_errno;
}

void leave_parent() {
    if (getppid() == 1)
        return;
    zd_signal_register(SIGCHLD, end_by_signal);
    zd_signal_register(SIGUSR1, end_by_signal);
    zd_signal_register(SIGALRM, end_by_signal);
    const pid_t child = fork();
    if (child != 0)
        exit(child < 0 ? 1 : 0);
}

// Closes the descriptors from first up to, not including, end. A limit can be a thousand million,
// so the kernel is asked to do them all at once, where it can.
void close_range_of(unsigned int first, unsigned int end) {
    if (first >= end || close_range(first, end - 1, 0) == 0)
        return;
    for (unsigned int fd = first; fd < end; fd++)
        close(static_cast<int>(fd));
}

void close_descriptors(int excluding_fd) {
    rlimit limit;
    const int rc = getrlimit(RLIMIT_NOFILE, &limit);
    if (rc != 0) {
        print_event(STDOUT_CLI_GETRLIMIT_FAIL);
        fflush(stdout); // abort() does not
    }
    ZD_ASSERT("client_daemon", rc == 0);
    const unsigned int end = limit.rlim_cur == RLIM_INFINITY
                                 ? kDescriptorsWhenUnlimited
                                 : static_cast<unsigned int>(limit.rlim_cur);
    if (excluding_fd < 0 || static_cast<unsigned int>(excluding_fd) >= end) {
        close_range_of(0, end);
        return;
    }
    const unsigned int excluded = static_cast<unsigned int>(excluding_fd);
    close_range_of(0, excluded);
    close_range_of(excluded + 1, end);
}

void open_standard_descriptors() {
    const int fd0 = open("/dev/null", O_RDWR);
    const int fd1 = dup(fd0);
    const int fd2 = dup(fd0);
    ZD_ASSERT("client_daemon", fd0 == 0 && fd1 == 1 && fd2 == 2);
}

} // namespace

void client_daemonize(int excluding_fd) {
    leave_parent();
    if (setsid() < 0)
        exit(1);
    close_descriptors(excluding_fd);
    open_standard_descriptors();
    zd_signal_register(SIGCHLD, reap_children);
    zd_signal_register(SIGTSTP, SIG_IGN);
    zd_signal_register(SIGTTOU, SIG_IGN);
    zd_signal_register(SIGTTIN, SIG_IGN);
    zd_signal_register(SIGHUP, SIG_IGN);
    zd_signal_register(SIGTERM, SIG_DFL);
}
