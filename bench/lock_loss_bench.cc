// Cost of noticing a lost lock: one refresh that checks the holder's content
// before rewriting it (refreshOwnedLockFile, what every refreshing lock file
// does each period) against the unchecked refresh (refreshLockFile).
// Prints both figures and their ratio.

#include <stdint.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <boost/date_time/posix_time/posix_time.hpp>

#include "bench_medians.h"
#include "orvane/fs.h"

namespace pt = boost::posix_time;

namespace {

// ORVANE_BENCH_DIR, else /dev/shm, where the figures show the layer's own
// cost rather than a disk's.
std::string scratchDir() {
    static std::string dir;
    if (!dir.empty()) return dir;
    std::string base = "/tmp";
    struct stat st;
    if (const char* chosen = ::getenv("ORVANE_BENCH_DIR")) {
        if (*chosen) base = chosen;
    } else if (::stat("/dev/shm", &st) == 0 && S_ISDIR(st.st_mode)) {
        base = "/dev/shm";
    }
    std::string templ = base + "/orvane-loss-bench-XXXXXX";
    std::vector<char> buf(templ.begin(), templ.end());
    buf.push_back('\0');
    if (!::mkdtemp(buf.data())) std::abort();
    dir = buf.data();
    return dir;
}

// A holder's content: a 4-byte counter and a 12-byte owner token.
std::string content(uint32_t counter) {
    std::string c(reinterpret_cast<const char*>(&counter), sizeof counter);
    return c + std::string("pid+8random!", 12);
}

void BM_Refresh_WithLossCheck(benchmark::State& state) {
    ovNetworkFS fs;
    const std::string f = scratchDir() + "/owned";
    const pt::ptime deadline = pt::microsec_clock::local_time() + pt::hours(1);
    uint32_t counter = 1;
    std::string last = content(counter);
    fs.refreshOwnedLockFile(f, deadline, "", last);
    for (auto _ : state) {
        const std::string next = content(++counter);
        if (fs.refreshOwnedLockFile(f, deadline, last, next) != ovRefreshedOwned)
            state.SkipWithError("refresh did not find its own content");
        last = next;
    }
    ::unlink(f.c_str());
}
BENCHMARK(BM_Refresh_WithLossCheck);

void BM_Refresh_Unchecked(benchmark::State& state) {
    ovNetworkFS fs;
    const std::string f = scratchDir() + "/plain";
    const pt::ptime deadline = pt::microsec_clock::local_time() + pt::hours(1);
    for (auto _ : state) {
        if (!fs.refreshLockFile(f, deadline)) state.SkipWithError("refresh failed");
    }
    ::unlink(f.c_str());
}
BENCHMARK(BM_Refresh_Unchecked);

// Keeps the median time per iteration of each benchmark for the ratio.
using RatioReporter = benchutil::MedianReporter;

}  // namespace

int main(int argc, char** argv) {
    // Shared, noisy machine: interleave repetitions at random, compare medians.
    benchutil::initializeInterleavedMedians(argc, argv);
    std::printf("scratch directory: %s\n", scratchDir().c_str());
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    const double checked = reporter.nsPerOp["BM_Refresh_WithLossCheck"];
    const double plain = reporter.nsPerOp["BM_Refresh_Unchecked"];
    if (checked > 0 && plain > 0)
        std::printf("\nrefresh with loss check %9.0f ns   unchecked %9.0f ns   ratio %.2f (target <= 1.30)\n",
                    checked, plain, checked / plain);
    ::rmdir(scratchDir().c_str());
    benchmark::Shutdown();
    return 0;
}
