// How the exclusive lock scales with the number of contending processes,
// and how quickly the lock passes from one holder to the next.
//
//   Contention/<impl>/<N>   N processes (1, 2, 4, 8, 16) take the lock in
//                           turn for ORVANE_BENCH_SECONDS (default 3) each,
//                           holding it 1 ms. impl "orvane" is our lock; impl
//                           "naive" is the obvious alternative built from the
//                           same primitive: retry an O_EXCL create every 5 ms,
//                           unlink to release (no queue, no refresh, no
//                           take-over). Reported per run: acquisitions per
//                           second and the hand-over latency (release to the
//                           next holder's return from acquire, counted only
//                           when that holder was already waiting) as mean,
//                           median, 90th percentile and maximum, and the
//                           fairness (fewest acquisitions of one process over
//                           most); the orvane rows add the naive figures and
//                           the ratios ours / naive.
//
// Environment:
//   ORVANE_BENCH_LOCK_DIRS  colon-separated directories that all name one
//                           shared directory (say, two network mounts of it);
//                           contender i uses the (i mod count)-th. Default: a
//                           fresh directory under /tmp.
//   ORVANE_BENCH_DATA       if set, a directory that receives the raw data
//                           for plots: handover-<tag>-<impl>-<N>.txt (one
//                           latency in ms per line) and rate-<tag>.txt.
//   ORVANE_BENCH_TAG        the <tag> above (default "local").

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include <benchmark/benchmark.h>

#include "bench_clock.h"
#include "bench_env.h"
#include "lock_dirs.h"
#include "lock_recipes.h"

using namespace benchutil;

namespace {

const long long kHoldNs = 1000000;  // 1 ms inside the lock
const int kMaxEventsPerProcess = 20000;

double runSeconds() {
    const char* s = std::getenv("ORVANE_BENCH_SECONDS");
    const double v = s ? std::atof(s) : 0;
    return v > 0 ? v : 3.0;
}

// ---- One run: N processes, events recorded in shared memory -------------------

struct Event {
    long long waitStart, acquired, released;
};

struct Shared {
    std::atomic<int> go;
    std::atomic<int> errors;
    char firstError[256];
    std::atomic<int> counts[16];
    Event events[16][kMaxEventsPerProcess];
};

struct RunResult {
    double acquisitionsPerSecond = 0;
    double fairness = 0;  // fewest acquisitions of one process / most
    std::vector<double> handoverMs;
    int errors = 0;
    std::string error;
};

void contend(Shared* shared, int me, const std::string& dir, bool orvane, long long stopAt) {
    std::unique_ptr<LockRecipe> c;
    try {
        // The naive lock is the obvious one from the same primitive.
        if (orvane) c.reset(new OrvaneRecipe(dir, "bench"));
        else c.reset(new OExclRecipe(dir + "/naive.lock"));
        while (shared->go.load() == 0) usleep(200);
        while (nowNs() < stopAt) {
            Event e;
            e.waitStart = nowNs();
            if (!c->acquire(nowNs() + 60000000000LL)) throw std::runtime_error("acquire timed out after 60 s");
            e.acquired = nowNs();
            sleepNs(kHoldNs);
            e.released = nowNs();
            c->release();
            const int n = shared->counts[me].load();
            if (n < kMaxEventsPerProcess) {
                shared->events[me][n] = e;
                shared->counts[me].store(n + 1);
            }
        }
    } catch (const std::exception& ex) {
        if (shared->errors.fetch_add(1) == 0) {
            std::snprintf(shared->firstError, sizeof shared->firstError, "%s", ex.what());
        }
    }
}

RunResult runContention(int processes, bool orvane) {
    LockDirs dirs;
    const size_t bytes = sizeof(Shared);
    void* mem = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (mem == MAP_FAILED) std::abort();
    Shared* shared = new (mem) Shared();
    const double seconds = runSeconds();
    // Children get ready (and fork) before the clock starts.
    const long long stopAt = nowNs() + static_cast<long long>((seconds + 0.5) * 1e9);
    std::vector<pid_t> kids;
    for (int p = 0; p < processes; ++p) {
        const pid_t pid = fork();
        if (pid == 0) {
            contend(shared, p, dirs.forContender(p), orvane, stopAt);
            _exit(0);
        }
        kids.push_back(pid);
    }
    usleep(500000);
    const long long start = nowNs();
    shared->go.store(1);
    for (pid_t pid : kids) {
        // Bounded: a contender stuck past 90 s is killed and counted.
        const long long limit = nowNs() + 90LL * 1000000000LL;
        int status = 0;
        while (waitpid(pid, &status, WNOHANG) == 0) {
            if (nowNs() > limit) {
                kill(pid, SIGKILL);
                waitpid(pid, &status, 0);
                shared->errors.fetch_add(1);
                break;
            }
            usleep(10000);
        }
    }
    const double wall = (nowNs() - start) / 1e9;

    std::vector<Event> all;
    int fewest = kMaxEventsPerProcess, most = 0;
    for (int p = 0; p < processes; ++p) {
        const int n = shared->counts[p].load();
        fewest = std::min(fewest, n);
        most = std::max(most, n);
        for (int i = 0; i < n; ++i) all.push_back(shared->events[p][i]);
    }
    std::sort(all.begin(), all.end(),
              [](const Event& a, const Event& b) { return a.acquired < b.acquired; });
    RunResult r;
    r.acquisitionsPerSecond = all.size() / wall;
    r.fairness = most > 0 ? static_cast<double>(fewest) / most : 0;
    for (size_t i = 1; i < all.size(); ++i) {
        // Only a holder that was already waiting at the release is handed to.
        if (all[i].waitStart < all[i - 1].released && all[i].acquired >= all[i - 1].released) {
            r.handoverMs.push_back((all[i].acquired - all[i - 1].released) / 1e6);
        }
    }
    r.errors = shared->errors.load();
    r.error = shared->firstError;
    const std::string left = dirs.leftovers();
    if (r.errors == 0 && !left.empty() && left != "naive.lock ") r.error = "left behind: " + left;
    if (!orvane) unlink((dirs.forContender(0) + "/naive.lock").c_str());
    munmap(mem, bytes);
    return r;
}

double percentile(std::vector<double> v, double q) {
    if (v.empty()) return 0;
    std::sort(v.begin(), v.end());
    return v[std::min(v.size() - 1, static_cast<size_t>(q * v.size()))];
}

double mean(const std::vector<double>& v) {
    double s = 0;
    for (double x : v) s += x;
    return v.empty() ? 0 : s / v.size();
}

void writeData(const std::string& impl, int n, const RunResult& r) {
    const std::string dir = env("ORVANE_BENCH_DATA", "");
    if (dir.empty()) return;
    const std::string tag = env("ORVANE_BENCH_TAG", "local");
    std::ofstream h((dir + "/handover-" + tag + "-" + impl + "-" + std::to_string(n) + ".txt").c_str());
    for (double x : r.handoverMs) h << x << "\n";
    std::ofstream rate((dir + "/rate-" + tag + ".txt").c_str(), std::ios::app);
    rate << impl << " " << n << " " << r.acquisitionsPerSecond << " " << mean(r.handoverMs) << "\n";
}

// The naive lock's figures per N, for the orvane rows' ratios.
std::map<int, RunResult>& naiveResults() {
    static std::map<int, RunResult> m;
    return m;
}

void BM_Contention(benchmark::State& state, bool orvane) {
    const int n = static_cast<int>(state.range(0));
    RunResult r;
    for (auto _ : state) {
        r = runContention(n, orvane);
        state.SetIterationTime(runSeconds());
    }
    if (r.errors > 0 || !r.error.empty()) {
        state.SkipWithError((std::to_string(r.errors) + " contender(s) failed: " + r.error).c_str());
        return;
    }
    state.counters["acq_per_s"] = r.acquisitionsPerSecond;
    state.counters["handovers"] = static_cast<double>(r.handoverMs.size());
    state.counters["fairness"] = r.fairness;
    state.counters["handover_mean_ms"] = mean(r.handoverMs);
    state.counters["handover_p50_ms"] = percentile(r.handoverMs, 0.5);
    state.counters["handover_p90_ms"] = percentile(r.handoverMs, 0.9);
    state.counters["handover_max_ms"] = percentile(r.handoverMs, 1.0);
    writeData(orvane ? "orvane" : "naive", n, r);
    if (!orvane) {
        naiveResults()[n] = r;
        return;
    }
    const auto it = naiveResults().find(n);
    if (it != naiveResults().end() && it->second.acquisitionsPerSecond > 0) {
        state.counters["naive_acq_per_s"] = it->second.acquisitionsPerSecond;
        state.counters["acq_ratio"] = r.acquisitionsPerSecond / it->second.acquisitionsPerSecond;
        if (!it->second.handoverMs.empty()) {
            state.counters["naive_handover_mean_ms"] = mean(it->second.handoverMs);
            state.counters["handover_ratio"] = mean(r.handoverMs) / mean(it->second.handoverMs);
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    for (int n : {1, 2, 4, 8, 16}) {
        benchmark::RegisterBenchmark("Contention/naive", BM_Contention, false)
            ->Arg(n)->Iterations(1)->UseManualTime()->Unit(benchmark::kSecond);
        benchmark::RegisterBenchmark("Contention/orvane", BM_Contention, true)
            ->Arg(n)->Iterations(1)->UseManualTime()->Unit(benchmark::kSecond);
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
