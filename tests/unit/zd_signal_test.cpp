#include "common/zd_signal.h"

#include <dlfcn.h>
#include <errno.h>
#include <pthread.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace {

// What was asked of the system last: it does not give back every flag that it was handed.
struct sigaction asked_action;
int asked_how;
sigset_t asked_mask;
bool refuse_mask;

template <class Function>
Function *next_of(const char *name, Function *) {
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

} // namespace

// The library's calls come here: a program's functions precede those of the libraries it loads.
extern "C" int sigaction(int signo, const struct sigaction *action,
                         struct sigaction *previous) noexcept {
    if (action != nullptr)
        asked_action = *action;
    return next_of("sigaction", sigaction)(signo, action, previous);
}

extern "C" int pthread_sigmask(int how, const sigset_t *mask, sigset_t *previous) noexcept {
    if (refuse_mask)
        return EINVAL;
    asked_how = how;
    if (mask != nullptr)
        asked_mask = *mask;
    return next_of("pthread_sigmask", pthread_sigmask)(how, mask, previous);
}

namespace {

volatile sig_atomic_t arrivals;

void count(int) {
    arrivals = arrivals + 1;
}

void ignore(int) {}

class ZdSignal : public testing::Test {
  protected:
    void SetUp() override {
        arrivals = 0;
        signal(SIGUSR1, SIG_DFL);
    }
    void TearDown() override { SetUp(); }
};

TEST_F(ZdSignal, PreviousHandlerComesBack) {
    EXPECT_EQ(zd_signal_register(SIGUSR1, count), SIG_DFL);
    EXPECT_EQ(zd_signal_register(SIGUSR1, ignore), &count);
    EXPECT_EQ(zd_signal_register(SIGUSR1, SIG_IGN), &ignore);
    EXPECT_EQ(zd_signal_register(SIGUSR1, SIG_DFL), SIG_IGN);
}

TEST_F(ZdSignal, HandlerStaysAfterAnArrival) {
    zd_signal_register(SIGUSR1, count);
    raise(SIGUSR1);
    raise(SIGUSR1);
    EXPECT_EQ(arrivals, 2);
}

TEST_F(ZdSignal, BlockedSignalIsUnblockedBeforeTheHandlerIsInstalled) {
    zd_signal_register(SIGUSR1, count);
    sigset_t only;
    sigemptyset(&only);
    sigaddset(&only, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &only, nullptr);
    raise(SIGUSR1);
    ASSERT_EQ(arrivals, 0);
    zd_signal_register(SIGUSR1, ignore);
    EXPECT_EQ(arrivals, 1) << "the pending signal went to the old handler";
    sigset_t blocked;
    pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
    EXPECT_FALSE(sigismember(&blocked, SIGUSR1));
}

TEST_F(ZdSignal, OtherSignalsStayAsTheyAreInTheMask) {
    sigset_t other;
    sigemptyset(&other);
    sigaddset(&other, SIGUSR2);
    pthread_sigmask(SIG_BLOCK, &other, nullptr);
    zd_signal_register(SIGUSR1, count);
    sigset_t blocked;
    pthread_sigmask(SIG_UNBLOCK, &other, &blocked);
    EXPECT_TRUE(sigismember(&blocked, SIGUSR2));
}

TEST_F(ZdSignal, HandlerIsPlainAndBlocksNothingElse) {
    zd_signal_register(SIGUSR1, count);
    struct sigaction installed;
    ASSERT_EQ(sigaction(SIGUSR1, nullptr, &installed), 0);
    constexpr unsigned int kOthers = SA_RESTART | SA_RESETHAND | SA_NODEFER | SA_SIGINFO |
                                     SA_ONSTACK | SA_NOCLDSTOP | SA_NOCLDWAIT;
    EXPECT_EQ(static_cast<unsigned int>(installed.sa_flags) & kOthers, 0u);
    for (int signo = 1; signo < 32; signo++)
        EXPECT_NE(sigismember(&installed.sa_mask, signo), 1) << signo;
}

TEST_F(ZdSignal, OnlyFlagIsThatInterruptedCallsFail) {
    zd_signal_register(SIGUSR1, count);
    EXPECT_EQ(asked_action.sa_handler, count);
    EXPECT_EQ(asked_action.sa_flags, 0x20000000);
    for (int signo = 1; signo < NSIG; signo++)
        EXPECT_EQ(sigismember(&asked_action.sa_mask, signo), 0) << signo;
}

TEST_F(ZdSignal, OnlyTheSignalItselfIsUnblocked) {
    zd_signal_register(SIGUSR1, count);
    EXPECT_EQ(asked_how, SIG_UNBLOCK);
    for (int signo = 1; signo < NSIG; signo++)
        EXPECT_EQ(sigismember(&asked_mask, signo), signo == SIGUSR1) << signo;
}

TEST_F(ZdSignal, SignalThatCannotBeUnblockedGetsNoHandler) {
    refuse_mask = true;
    EXPECT_EQ(zd_signal_register(SIGUSR1, count), SIG_ERR);
    refuse_mask = false;
    EXPECT_EQ(zd_signal_register(SIGUSR1, ignore), SIG_DFL);
}

TEST_F(ZdSignal, ArrivalMakesAWaitingReadFail) {
    zd_signal_register(SIGUSR1, count);
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    std::atomic<bool> returned = false;
    const pthread_t reader = pthread_self();
    std::thread sender([&] {
        // The read may not have begun when a signal arrives: keep sending, but not for ever.
        for (int i = 0; i < 5000 && !returned; i++) {
            pthread_kill(reader, SIGUSR1);
            usleep(1000);
        }
        if (!returned)
            (void)!write(ends[1], "x", 1);
    });
    char byte;
    const ssize_t result = read(ends[0], &byte, 1);
    const int cause = errno;
    returned = true;
    sender.join();
    EXPECT_EQ(result, -1);
    EXPECT_EQ(cause, EINTR);
    close(ends[0]);
    close(ends[1]);
}

TEST_F(ZdSignal, SignalThatCannotBeCaughtIsRefused) {
    EXPECT_EQ(zd_signal_register(SIGKILL, count), SIG_ERR);
    EXPECT_EQ(zd_signal_register(0, count), SIG_ERR);
    EXPECT_EQ(zd_signal_register(1000, count), SIG_ERR);
}

} // namespace
