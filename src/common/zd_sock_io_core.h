// The arithmetic of the time-limited write, apart from the clock that feeds it, so that tests can
// give it any reading. Not part of the interface.

#ifndef ZD_SOCK_IO_CORE_H
#define ZD_SOCK_IO_CORE_H

#ifdef __cplusplus

#include <stdint.h>

// What is left of msec after a wait from one reading of the time-stamp counter to another, at scale
// ticks a microsecond; never below 0. A counter that went back (the thread moved to another
// processor) takes nothing off. A scale that was never measured counts as 1.
constexpr int zd_remaining_msec(int msec, uint64_t before, uint64_t after, int scale) {
    constexpr uint64_t kMicrosecondsPerMillisecond = 1000;
    const uint64_t ticks = after > before ? after - before : 0;
    const uint64_t elapsed =
        ticks / static_cast<uint64_t>(scale > 0 ? scale : 1) / kMicrosecondsPerMillisecond;
    if (msec <= 0 || elapsed >= static_cast<uint64_t>(msec))
        return 0;
    return msec - static_cast<int>(elapsed);
}

#endif

#endif
