// Hand-over of a lock between processes that reach one shared directory
// through different network clients, our lock next to the usual file-based
// recipes (bench/lock_recipes.h).
//
//   Handover/<impl>     W worker processes take the lock K times each and
//                       hold it 200 us; worker i locks through the (i mod n)-th
//                       name in ORVANE_BENCH_LOCK_DIRS. Inside, each worker
//                       creates a marker file exclusively in a local directory
//                       (all workers run on this machine, so that directory is
//                       the truth); a marker that is already there is one
//                       overlap. Every worker stops at its time cap. Reported:
//                       acquisitions per second over the wall time, hand-overs
//                       (the lock passing to another worker) and their latency
//                       (release to the next worker's getting it, when it was
//                       already waiting: median, longest), waits (asking to
//                       getting: median, 99th percentile, longest), overlaps,
//                       workers that finished all K, and "correct": no overlap
//                       and every worker finished.
//   Handover/<impl>-rw  the same with readers and writers: worker i is a
//                       writer when (i / 2) is even, a reader otherwise, so
//                       each client has both; a writer inside with anyone
//                       else, or a reader inside with a writer, is one
//                       overlap (counted in shared memory). Our read/write
//                       lock next to flock(2) shared and exclusive.
//   Uncontended/<impl>  the median of N acquire + release pairs by one process
//                       through the first name; for orvane also the calls on
//                       its file-system interface per pair, by kind.
//
// At the end a table, and orvane's rate over the best correct alternative's.
//
// Environment:
//   ORVANE_BENCH_LOCK_DIRS     see bench/lock_dirs.h; each run works in a fresh
//                              subdirectory of them
//   ORVANE_BENCH_WORKERS       W (default 4)
//   ORVANE_BENCH_ROUNDS        K (default 200)
//   ORVANE_BENCH_HOLD_US       time held (default 200)
//   ORVANE_BENCH_CAP_SECONDS   each worker's time cap (default 60)
//   ORVANE_BENCH_PAIRS         N (default 50)
//   ORVANE_BENCH_MARKER_DIR    local directory for the markers (default /tmp)
//   ORVANE_BENCH_DATA          if set, receives hwait-<tag>-<impl>.txt (every
//                              wait in ms) and hrate-<tag>.txt (impl, rate,
//                              correct, longest wait in ms)
//   ORVANE_BENCH_TAG           the <tag> above (default "local")

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
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
#include <vector>

#include <benchmark/benchmark.h>
#include <boost/make_shared.hpp>

#include "bench_clock.h"
#include "bench_env.h"
#include "counting_fs.h"
#include "lock_dirs.h"
#include "lock_recipes.h"
#include "orvane/path.h"

using namespace benchutil;

namespace {

const int kMaxWorkers = 64;
const char* const kImpls[] = {"oexcl", "mkdir", "hardlink", "flock", "orvane"};
const char* const kRwImpls[] = {"flock-rw", "orvane-rw"};

bool isRw(const std::string& impl) { return impl.size() > 3 && impl.compare(impl.size() - 3, 3, "-rw") == 0; }
bool isWriter(int worker) { return (worker / 2) % 2 == 0; }

struct Config {
    int workers, rounds, pairs;
    long long holdNs, capNs;
    std::string markerDir, dataDir, tag;
};

const Config& config() {
    static const Config c = [] {
        Config c;
        c.workers = static_cast<int>(envNumber("ORVANE_BENCH_WORKERS", 4, 1, kMaxWorkers));
        c.rounds = static_cast<int>(envNumber("ORVANE_BENCH_ROUNDS", 200, 1, 100000));
        c.pairs = static_cast<int>(envNumber("ORVANE_BENCH_PAIRS", 50, 1, 100000));
        c.holdNs = static_cast<long long>(envNumber("ORVANE_BENCH_HOLD_US", 200, 0, 10000000) * 1000);
        c.capNs = static_cast<long long>(envNumber("ORVANE_BENCH_CAP_SECONDS", 60, 0.1, 86400) * 1e9);
        c.markerDir = env("ORVANE_BENCH_MARKER_DIR", "/tmp");
        c.dataDir = env("ORVANE_BENCH_DATA", "");
        c.tag = env("ORVANE_BENCH_TAG", "local");
        return c;
    }();
    return c;
}

// One directory per process: all runs of this program work in fresh
// subdirectories of it.
LockDirs& lockDirs() {
    static LockDirs d;
    return d;
}

std::string freshName(const std::string& impl) {
    static int serial = 0;
    return "handover-" + impl + "-" + std::to_string(getpid()) + "-" + std::to_string(++serial);
}

std::unique_ptr<LockRecipe> makeRecipe(const std::string& impl, const std::string& dir, int worker,
                                       const boost::shared_ptr<ovAbstractFS>& fs) {
    std::unique_ptr<LockRecipe> r;
    if (impl == "orvane") r.reset(new OrvaneRecipe(dir, "bench-" + std::to_string(worker), fs));
    else if (impl == "oexcl") r.reset(new OExclRecipe(dir + "/oexcl.lock"));
    else if (impl == "mkdir") r.reset(new MkdirRecipe(dir + "/mkdir.lock"));
    else if (impl == "flock") r.reset(new FlockRecipe(dir + "/flock.lock"));
    else if (impl == "orvane-rw") r.reset(new OrvaneRwRecipe(dir, isWriter(worker), fs));
    else if (impl == "flock-rw") r.reset(new FlockRecipe(dir + "/flock.lock", isWriter(worker) ? LOCK_EX : LOCK_SH));
    else if (impl == "hardlink") {
        char host[256] = "";
        gethostname(host, sizeof host - 1);
        r.reset(new HardlinkRecipe(dir + "/hardlink.lock",
                                   std::string(host) + "." + std::to_string(getpid())));
    }
    return r;
}

// ---- One contended run: W processes, their records in shared memory ---------

struct Event {
    long long asked, got, left;  // left: when the release began
};

struct Worker {
    std::atomic<int> ready, count, overlaps;
    long long endedNs;
    long fsCalls;  // orvane only: calls on its file-system interface
    char error[200];
};

struct Shared {
    std::atomic<int> go;
    std::atomic<int> readersIn, writersIn;  // read/write runs: who is inside
    long long goNs;
    Worker w[kMaxWorkers];
    Event events[1];  // workers * rounds of them follow
};

struct RunResult {
    double rate = 0, seconds = 0;
    long acquisitions = 0, handovers = 0, overlaps = 0, fsCalls = 0;
    int finished = 0, workers = 0;
    std::vector<double> waitsMs;
    std::vector<double> handoverMs;  // release to the next worker's getting it, when it was waiting
    std::string error;
    bool correct() const { return overlaps == 0 && finished == workers; }
};

void work(Shared* s, int me, const std::string& impl, const std::string& dir, const std::string& marker) {
    const Config& c = config();
    Worker& w = s->w[me];
    Event* mine = s->events + static_cast<size_t>(me) * c.rounds;
    try {
        const boost::shared_ptr<CountingFS> fs = boost::make_shared<CountingFS>(ovGetDefaultFSImp());
        std::unique_ptr<LockRecipe> lock = makeRecipe(impl, dir, me, fs);
        const bool rw = isRw(impl), writer = isWriter(me);
        w.ready.store(1);
        const long long give = nowNs() + 60000000000LL;
        while (s->go.load() == 0) {
            if (nowNs() > give) throw std::runtime_error("never started");
            usleep(200);
        }
        const long long deadline = s->goNs + c.capNs;
        for (int k = 0; k < c.rounds; ++k) {
            Event e;
            e.asked = nowNs();
            if (!lock->acquire(deadline)) break;
            e.got = nowNs();
            if (rw) {
                // Each side counts itself in, then looks at the other: of two
                // that meet, at least one sees the other.
                if (writer ? s->writersIn.fetch_add(1) > 0 || s->readersIn.load() > 0
                           : (s->readersIn.fetch_add(1), s->writersIn.load() > 0))
                    w.overlaps.fetch_add(1);
                sleepNs(c.holdNs);
                (writer ? s->writersIn : s->readersIn).fetch_sub(1);
            } else {
                const int fd = open(marker.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0644);
                if (fd < 0 && errno != EEXIST) throw sysError("create", marker);
                if (fd < 0) w.overlaps.fetch_add(1);
                sleepNs(c.holdNs);
                if (fd >= 0) {
                    close(fd);
                    unlink(marker.c_str());
                }
            }
            e.left = nowNs();
            lock->release();
            mine[k] = e;
            w.count.store(k + 1);
        }
        w.fsCalls = fs->total();
    } catch (const std::exception& ex) {
        std::snprintf(w.error, sizeof w.error, "%s", ex.what());
    }
    w.endedNs = nowNs();
}

double percentile(std::vector<double> v, double q) {
    if (v.empty()) return 0;
    std::sort(v.begin(), v.end());
    return v[std::min(v.size() - 1, static_cast<size_t>(q * v.size()))];
}

RunResult runContended(const std::string& impl) {
    const Config& c = config();
    const std::string name = freshName(impl);
    const std::vector<std::string> dirs = lockDirs().makeSubdir(name);
    char markerDir[4096];
    std::snprintf(markerDir, sizeof markerDir, "%s/orvane-marker-XXXXXX", c.markerDir.c_str());
    if (!mkdtemp(markerDir)) throw std::runtime_error("cannot make a directory in " + c.markerDir);
    const std::string marker = std::string(markerDir) + "/inside";

    const size_t bytes = sizeof(Shared) + sizeof(Event) * static_cast<size_t>(c.workers) * c.rounds;
    void* mem = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (mem == MAP_FAILED) throw std::runtime_error("no memory for the records");
    Shared* s = new (mem) Shared();
    std::fflush(nullptr);
    std::vector<pid_t> kids;
    for (int i = 0; i < c.workers; ++i) {
        const pid_t pid = fork();
        if (pid == 0) {
            work(s, i, impl, dirs[i % dirs.size()], marker);
            _exit(0);
        }
        kids.push_back(pid);
    }
    for (int i = 0; i < c.workers; ++i) {
        const long long give = nowNs() + 30000000000LL;
        while (s->w[i].ready.load() == 0 && s->w[i].error[0] == 0 && nowNs() < give) usleep(1000);
    }
    s->goNs = nowNs();
    s->go.store(1);
    // A worker past its cap by 30 s is stuck in a call that does not return:
    // killed, and counted as not finished.
    RunResult r;
    const long long killAt = s->goNs + c.capNs + 30000000000LL;
    for (size_t i = 0; i < kids.size(); ++i) {
        int status = 0;
        while (waitpid(kids[i], &status, WNOHANG) == 0) {
            if (nowNs() > killAt) {
                kill(kids[i], SIGKILL);
                waitpid(kids[i], &status, 0);
                s->w[i].endedNs = nowNs();
                if (r.error.empty()) r.error = "worker " + std::to_string(i) + " killed 30 s past its cap";
                break;
            }
            usleep(10000);
        }
    }

    struct Held {
        Event e;
        int worker;
    };
    std::vector<Held> all;
    long long ended = s->goNs;
    r.workers = c.workers;
    for (int i = 0; i < c.workers; ++i) {
        const Worker& w = s->w[i];
        const int n = w.count.load();
        if (n == c.rounds && w.error[0] == 0) ++r.finished;
        if (w.error[0] != 0 && r.error.empty()) r.error = "worker " + std::to_string(i) + ": " + w.error;
        r.overlaps += w.overlaps.load();
        r.fsCalls += w.fsCalls;
        ended = std::max(ended, w.endedNs);
        for (int k = 0; k < n; ++k) {
            const Event& e = s->events[static_cast<size_t>(i) * c.rounds + k];
            all.push_back({e, i});
            r.waitsMs.push_back((e.got - e.asked) / 1e6);
        }
    }
    std::sort(all.begin(), all.end(), [](const Held& a, const Held& b) { return a.e.got < b.e.got; });
    for (size_t k = 1; k < all.size(); ++k) {
        const Event& before = all[k - 1].e;
        const Event& e = all[k].e;
        if (all[k].worker == all[k - 1].worker) continue;
        ++r.handovers;
        if (e.asked < before.left && e.got >= before.left) r.handoverMs.push_back((e.got - before.left) / 1e6);
    }
    r.acquisitions = static_cast<long>(all.size());
    r.seconds = (ended - s->goNs) / 1e9;
    r.rate = r.seconds > 0 ? r.acquisitions / r.seconds : 0;
    munmap(mem, bytes);
    ovRemoveRF(markerDir);
    lockDirs().removeSubdir(name);
    return r;
}

void writeData(const std::string& impl, const RunResult& r) {
    const Config& c = config();
    if (c.dataDir.empty()) return;
    std::ofstream w((c.dataDir + "/hwait-" + c.tag + "-" + impl + ".txt").c_str());
    for (double x : r.waitsMs) w << x << "\n";
    std::ofstream rate((c.dataDir + "/hrate-" + c.tag + ".txt").c_str(), std::ios::app);
    rate << impl << " " << r.rate << " " << (r.correct() ? 1 : 0) << " " << percentile(r.waitsMs, 1.0) << "\n";
}

std::map<std::string, RunResult>& results() {
    static std::map<std::string, RunResult> m;
    return m;
}

void BM_Handover(benchmark::State& state, const std::string& impl) {
    RunResult r;
    for (auto _ : state) {
        try {
            r = runContended(impl);
        } catch (const std::exception& ex) {
            state.SkipWithError(ex.what());
            return;
        }
        state.SetIterationTime(r.seconds);
    }
    state.counters["acq_per_s"] = r.rate;
    state.counters["handovers"] = static_cast<double>(r.handovers);
    state.counters["handovers_per_s"] = r.seconds > 0 ? r.handovers / r.seconds : 0;
    state.counters["wait_p50_ms"] = percentile(r.waitsMs, 0.5);
    state.counters["wait_p99_ms"] = percentile(r.waitsMs, 0.99);
    state.counters["wait_max_ms"] = percentile(r.waitsMs, 1.0);
    state.counters["handover_p50_ms"] = percentile(r.handoverMs, 0.5);
    state.counters["handover_max_ms"] = percentile(r.handoverMs, 1.0);
    state.counters["overlaps"] = static_cast<double>(r.overlaps);
    state.counters["finished"] = r.finished;
    state.counters["workers"] = r.workers;
    state.counters["correct"] = r.correct() ? 1 : 0;
    if ((impl == "orvane" || impl == "orvane-rw") && r.acquisitions > 0)
        state.counters["fs_calls_per_acq"] = static_cast<double>(r.fsCalls) / r.acquisitions;
    if (!r.error.empty()) state.SetLabel(r.error);
    writeData(impl, r);
    results()[impl] = r;
}

// ---- Uncontended pairs ------------------------------------------------------------

struct PairResult {
    double medianMs = 0;
    std::map<std::string, double> callsPerPair;  // orvane only
};
std::map<std::string, PairResult>& pairResults() {
    static std::map<std::string, PairResult> m;
    return m;
}

void BM_Uncontended(benchmark::State& state, const std::string& impl) {
    const Config& c = config();
    PairResult p;
    double seconds = 0;
    for (auto _ : state) {
        const std::string name = freshName("alone-" + impl);
        try {
            const std::vector<std::string> dirs = lockDirs().makeSubdir(name);
            const boost::shared_ptr<CountingFS> fs = boost::make_shared<CountingFS>(ovGetDefaultFSImp());
            std::unique_ptr<LockRecipe> lock = makeRecipe(impl, dirs[0], 0, fs);
            std::vector<double> ms;
            for (int i = 0; i < c.pairs; ++i) {
                const long long t0 = nowNs();
                if (!lock->acquire(t0 + c.capNs)) throw std::runtime_error("not acquired alone within the cap");
                lock->release();
                ms.push_back((nowNs() - t0) / 1e6);
                seconds += ms.back() / 1e3;
            }
            lock.reset();
            p.medianMs = percentile(ms, 0.5);
            if (impl == "orvane")
                for (int k = 0; k < CountingFS::kCalls; ++k)
                    if (fs->count(k) > 0) p.callsPerPair[CountingFS::name(k)] = fs->count(k) / double(c.pairs);
        } catch (const std::exception& ex) {
            lockDirs().removeSubdir(name);
            state.SkipWithError(ex.what());
            return;
        }
        lockDirs().removeSubdir(name);
        state.SetIterationTime(seconds / c.pairs);
    }
    state.counters["pair_median_ms"] = p.medianMs;
    double total = 0;
    for (const auto& kv : p.callsPerPair) {
        state.counters["fs_" + kv.first] = kv.second;
        total += kv.second;
    }
    if (impl == "orvane") state.counters["fs_calls_per_pair"] = total;
    pairResults()[impl] = p;
}

// Ours against the best correct other lock of the group (by acquisitions
// per second), and also by hand-overs per second: polling locks let the
// releasing worker take the lock again at once, so their rate counts few.
void compareWithBest(const std::vector<std::string>& group, const std::string& ours) {
    const auto mine = results().find(ours);
    if (mine == results().end()) return;
    const RunResult* best = nullptr;
    std::string bestName;
    for (const std::string& impl : group) {
        const auto it = results().find(impl);
        if (impl.compare(0, 6, "orvane") == 0 || it == results().end() || !it->second.correct()) continue;
        if (!best || it->second.rate > best->rate) {
            best = &it->second;
            bestName = impl;
        }
    }
    const auto perSecond = [](const RunResult& r) { return r.seconds > 0 ? r.handovers / r.seconds : 0.0; };
    if (best && best->rate > 0)
        std::printf("%s / best correct alternative (%s): %.3f in acquisitions per second, %.3f in hand-overs per "
                    "second; ", ours.c_str(), bestName.c_str(), mine->second.rate / best->rate,
                    perSecond(*best) > 0 ? perSecond(mine->second) / perSecond(*best) : 0.0);
    else
        std::printf("%s: no correct alternative to compare with; ", ours.c_str());
    std::printf("%s's longest wait %.1f ms\n", ours.c_str(), percentile(mine->second.waitsMs, 1.0));
}

void printSummary() {
    const Config& c = config();
    if (results().empty() && pairResults().empty()) return;
    std::printf("\nHand-over on %s: %d workers x %d acquisitions, held %.0f us, cap %.0f s; times in ms "
                "(h/o: release to the next worker's getting it; alone: median uncontended pair)\n",
                c.tag.c_str(), c.workers, c.rounds, c.holdNs / 1e3, c.capNs / 1e9);
    std::printf("%-9s %9s %9s %9s %9s %9s %9s %9s %8s %8s %7s %9s\n", "impl", "acq/s", "handovers",
                "h/o p50", "h/o max", "wait p50", "wait p99", "wait max", "overlaps", "finished", "correct",
                "alone");
    const std::vector<std::string> exclusive(std::begin(kImpls), std::end(kImpls));
    const std::vector<std::string> rw(std::begin(kRwImpls), std::end(kRwImpls));
    std::vector<std::string> all = exclusive;
    all.insert(all.end(), rw.begin(), rw.end());
    for (const std::string& impl : all) {
        const auto it = results().find(impl);
        const auto p = pairResults().find(impl);
        if (it == results().end() && p == pairResults().end()) continue;
        const RunResult r = it != results().end() ? it->second : RunResult();
        std::printf("%-9s %9.1f %9ld %9.2f %9.2f %9.2f %9.2f %9.2f %8ld %5d/%-2d %7s %9.3f\n", impl.c_str(),
                    r.rate, r.handovers, percentile(r.handoverMs, 0.5), percentile(r.handoverMs, 1.0),
                    percentile(r.waitsMs, 0.5), percentile(r.waitsMs, 0.99), percentile(r.waitsMs, 1.0),
                    r.overlaps, r.finished, r.workers, r.correct() ? "yes" : "NO",
                    p != pairResults().end() ? p->second.medianMs : 0.0);
    }
    for (const std::string& impl : all) {
        const auto it = results().find(impl);
        if (it != results().end() && !it->second.error.empty())
            std::printf("%s: %s\n", impl.c_str(), it->second.error.c_str());
    }
    compareWithBest(exclusive, "orvane");
    // A correct exclusive lock is a correct read/write lock too.
    compareWithBest(all, "orvane-rw");
    // Any lock made of a file created to acquire and removed to release needs
    // both, one after the other, per acquisition: O_EXCL's uncontended pair
    // is that cost, and its inverse the most such a lock can reach.
    const auto pair = pairResults().find("oexcl");
    if (pair != pairResults().end() && pair->second.medianMs > 0)
        std::printf("ceiling of a lock that creates and removes a file per acquisition: %.1f acquisitions per "
                    "second (one exclusive create and one removal: %.3f ms)\n",
                    1000.0 / pair->second.medianMs, pair->second.medianMs);
    const auto alone = pairResults().find("orvane");
    if (alone != pairResults().end() && !alone->second.callsPerPair.empty()) {
        std::printf("orvane's file-system calls per uncontended acquire + release:");
        for (const auto& kv : alone->second.callsPerPair) std::printf(" %s %.2f", kv.first.c_str(), kv.second);
        std::printf("\n");
    }
}

}  // namespace

int main(int argc, char** argv) {
    const Config& c = config();  // bad settings are refused before anything runs
    benchmark::AddCustomContext("handover_tag", c.tag);
    benchmark::AddCustomContext("handover_workers", std::to_string(c.workers));
    benchmark::AddCustomContext("handover_rounds", std::to_string(c.rounds));
    benchmark::AddCustomContext("handover_hold_us", std::to_string(c.holdNs / 1000));
    benchmark::AddCustomContext("handover_cap_s", std::to_string(c.capNs / 1e9));
    benchmark::AddCustomContext("handover_pairs", std::to_string(c.pairs));
    benchmark::AddCustomContext("handover_lock_dirs", env("ORVANE_BENCH_LOCK_DIRS", "(a fresh directory in /tmp)"));
    for (const char* impl : kImpls)
        benchmark::RegisterBenchmark((std::string("Uncontended/") + impl).c_str(), BM_Uncontended, std::string(impl))
            ->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);
    for (const char* impl : kImpls)
        benchmark::RegisterBenchmark((std::string("Handover/") + impl).c_str(), BM_Handover, std::string(impl))
            ->Iterations(1)->UseManualTime()->Unit(benchmark::kSecond);
    for (const char* impl : kRwImpls)
        benchmark::RegisterBenchmark((std::string("Handover/") + impl).c_str(), BM_Handover, std::string(impl))
            ->Iterations(1)->UseManualTime()->Unit(benchmark::kSecond);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    // This run's rates replace those of an earlier run with the same tag.
    if (!c.dataDir.empty()) std::ofstream((c.dataDir + "/hrate-" + c.tag + ".txt").c_str(), std::ios::trunc);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    printSummary();
    return 0;
}
