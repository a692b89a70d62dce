// Clocks: the processor's time-stamp counter with its measured scale, and a cheap reader of the
// local time that asks the time-zone rules once a minute. Any thread may call any of them.

#ifndef ZD_GETTIME_H
#define ZD_GETTIME_H

#include "common/zd_base.h"

ZD_BEGIN_DECLS

// Counter ticks per microsecond; 0 until zd_init_gettime has run. Written there alone.
ZD_API extern int zd_scale_factor;
// The best ratio that was measured, before rounding.
ZD_API extern double zd_scale_factor2;

// Measures the counter against the wall clock; takes a second. A counter that stands still ends
// the process with status 1; a scale that misses the wall clock by 0.03 % or more is reported on
// standard error.
ZD_API void zd_init_gettime(void);

// The local time now: year in full, month from 1, microseconds within the second. Requires seven
// pointers.
ZD_API void zd_getlocaltime(int *year, int *mon, int *day, int *hour, int *min, int *sec,
                            int *usec);

ZD_END_DECLS

#endif
