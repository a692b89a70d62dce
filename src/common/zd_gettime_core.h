// The arithmetic of zd_gettime, apart from the clocks that feed it, so that tests can give it any
// instant and any counter. Not part of the interface.

#ifndef ZD_GETTIME_CORE_H
#define ZD_GETTIME_CORE_H

#ifdef __cplusplus

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

#include "client/common/client_assert.h"

// One minute of local time: the instants from start up to, not including, end share everything
// in local but the seconds. Empty at first. The owner serialises access.
struct zd_minute_cache {
    time_t start = 0;
    time_t end = 0;
    tm local = {};

    // The local time at now. Asks the zone's rules only outside the minute: its end may carry into
    // the hour, or be where the zone changes its offset.
    const tm *at(time_t now) {
        if (now >= start && now < end) {
            local.tm_sec = static_cast<int>(now - start);
            return &local;
        }
        ZD_ASSERT("zd_gettime", localtime_r(&now, &local) != NULL);
        start = now - local.tm_sec;
        end = start + 60;
        return &local;
    }
};

struct zd_clock_reading {
    uint64_t usec;  // wall clock
    uint64_t ticks; // time-stamp counter
};

constexpr int kZdClockMeasurements = 4;
constexpr uint64_t kZdFirstMeasurementUsec = 200000;

// 0 unless both clocks went forward.
constexpr double zd_ticks_per_usec(const zd_clock_reading &from, const zd_clock_reading &to) {
    if (to.usec <= from.usec || to.ticks <= from.ticks)
        return 0;
    return static_cast<double>(to.ticks - from.ticks) / static_cast<double>(to.usec - from.usec);
}

// Warns when the counter, read by the rounded scale, misses the real time by 0.03 % or more.
inline void zd_check_scale(const zd_clock_reading &from, const zd_clock_reading &to, int scale) {
    const uint64_t real = to.usec - from.usec;
    const uint64_t calculated = (to.ticks - from.ticks) / static_cast<uint64_t>(scale);
    const uint64_t difference = real > calculated ? real - calculated : calculated - real;
    if (static_cast<double>(difference) * 10000 < static_cast<double>(real) * 3)
        return;
    fprintf(stderr, "Warning : The difference between the statistics time and the actual time "
                    "exceeds 0.03 %%.\n");
    fprintf(stderr, "  real: %lu (usec) -> calculated: %lu (usec) with T.S.F: %d\n", real,
            calculated, scale);
}

// Measures a clock with read() and sleep(usec): the largest ratio goes to *best, rounded to *scale.
template <class Clock>
void zd_measure_scale(Clock &clock, int *scale, double *best) {
    zd_clock_reading first = {};
    zd_clock_reading from = {};
    zd_clock_reading to = {};
    uint64_t pause = kZdFirstMeasurementUsec;
    *best = 0;
    for (int i = 0; i < kZdClockMeasurements; i++) {
        from = clock.read();
        if (i == 0)
            first = from;
        clock.sleep(pause);
        to = clock.read();
        const double ratio = zd_ticks_per_usec(from, to);
        if (ratio > *best)
            *best = ratio;
        if (i == 2)
            pause *= 2;
    }
    *scale = static_cast<int>(*best + 0.5);
    if (*scale < 1) {
        fprintf(stderr, "Error : fail to get cpu clock speed\n");
        fprintf(stderr, "(1: %lu, 2: %lu, elapsed: %lu, T.S.F: %d)\n", from.ticks, to.ticks,
                to.usec - from.usec, *scale);
        exit(1);
    }
    zd_check_scale(first, to, *scale);
}

#endif

#endif
