// Path primitives against the usual alternatives. Each pair runs as two
// benchmarks named "<case>/ours" and "<case>/<alternative>"; after the runs
// a table gives both times and their ratio (alternative / ours: above 1
// means ours is faster).

#include <fcntl.h>
#include <ftw.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "orvane/path.h"

namespace fs = std::filesystem;

namespace {

// A fresh directory for generated trees, removed at exit.
const std::string& scratch() {
    static const std::string dir = [] {
        char templ[] = "/tmp/orvane-bench-XXXXXX";
        if (!::mkdtemp(templ)) throw std::runtime_error("mkdtemp");
        return std::string(templ);
    }();
    return dir;
}

struct ScratchCleanup {
    ~ScratchCleanup() { fs::remove_all(scratch()); }
} cleanupAtExit;

// dirs x subdirs directories, each subdirectory holding files files of
// assorted (sparse) sizes.
void makeTree(const std::string& root, int dirs, int subdirs, int files) {
    ::mkdir(root.c_str(), 0755);
    for (int d = 0; d < dirs; ++d) {
        const std::string dp = root + "/d" + std::to_string(d);
        ::mkdir(dp.c_str(), 0755);
        for (int s = 0; s < subdirs; ++s) {
            const std::string sp = dp + "/s" + std::to_string(s);
            ::mkdir(sp.c_str(), 0755);
            for (int f = 0; f < files; ++f) {
                const std::string fp = sp + "/file" + std::to_string(f) + ".dat";
                int fd = ::open(fp.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0644);
                if (fd < 0) throw std::runtime_error("cannot create " + fp);
                if (::ftruncate(fd, (d * 7 + s * 13 + f * 31) % 4096) != 0) throw std::runtime_error("ftruncate");
                ::close(fd);
            }
        }
    }
}

// About 100,000 entries: 10 x 10 directories of 1,000 files.
const std::string& bigTree() {
    static const std::string root = [] {
        std::string r = scratch() + "/big";
        makeTree(r, 10, 10, 1000);
        return r;
    }();
    return root;
}

// ---- Collapse ---------------------------------------------------------------

const char* kMessyPath = "/usr/local/./lib//../share/doc/pkg/./../../bin//x/y/z/../../w";

void Collapse_ours(benchmark::State& state) {
    char out[256];
    const size_t n = std::strlen(kMessyPath);
    for (auto _ : state) {
        benchmark::DoNotOptimize(ovCollapsePath(out, kMessyPath, n));
        benchmark::ClobberMemory();
    }
}
void Collapse_lexically_normal(benchmark::State& state) {
    for (auto _ : state) benchmark::DoNotOptimize(fs::path(kMessyPath).lexically_normal());
}

// ---- Canonicalize -----------------------------------------------------------

const std::string& existingDeep() {
    static const std::string p = [] {
        std::string d = scratch() + "/canon/a/b/../b/c/./d";
        fs::create_directories(scratch() + "/canon/a/b/c/d");
        return d;
    }();
    return p;
}

void CanonicalizeExisting_ours(benchmark::State& state) {
    const std::string& p = existingDeep();
    char out[PATH_MAX];
    for (auto _ : state) benchmark::DoNotOptimize(ovCanonicalizePath(out, sizeof out, p.c_str(), p.size()));
}
void CanonicalizeExisting_realpath(benchmark::State& state) {
    const std::string& p = existingDeep();
    char out[PATH_MAX];
    for (auto _ : state) benchmark::DoNotOptimize(::realpath(p.c_str(), out));
}

void CanonicalizeMissingTail_ours(benchmark::State& state) {
    const std::string p = existingDeep() + "/not/there/yet";
    char out[PATH_MAX];
    for (auto _ : state) benchmark::DoNotOptimize(ovCanonicalizePath(out, sizeof out, p.c_str(), p.size()));
}
void CanonicalizeMissingTail_weakly_canonical(benchmark::State& state) {
    const fs::path p = existingDeep() + "/not/there/yet";
    for (auto _ : state) benchmark::DoNotOptimize(fs::weakly_canonical(p));
}

// ---- Walking a 100,000-entry tree -------------------------------------------

struct Counter : ovStringProcedure {
    mutable unsigned long n = 0;
    void operator()(const char*) const override { ++n; }
};

unsigned long nftwCount;
int countEntry(const char*, const struct stat*, int, struct FTW*) {
    ++nftwCount;
    return 0;
}

void WalkTree_ours(benchmark::State& state) {
    const std::string pattern = bigTree() + "/*";
    for (auto _ : state) {
        Counter c;
        benchmark::DoNotOptimize(ovFindMatchingFilesAndDirs(pattern.c_str(), c, c, 1024, false));
    }
}
void WalkTree_nftw(benchmark::State& state) {
    const std::string root = bigTree();
    for (auto _ : state) {
        nftwCount = 0;
        ::nftw(root.c_str(), countEntry, 64, 0);
        benchmark::DoNotOptimize(nftwCount);
    }
}

uint64_t nftwBytes;
int sumEntry(const char*, const struct stat* st, int type, struct FTW*) {
    if (type == FTW_F) nftwBytes += static_cast<uint64_t>(st->st_size);
    return 0;
}

void DirectorySize_ours(benchmark::State& state) {
    const std::string root = bigTree();
    for (auto _ : state) benchmark::DoNotOptimize(ovGetDirectorySize(root.c_str()));
}
void DirectorySize_nftw(benchmark::State& state) {
    const std::string root = bigTree();
    for (auto _ : state) {
        nftwBytes = 0;
        ::nftw(root.c_str(), sumEntry, 64, 0);
        benchmark::DoNotOptimize(nftwBytes);
    }
}

// ---- Removing a 20,000-entry tree -------------------------------------------

void removeBench(benchmark::State& state, bool ours) {
    const std::string root = scratch() + (ours ? "/rm-ours" : "/rm-theirs");
    for (auto _ : state) {
        state.PauseTiming();
        makeTree(root, 4, 5, 1000);  // 20,000 files and 24 directories
        ::sync();
        state.ResumeTiming();
        if (ours) {
            if (!ovRemoveRF(root.c_str())) state.SkipWithError("ovRemoveRF failed");
        } else {
            fs::remove_all(root);
        }
    }
}
void RemoveTree_ours(benchmark::State& state) { removeBench(state, true); }
void RemoveTree_remove_all(benchmark::State& state) { removeBench(state, false); }

// Keeps the console output and remembers each benchmark's mean time.
class PairReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& r : runs) {
            if (r.error_occurred || r.run_type != Run::RT_Iteration) continue;
            const std::string name = r.run_name.function_name;
            times_[name] = r.GetAdjustedRealTime();
            cpu_[name] = r.GetAdjustedCPUTime();
            units_[name] = benchmark::GetTimeUnitString(r.time_unit);
            if (std::find(order_.begin(), order_.end(), name) == order_.end()) order_.push_back(name);
        }
    }

    // Wall-clock and CPU ratios both: on a shared machine the wall clock
    // also measures the neighbours.
    void printPairs() const {
        std::printf("\n%-24s %22s %-18s %22s %10s %10s\n", "case", "ours (real/cpu)", "alternative",
                    "theirs (real/cpu)", "real x", "cpu x");
        for (const std::string& name : order_) {
            const size_t slash = name.find('/');
            if (slash == std::string::npos || name.compare(slash + 1, std::string::npos, "ours") != 0) continue;
            const std::string stem = name.substr(0, slash + 1);
            for (const std::string& other : order_) {
                if (other == name || other.compare(0, stem.size(), stem) != 0) continue;
                std::printf("%-24s %9.3g/%-9.3g %-2s %-18s %9.3g/%-9.3g %-2s %9.2fx %9.2fx\n",
                            name.substr(0, slash).c_str(), times_.at(name), cpu_.at(name), units_.at(name).c_str(),
                            other.substr(slash + 1).c_str(), times_.at(other), cpu_.at(other),
                            units_.at(other).c_str(), times_.at(other) / times_.at(name),
                            cpu_.at(other) / cpu_.at(name));
            }
        }
        std::printf("(ratio = alternative / ours: above 1 means ours is faster)\n");
    }

private:
    std::map<std::string, double> times_;
    std::map<std::string, double> cpu_;
    std::map<std::string, std::string> units_;
    std::vector<std::string> order_;
};

}  // namespace

int main(int argc, char** argv) {
    benchmark::RegisterBenchmark("Collapse/ours", Collapse_ours);
    benchmark::RegisterBenchmark("Collapse/lexically_normal", Collapse_lexically_normal);
    benchmark::RegisterBenchmark("CanonicalizeExisting/ours", CanonicalizeExisting_ours);
    benchmark::RegisterBenchmark("CanonicalizeExisting/realpath", CanonicalizeExisting_realpath);
    benchmark::RegisterBenchmark("CanonicalizeMissingTail/ours", CanonicalizeMissingTail_ours);
    benchmark::RegisterBenchmark("CanonicalizeMissingTail/weakly_canonical", CanonicalizeMissingTail_weakly_canonical);
    benchmark::RegisterBenchmark("WalkTree/ours", WalkTree_ours)->Unit(benchmark::kMillisecond)->MinTime(2);
    benchmark::RegisterBenchmark("WalkTree/nftw", WalkTree_nftw)->Unit(benchmark::kMillisecond)->MinTime(2);
    benchmark::RegisterBenchmark("DirectorySize/ours", DirectorySize_ours)->Unit(benchmark::kMillisecond)->MinTime(2);
    benchmark::RegisterBenchmark("DirectorySize/nftw", DirectorySize_nftw)->Unit(benchmark::kMillisecond)->MinTime(2);
    benchmark::RegisterBenchmark("RemoveTree/ours", RemoveTree_ours)->Unit(benchmark::kMillisecond)->Iterations(5);
    benchmark::RegisterBenchmark("RemoveTree/remove_all", RemoveTree_remove_all)
        ->Unit(benchmark::kMillisecond)
        ->Iterations(5);
    benchmark::Initialize(&argc, argv);
    PairReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.printPairs();
    benchmark::Shutdown();
    return 0;
}
