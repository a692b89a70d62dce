#include "waiting.h"

#include <cerrno>
#include <csignal>
#include <system_error>

namespace zdepcall {

namespace {

constexpr int ending_signals[] = {SIGINT, SIGTERM, SIGHUP};

volatile sig_atomic_t received_signal = 0;
sigset_t original_mask;

void remember_signal(int signal_number) {
    received_signal = signal_number;
}

} // namespace

void catch_signals() {
    sigset_t blocked;
    sigemptyset(&blocked);
    struct sigaction action = {};
    action.sa_handler = remember_signal;
    for (const int signal_number : ending_signals) {
        struct sigaction present;
        sigaction(signal_number, nullptr, &present);
        if (present.sa_handler == SIG_IGN) // as under nohup
            continue;
        sigaddset(&blocked, signal_number);
        sigaction(signal_number, &action, nullptr);
    }
    sigprocmask(SIG_BLOCK, &blocked, &original_mask);
}

void release_signals() {
    for (const int signal_number : ending_signals) {
        struct sigaction present;
        sigaction(signal_number, nullptr, &present);
        if (present.sa_handler != SIG_IGN)
            signal(signal_number, SIG_DFL);
    }
    sigprocmask(SIG_SETMASK, &original_mask, nullptr);
}

bool wait_for(std::span<pollfd> descriptors, Deadline deadline) {
    for (;;) {
        timespec limit = {};
        if (deadline) {
            const auto left = std::max(*deadline - Clock::now(), Clock::duration::zero());
            const auto seconds = std::chrono::floor<std::chrono::seconds>(left);
            limit.tv_sec = seconds.count();
            limit.tv_nsec = std::chrono::nanoseconds(left - seconds).count();
        }
        const int ready = ppoll(descriptors.data(), descriptors.size(), deadline ? &limit : nullptr,
                                &original_mask);
        if (received_signal != 0)
            throw Interrupted{received_signal};
        if (ready >= 0)
            return ready > 0;
        if (errno != EINTR)
            throw std::system_error(errno, std::generic_category(), "ppoll");
    }
}

} // namespace zdepcall
