// Read/write lock against the plain exclusive lock it is built on:
// uncontended acquire + release of a reader and of a writer, and how many
// acquisitions eight processes make together per second. Every figure is
// printed next to the exclusive lock's, with the ratio ours / exclusive
// (time ratios: lower is better; rate ratios: higher is better).

#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "orvane/exclusive_lock.h"
#include "orvane/rw_lock.h"

namespace {

using boost::posix_time::seconds;

struct ScratchDir {
    ScratchDir() {
        char tmpl[] = "/tmp/orvane-rwbench-XXXXXX";
        path = mkdtemp(tmpl) ? tmpl : "";
    }
    ~ScratchDir() {
        if (!path.empty()) ovRemoveRF(path.c_str());
    }
    std::string path;
};

double nowSeconds() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// Mean seconds of one exclusive-lock acquire + release, the baseline of the
// uncontended figures.
double exclusiveBaseline() {
    static double mean = -1;
    if (mean < 0) {
        ScratchDir dir;
        ovDirectoryExclusiveLock lock(dir.path, "");
        const int n = 100;
        const double t0 = nowSeconds();
        for (int i = 0; i < n; ++i) {
            lock.acquire(seconds(10));
            lock.release();
        }
        mean = (nowSeconds() - t0) / n;
    }
    return mean;
}

void reportAgainstExclusive(benchmark::State& state, double ourSeconds) {
    state.counters["ours_us"] = ourSeconds * 1e6;
    state.counters["exclusive_us"] = exclusiveBaseline() * 1e6;
    state.counters["ratio"] = ourSeconds / exclusiveBaseline();
}

void BM_ReadLockUncontended(benchmark::State& state) {
    ScratchDir dir;
    ovDirectoryReadWriteLock rw(dir.path);
    ovDirectoryReadWriteLock::ReadLock reader = rw.getReadLock();
    const double t0 = nowSeconds();
    for (auto _ : state) {
        reader.acquire(seconds(10));
        reader.release();
    }
    reportAgainstExclusive(state, (nowSeconds() - t0) / state.iterations());
}
BENCHMARK(BM_ReadLockUncontended)->Unit(benchmark::kMillisecond)->MinTime(1.0);

void BM_WriteLockUncontended(benchmark::State& state) {
    ScratchDir dir;
    ovDirectoryReadWriteLock rw(dir.path);
    ovDirectoryReadWriteLock::WriteLock writer = rw.getWriteLock();
    const double t0 = nowSeconds();
    for (auto _ : state) {
        writer.acquire(seconds(10));
        writer.release();
    }
    reportAgainstExclusive(state, (nowSeconds() - t0) / state.iterations());
}
BENCHMARK(BM_WriteLockUncontended)->Unit(benchmark::kMillisecond)->MinTime(1.0);

// Eight processes, each with its own lock object, loop on one directory
// until `end`; returns their acquisitions per second, all together.
double aggregateRate(const std::function<long(double end)>& loop, double span) {
    const int kProcesses = 8;
    std::vector<pid_t> pids;
    std::vector<int> pipes;
    const double start = nowSeconds() + 0.3;  // all begin together
    for (int i = 0; i < kProcesses; ++i) {
        int fds[2];
        if (pipe(fds) != 0) return 0;
        const pid_t pid = fork();
        if (pid == 0) {
            close(fds[0]);
            while (nowSeconds() < start) usleep(1000);
            const long count = loop(start + span);
            if (write(fds[1], &count, sizeof count) != sizeof count) _exit(1);
            _exit(0);
        }
        close(fds[1]);
        pids.push_back(pid);
        pipes.push_back(fds[0]);
    }
    long total = 0;
    for (int i = 0; i < kProcesses; ++i) {
        long count = 0;
        if (read(pipes[i], &count, sizeof count) == sizeof count) total += count;
        close(pipes[i]);
        waitpid(pids[i], 0, 0);
    }
    return total / span;
}

void BM_EightReaderProcesses(benchmark::State& state) {
    const double span = 3.0;
    double ours = 0, exclusive = 0;
    for (auto _ : state) {
        ScratchDir a, b;
        ours = aggregateRate([&](double end) {
            ovDirectoryReadWriteLock::ReadLock reader = ovDirectoryReadWriteLock(a.path).getReadLock();
            long n = 0;
            for (; nowSeconds() < end; ++n) {
                reader.acquire(seconds(30));
                reader.release();
            }
            return n;
        }, span);
        exclusive = aggregateRate([&](double end) {
            ovDirectoryExclusiveLock lock(b.path, "");
            long n = 0;
            for (; nowSeconds() < end; ++n) {
                lock.acquire(seconds(30));
                lock.release();
            }
            return n;
        }, span);
    }
    state.counters["ours_per_s"] = ours;
    state.counters["exclusive_per_s"] = exclusive;
    state.counters["ratio"] = exclusive > 0 ? ours / exclusive : 0;
}
BENCHMARK(BM_EightReaderProcesses)->Unit(benchmark::kSecond)->Iterations(1);

}  // namespace

BENCHMARK_MAIN();
