// Waiting for descriptors, with signals that end the wait in order: SIGINT, SIGTERM and SIGHUP
// are held back and seen here alone, so that no folder or process is left behind.

#ifndef ZDEPCALL_WAITING_H
#define ZDEPCALL_WAITING_H

#include <poll.h>

#include <chrono>
#include <optional>
#include <span>

namespace zdepcall {

using Clock = std::chrono::steady_clock;
using Deadline = std::optional<Clock::time_point>; // none: without limit

// A signal asked this program to end.
struct Interrupted {
    int signal_number;
};

// Once, at the start of the program.
void catch_signals();
// For a child before it runs other code: the signals do again what they did at the start.
void release_signals();

// As poll, until the deadline; false when it passed. Throws Interrupted.
bool wait_for(std::span<pollfd> descriptors, Deadline deadline);

} // namespace zdepcall

#endif
