#include "client/common/client_daemon.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <ostream>
#include <string>

namespace {

// What the system is to do instead of the usual.
struct {
    bool has_process_1_as_parent;
    void (*before_fork)();
    bool fork_fails;
    bool getrlimit_fails;
    bool is_unlimited;
} pretending;

} // namespace

// The library's calls come here, as the program's own names go before libc's. So do those of a
// sanitizer that is only about to start.
#define UNCHECKED __attribute__((no_sanitize("address", "thread", "undefined")))

extern "C" {

// A look for leaks at the end of a process takes a child of its own.
const char *__asan_default_options() {
    return "detect_leaks=0";
}

pid_t __fork(void);

UNCHECKED pid_t fork(void) noexcept {
    if (pretending.before_fork != nullptr)
        pretending.before_fork();
    if (!pretending.fork_fails)
        return __fork();
    errno = EAGAIN;
    return -1;
}

UNCHECKED pid_t getppid(void) noexcept {
    return pretending.has_process_1_as_parent ? 1 : static_cast<pid_t>(syscall(SYS_getppid));
}

UNCHECKED int getrlimit(__rlimit_resource_t resource, rlimit *limit) noexcept {
    if (pretending.getrlimit_fails) {
        errno = EPERM;
        return -1;
    }
    const long rc = syscall(SYS_prlimit64, 0, resource, nullptr, limit);
    if (pretending.is_unlimited)
        limit->rlim_cur = RLIM_INFINITY;
    return static_cast<int>(rc);
}
}

namespace {

namespace fs = std::filesystem;

using testing::MatchesRegex;

int exit_status(int status) {
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

// Runs a program's way to a daemon: prepare() in a process that then calls client_daemonize, and
// after() in what goes on, once the program has ended: a child that ends before it is a failure to
// the program. The daemon, an orphan by then, is handed to the test instead of to process 1, so
// that its end can be seen. Statuses are the numbers of exit, or a signal's, negative.
class ClientDaemon : public testing::Test {
  protected:
    using Step = std::function<void()>;

    void SetUp() override {
        ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends_), 0);
    }
    void TearDown() override {
        prctl(PR_SET_CHILD_SUBREAPER, 0);
        close(ends_[0]);
    }

    void run(const Step &prepare, const Step &after) {
        run_excluding(ends_[1], prepare, [&] {
            char go_on;
            if (read(ends_[1], &go_on, 1) != 1)
                _exit(98);
            after();
        });
    }

    // With another descriptor kept there is no way to wait for the end of the program.
    void run_excluding(int fd, const Step &prepare, const Step &after) {
        fflush(nullptr);
        program_ = fork();
        if (program_ == 0) {
            prepare();
            client_daemonize(fd);
            pretending = {};
            after();
            _exit(0);
        }
        close(ends_[1]);
        if (!pretends_no_fork_)
            wait_for_program();
        (void)!send(ends_[0], "g", 1, MSG_NOSIGNAL);
        char part[4096];
        for (ssize_t count; (count = read(ends_[0], part, sizeof part)) > 0;)
            said_.append(part, static_cast<size_t>(count));
        if (pretends_no_fork_)
            wait_for_program();
        int status = 0;
        daemon_ = waitpid(-1, &status, 0);
        daemon_status_ = exit_status(status);
    }

    void wait_for_program() {
        int status = 0;
        EXPECT_EQ(waitpid(program_, &status, 0), program_);
        program_status_ = exit_status(status);
    }

    // For use in the daemon: the only descriptor that it has.
    void say(const std::string &text) const {
        if (write(ends_[1], text.data(), text.size()) != static_cast<ssize_t>(text.size()))
            _exit(99);
    }

    int ends_[2];                   // the test's, the daemon's
    bool pretends_no_fork_ = false; // the program itself is the daemon
    pid_t program_ = 0;
    int program_status_ = 0;
    pid_t daemon_ = 0; // -1: there was none
    int daemon_status_ = 0;
    std::string said_;
};

void do_nothing() {}

TEST_F(ClientDaemon, ProgramEndsWithStatusZeroAndItsChildGoesOn) {
    run(do_nothing, [this] { say(std::to_string(getpid())); });
    EXPECT_EQ(program_status_, 0);
    EXPECT_EQ(daemon_status_, 0);
    EXPECT_NE(daemon_, program_);
    EXPECT_EQ(said_, std::to_string(daemon_));
}

TEST_F(ClientDaemon, DaemonLeadsASessionAndAGroupOfItsOwn) {
    run(do_nothing, [this] {
        say(getsid(0) == getpid() && getpgrp() == getpid() ? "leader" : "follower");
        say(open("/dev/tty", O_RDWR) < 0 ? ", no terminal" : ", terminal");
    });
    EXPECT_EQ(said_, "leader, no terminal");
    EXPECT_NE(getsid(0), daemon_);
}

TEST_F(ClientDaemon, EveryDescriptorButTheExcludedOneIsClosed) {
    run(
        [] {
            EXPECT_GE(dup2(1, 57), 0);
            EXPECT_GE(dup2(1, 3), 0);
        },
        [this] {
            std::string open_ones;
            for (int fd = 3; fd < 1000; fd++) {
                if (fcntl(fd, F_GETFD) >= 0)
                    open_ones += std::to_string(fd) + " ";
            }
            say(open_ones);
        });
    EXPECT_EQ(said_, std::to_string(ends_[1]) + " ");
}

TEST_F(ClientDaemon, StandardDescriptorsAreTheNullDeviceForBothDirections) {
    run(do_nothing, [this] {
        for (int fd = 0; fd < 3; fd++) {
            say(fs::read_symlink("/proc/self/fd/" + std::to_string(fd)).string() + " ");
            say((fcntl(fd, F_GETFL) & O_ACCMODE) == O_RDWR ? "rw " : "one way ");
        }
    });
    EXPECT_EQ(said_, "/dev/null rw /dev/null rw /dev/null rw ");
}

TEST_F(ClientDaemon, NoDescriptorIsKeptForANegativeOne) {
    run_excluding(-1, do_nothing, [this] { _exit(fcntl(ends_[1], F_GETFD) < 0 ? 7 : 8); });
    EXPECT_EQ(daemon_status_, 7);
}

TEST_F(ClientDaemon, DescriptorsFromTheLimitOnAreLeftAlone) {
    run(
        [] {
            EXPECT_GE(dup2(1, 60), 0);
            EXPECT_GE(dup2(1, 59), 0);
            const rlimit limit = {60, 60};
            EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
        },
        [this] {
            say(fcntl(59, F_GETFD) < 0 ? "closed " : "open ");
            say(fcntl(60, F_GETFD) < 0 ? "closed" : "open");
        });
    EXPECT_EQ(said_, "closed open");
}

TEST_F(ClientDaemon, UnlimitedDescriptorsCountAs1024) {
    rlimit limit;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    if (limit.rlim_max <= 1024)
        GTEST_SKIP() << "no descriptor 1024 on this machine";
    run(
        [&] {
            limit.rlim_cur = limit.rlim_max;
            setrlimit(RLIMIT_NOFILE, &limit);
            dup2(1, 1023);
            dup2(1, 1024);
            pretending.is_unlimited = true;
        },
        [this] {
            say(fcntl(1023, F_GETFD) < 0 ? "closed " : "open ");
            say(fcntl(1024, F_GETFD) < 0 ? "closed" : "open");
        });
    EXPECT_EQ(said_, "closed open");
}

TEST_F(ClientDaemon, ExcludedDescriptorBeyondTheLimitExcludesNothing) {
    run_excluding(1 << 30, do_nothing, [this] { _exit(fcntl(ends_[1], F_GETFD) < 0 ? 7 : 8); });
    EXPECT_EQ(daemon_status_, 7);
}

TEST_F(ClientDaemon, SignalsOfTerminalsAreIgnoredAndTerminationIsDefault) {
    run([] { signal(SIGTERM, SIG_IGN); },
        [this] {
            for (const int signo : {SIGTSTP, SIGTTOU, SIGTTIN, SIGHUP, SIGTERM}) {
                struct sigaction action;
                sigaction(signo, nullptr, &action);
                say(action.sa_handler == SIG_IGN   ? "ignored "
                    : action.sa_handler == SIG_DFL ? "default "
                                                   : "handled ");
            }
        });
    EXPECT_EQ(said_, "ignored ignored ignored ignored default ");
}

TEST_F(ClientDaemon, ChildrenAreReapedAsTheyEnd) {
    run(do_nothing, [this] {
        sigset_t only;
        sigemptyset(&only);
        sigaddset(&only, SIGCHLD);
        sigprocmask(SIG_BLOCK, &only, nullptr);
        pid_t children[2];
        for (pid_t &child : children) {
            child = fork();
            if (child == 0)
                _exit(0);
            siginfo_t ended;
            waitid(P_PID, static_cast<id_t>(child), &ended, WEXITED | WNOWAIT);
        }
        errno = ERANGE;
        sigprocmask(SIG_UNBLOCK, &only, nullptr); // one arrival for both
        say(errno == ERANGE ? "errno kept" : "errno changed");
        for (const pid_t child : children)
            say(waitpid(child, nullptr, 0) < 0 && errno == ECHILD ? ", reaped" : ", left");
    });
    EXPECT_EQ(said_, "errno kept, reaped, reaped");
}

TEST_F(ClientDaemon, FileModeMaskAndDirectoryStay) {
    run(
        [] {
            umask(027);
            EXPECT_EQ(chdir("/proc"), 0);
        },
        [this] {
            say(fs::current_path().string());
            say(umask(0) == 027 ? " 027" : " other");
        });
    EXPECT_EQ(said_, "/proc 027");
}

struct Ending {
    int signo;
    int status;
};

void PrintTo(const Ending &ending, std::ostream *stream) {
    *stream << strsignal(ending.signo);
}

class SignalOfTheDaemon : public ClientDaemon, public testing::WithParamInterface<Ending> {};

TEST_P(SignalOfTheDaemon, EndsIt) {
    run(do_nothing, [] { raise(GetParam().signo); });
    EXPECT_EQ(daemon_status_, GetParam().status);
}

INSTANTIATE_TEST_SUITE_P(ClientDaemon, SignalOfTheDaemon,
                         testing::Values(Ending{SIGUSR1, 0}, Ending{SIGALRM, 1},
                                         Ending{SIGTERM, -SIGTERM}));

class SignalBeforeTheFork : public ClientDaemon, public testing::WithParamInterface<Ending> {};

TEST_P(SignalBeforeTheFork, EndsTheProgram) {
    run([] { pretending.before_fork = [] { raise(GetParam().signo); }; }, do_nothing);
    EXPECT_EQ(program_status_, GetParam().status);
    EXPECT_EQ(daemon_, -1);
}

INSTANTIATE_TEST_SUITE_P(ClientDaemon, SignalBeforeTheFork,
                         testing::Values(Ending{SIGUSR1, 0}, Ending{SIGALRM, 1},
                                         Ending{SIGCHLD, 1}));

TEST_F(ClientDaemon, FailedForkEndsTheProgramWithStatusOne) {
    run([] { pretending.fork_fails = true; }, [this] { say("went on"); });
    EXPECT_EQ(program_status_, 1);
    EXPECT_EQ(said_, "");
}

TEST_F(ClientDaemon, ChildOfProcessOneDoesNotFork) {
    pretends_no_fork_ = true;
    run([] { pretending.has_process_1_as_parent = true; },
        [this] {
            say(std::to_string(getpid()));
            say(getsid(0) == getpid() ? " leads" : " follows");
            struct sigaction action;
            sigaction(SIGUSR1, nullptr, &action);
            say(action.sa_handler == SIG_DFL ? ", default" : ", handled");
        });
    EXPECT_EQ(daemon_, -1);
    EXPECT_EQ(said_, std::to_string(program_) + " leads, default");
}

TEST_F(ClientDaemon, GroupLeaderThatDoesNotForkCannotHaveItsOwnSession) {
    run(
        [] {
            setpgid(0, 0);
            pretending.has_process_1_as_parent = true;
        },
        [this] { say("went on"); });
    EXPECT_EQ(program_status_, 1);
    EXPECT_EQ(said_, "");
}

TEST_F(ClientDaemon, UnreadableLimitIsReportedAndAnAssertion) {
    run(
        [this] {
            dup2(ends_[1], 1);
            dup2(ends_[1], 2);
            pretending.getrlimit_fails = true;
        },
        do_nothing);
    EXPECT_EQ(daemon_status_, -SIGABRT);
    EXPECT_THAT(said_, MatchesRegex(" getrlimit failed.client_daemon:[0-9]+: Assertion fail with "
                                    "condition 'rc == 0' .*\n"));
}

TEST_F(ClientDaemon, StandardDescriptorThatIsKeptIsAnAssertion) {
    run_excluding(1, do_nothing, [] {});
    EXPECT_EQ(daemon_status_, -SIGABRT);
}

} // namespace
