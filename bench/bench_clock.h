#ifndef ORVANE_BENCH_BENCH_CLOCK_H
#define ORVANE_BENCH_BENCH_CLOCK_H

// The clock of the multi-process lock benchmarks: monotonic nanoseconds,
// comparable between the processes of one run, and plain sleeps.

#include <time.h>

namespace benchutil {

inline long long nowNs() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}

inline void sleepNs(long long ns) {
    if (ns <= 0) return;
    timespec ts = {static_cast<time_t>(ns / 1000000000LL), static_cast<long>(ns % 1000000000LL)};
    nanosleep(&ts, nullptr);
}

}  // namespace benchutil

#endif
