// Overhead of the network file-system layer over the bare system calls:
// one exclusive create + removal, one lock-file refresh, and a waiter's look
// at a name that is held (an exclusive create that fails, then the file's
// date: the layer asks the server past the client's cache, the bare calls
// trust it). Prints each figure next to its bare alternative and their ratio.
// ORVANE_BENCH_DIR may name a network mount to see a client's round trips.

#include <fcntl.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <boost/date_time/posix_time/posix_time.hpp>

#include "bench_medians.h"
#include "orvane/fs.h"

namespace pt = boost::posix_time;

namespace {

// ORVANE_BENCH_DIR, else /dev/shm: on a memory file system the figures show
// the layer's own overhead rather than the disk's journal (and the noise of
// other processes writing to it).
std::string baseDir() {
    const char* chosen = ::getenv("ORVANE_BENCH_DIR");
    if (chosen && *chosen) return chosen;
    struct stat st;
    if (::stat("/dev/shm", &st) == 0 && S_ISDIR(st.st_mode)) return "/dev/shm";
    const char* tmp = ::getenv("TMPDIR");
    return tmp && *tmp ? tmp : "/tmp";
}

std::string scratchDir() {
    static std::string dir;
    if (dir.empty()) {
        std::string templ = baseDir() + "/orvane-bench-XXXXXX";
        std::vector<char> buf(templ.begin(), templ.end());
        buf.push_back('\0');
        if (!::mkdtemp(buf.data())) std::abort();
        dir = buf.data();
    }
    return dir;
}

void BM_CreateRemove_Layer(benchmark::State& state) {
    ovNetworkFS fs;
    const std::string f = scratchDir() + "/layer-create";
    const pt::ptime deadline = pt::microsec_clock::local_time() + pt::hours(1);
    for (auto _ : state) {
        if (!fs.createFile(f.c_str())) state.SkipWithError("create failed");
        if (!fs.removeFile(f, deadline)) state.SkipWithError("remove failed");
    }
}
BENCHMARK(BM_CreateRemove_Layer);

void BM_CreateRemove_Bare(benchmark::State& state) {
    const std::string f = scratchDir() + "/bare-create";
    for (auto _ : state) {
        const int fd = ::open(f.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0777);
        if (fd < 0) state.SkipWithError("open failed");
        ::close(fd);
        if (::unlink(f.c_str()) != 0) state.SkipWithError("unlink failed");
    }
}
BENCHMARK(BM_CreateRemove_Bare);

void BM_Refresh_Layer(benchmark::State& state) {
    ovNetworkFS fs;
    const std::string f = scratchDir() + "/layer-refresh";
    for (auto _ : state) {
        if (!fs.refreshLockFile(f)) state.SkipWithError("refresh failed");
    }
    ::unlink(f.c_str());
}
BENCHMARK(BM_Refresh_Layer);

void BM_Refresh_Bare(benchmark::State& state) {
    const std::string f = scratchDir() + "/bare-refresh";
    uint32_t counter = 0;
    for (auto _ : state) {
        const int fd = ::open(f.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0777);
        if (fd < 0) state.SkipWithError("open failed");
        ++counter;
        if (::write(fd, &counter, sizeof counter) != sizeof counter) state.SkipWithError("write failed");
        ::close(fd);
    }
    ::unlink(f.c_str());
}
BENCHMARK(BM_Refresh_Bare);

// What a waiter pays per polling cycle at a held name.
void BM_HeldName_Layer(benchmark::State& state) {
    ovNetworkFS fs;
    const std::string f = scratchDir() + "/layer-held";
    if (!fs.createFile(f.c_str())) state.SkipWithError("create failed");
    for (auto _ : state) {
        if (fs.createFile(f.c_str())) state.SkipWithError("created a held name");
        if (fs.getFileLastModifiedTime(f.c_str()) <= 0) state.SkipWithError("held name has no date");
    }
    ::unlink(f.c_str());
}
BENCHMARK(BM_HeldName_Layer);

void BM_HeldName_Bare(benchmark::State& state) {
    const std::string f = scratchDir() + "/bare-held";
    ::close(::open(f.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0777));
    struct stat st;
    for (auto _ : state) {
        if (::open(f.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0777) >= 0)
            state.SkipWithError("created a held name");
        if (::lstat(f.c_str(), &st) != 0) state.SkipWithError("held name not found");
    }
    ::unlink(f.c_str());
}
BENCHMARK(BM_HeldName_Bare);

// Keeps each benchmark's time per iteration for the ratios printed at the end.
class RatioReporter : public benchutil::MedianReporter {
public:
    void printRatio(const char* what, const std::string& ours, const std::string& bare) {
        if (!nsPerOp.count(ours) || !nsPerOp.count(bare) || nsPerOp[bare] <= 0) return;
        std::printf("%-28s layer %9.0f ns   bare %9.0f ns   ratio %.2f\n", what, nsPerOp[ours], nsPerOp[bare],
                    nsPerOp[ours] / nsPerOp[bare]);
    }
};

}  // namespace

int main(int argc, char** argv) {
    // The machine is shared and file-system timings are noisy: by default,
    // interleave repetitions of all benchmarks at random and compare medians.
    // Flags given on the command line come later and win.
    benchutil::initializeInterleavedMedians(argc, argv);
    std::printf("scratch directory: %s\n", scratchDir().c_str());
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    std::printf("\n");
    reporter.printRatio("createFile + removeFile", "BM_CreateRemove_Layer", "BM_CreateRemove_Bare");
    reporter.printRatio("refreshLockFile", "BM_Refresh_Layer", "BM_Refresh_Bare");
    reporter.printRatio("held name: create + date", "BM_HeldName_Layer", "BM_HeldName_Bare");
    ::rmdir(scratchDir().c_str());
    benchmark::Shutdown();
    return 0;
}
