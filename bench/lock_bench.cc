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

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
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
#include <boost/date_time/posix_time/posix_time.hpp>

#include "orvane/exclusive_lock.h"
#include "orvane/path.h"

namespace {

const long long kHoldNs = 1000000;  // 1 ms inside the lock
const int kMaxEventsPerProcess = 20000;

long long nowNs() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}

void sleepNs(long long ns) {
    timespec ts = {static_cast<time_t>(ns / 1000000000LL), static_cast<long>(ns % 1000000000LL)};
    nanosleep(&ts, nullptr);
}

double runSeconds() {
    const char* s = std::getenv("ORVANE_BENCH_SECONDS");
    const double v = s ? std::atof(s) : 0;
    return v > 0 ? v : 3.0;
}

std::string env(const char* name, const char* fallback) {
    const char* v = std::getenv(name);
    return v && *v ? v : fallback;
}

// The directories to lock: several names of one shared directory, used as
// they are, or one fresh directory of our own.
class LockDirs {
public:
    LockDirs() {
        std::string list = env("ORVANE_BENCH_LOCK_DIRS", "");
        if (list.empty()) {
            char templ[] = "/tmp/orvane-lockbench-XXXXXX";
            if (!mkdtemp(templ)) std::abort();
            own_ = templ;
            dirs_.push_back(own_);
            return;
        }
        size_t start = 0;
        while (start <= list.size()) {
            size_t end = list.find(':', start);
            if (end == std::string::npos) end = list.size();
            if (end > start) dirs_.push_back(list.substr(start, end - start));
            start = end + 1;
        }
        // A run whose contenders died leaves their files; start clean.
        for (const std::string& name : entries()) unlink((dirs_[0] + "/" + name).c_str());
    }
    ~LockDirs() {
        if (!own_.empty()) ovRemoveRF(own_.c_str());
    }
    const std::string& forContender(int i) const { return dirs_[i % dirs_.size()]; }
    // Anything still in the directory after a run (should be nothing).
    std::string leftovers() const {
        std::string out;
        for (const std::string& name : entries()) out += name + " ";
        return out;
    }

private:
    // The directory's entries, without the names a FUSE client gives files
    // that were removed while a (killed) process still had them open.
    std::vector<std::string> entries() const {
        std::vector<std::string> out;
        if (DIR* d = opendir(dirs_[0].c_str())) {
            while (dirent* e = readdir(d)) {
                const std::string name = e->d_name;
                if (name != "." && name != ".." && name.compare(0, 12, ".fuse_hidden") != 0) {
                    out.push_back(name);
                }
            }
            closedir(d);
        }
        return out;
    }

    std::vector<std::string> dirs_;
    std::string own_;
};

// ---- The two locks under test ------------------------------------------------

class Contender {
public:
    virtual ~Contender() {}
    virtual bool acquire() = 0;
    virtual void release() = 0;
};

class OrvaneContender : public Contender {
public:
    explicit OrvaneContender(const std::string& dir) : lock_(dir, "bench") {}
    bool acquire() override { return lock_.acquire(boost::posix_time::seconds(60)); }
    void release() override { lock_.release(); }

private:
    ovDirectoryExclusiveLock lock_;
};

// The obvious lock from the same primitive: poll an exclusive create.
class NaiveContender : public Contender {
public:
    explicit NaiveContender(const std::string& dir) : file_(dir + "/naive.lock") {}
    bool acquire() override {
        const long long end = nowNs() + 60LL * 1000000000LL;
        while (nowNs() < end) {
            const int fd = open(file_.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0644);
            if (fd >= 0) {
                close(fd);
                return true;
            }
            sleepNs(5000000);
        }
        return false;
    }
    void release() override { unlink(file_.c_str()); }

private:
    std::string file_;
};

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
    std::unique_ptr<Contender> c;
    try {
        if (orvane) c.reset(new OrvaneContender(dir));
        else c.reset(new NaiveContender(dir));
        while (shared->go.load() == 0) usleep(200);
        while (nowNs() < stopAt) {
            Event e;
            e.waitStart = nowNs();
            if (!c->acquire()) throw std::runtime_error("acquire timed out after 60 s");
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
