#include "statistics.h"

#include <algorithm>

namespace zdepcall {

Summary summarize(std::vector<double> times, double elapsed) {
    std::sort(times.begin(), times.end());
    const auto percentile = [&times](size_t percent) {
        return times[(times.size() * percent + 99) / 100 - 1];
    };
    Summary summary;
    summary.calls = times.size();
    summary.p50 = percentile(50);
    summary.p99 = percentile(99);
    summary.max = times.back();
    summary.calls_per_second = elapsed > 0 ? static_cast<double>(times.size()) * 1e6 / elapsed : 0;
    return summary;
}

} // namespace zdepcall
