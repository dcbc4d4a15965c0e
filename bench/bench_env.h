#ifndef ORVANE_BENCH_BENCH_ENV_H
#define ORVANE_BENCH_BENCH_ENV_H

// Settings of the benchmark programs, read from the environment. A value
// that is not a number in range is refused with a clear message: a run with
// a silently different setting would report the wrong figures.

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace benchutil {

inline std::string env(const char* name, const char* fallback) {
    const char* v = std::getenv(name);
    return v && *v ? v : fallback;
}

// The number in `name`, or `fallback` when unset or empty; exits with status
// 2 and a message when it is not a number within [low, high].
inline double envNumber(const char* name, double fallback, double low, double high) {
    const char* v = std::getenv(name);
    if (!v || !*v) return fallback;
    char* end = nullptr;
    errno = 0;
    const double x = std::strtod(v, &end);
    if (errno != 0 || end == v || *end != '\0' || !(x >= low && x <= high)) {
        std::fprintf(stderr, "%s=%s: expected a number from %g to %g\n", name, v, low, high);
        std::exit(2);
    }
    return x;
}

}  // namespace benchutil

#endif
