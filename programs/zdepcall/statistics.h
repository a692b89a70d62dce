// How long many calls took.

#ifndef ZDEPCALL_STATISTICS_H
#define ZDEPCALL_STATISTICS_H

#include <cstddef>
#include <vector>

namespace zdepcall {

// All in microseconds.
struct Summary {
    size_t calls = 0;
    double p50 = 0;
    double p99 = 0;
    double max = 0;
    double calls_per_second = 0;
};

// times is one entry a call, at least one, in any order; elapsed is from before the first call to
// after the last. A percentile is the smallest time that so many calls did not exceed.
Summary summarize(std::vector<double> times, double elapsed);

} // namespace zdepcall

#endif
