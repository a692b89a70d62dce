#include "common/zd_gettime.h"

#include <pthread.h>
#include <sys/time.h>
#include <unistd.h>
#include <x86intrin.h>

#include "common/zd_gettime_core.h"

int zd_scale_factor;
double zd_scale_factor2;

namespace {

pthread_mutex_t minute_mutex = PTHREAD_MUTEX_INITIALIZER;
constinit zd_minute_cache minute_cache;

struct process_clock {
    zd_clock_reading read() const {
        timeval now;
        gettimeofday(&now, nullptr);
        return {static_cast<uint64_t>(now.tv_sec) * 1000000 + static_cast<uint64_t>(now.tv_usec),
                __rdtsc()};
    }
    void sleep(uint64_t usec) const { usleep(static_cast<useconds_t>(usec)); }
};

} // namespace

void zd_init_gettime(void) {
    process_clock clock;
    zd_measure_scale(clock, &zd_scale_factor, &zd_scale_factor2);
}

void zd_getlocaltime(int *year, int *mon, int *day, int *hour, int *min, int *sec, int *usec) {
    timeval now;
    pthread_mutex_lock(&minute_mutex);
    gettimeofday(&now, nullptr);
    const tm *const local = minute_cache.at(now.tv_sec);
    *year = local->tm_year + 1900;
    *mon = local->tm_mon + 1;
    *day = local->tm_mday;
    *hour = local->tm_hour;
    *min = local->tm_min;
    *sec = local->tm_sec;
    pthread_mutex_unlock(&minute_mutex);
    *usec = static_cast<int>(now.tv_usec);
}
