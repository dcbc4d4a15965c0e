// A process that holds a directory's exclusive lock and reports whether it
// learnt of losing it. Two modes:
//
//   loss_worker hold DIR READY RESULT
//     Takes the lock, writes READY, waits (at most 120 s) until the lock is
//     reported lost, writes READY.lost, waits one more second for stray callback calls, then
//     releases and writes "reason=<n> calls=<n> release=<0|1>" to RESULT.
//
//   loss_worker cycle DIR N SEED MARKER RESULT
//     N times: acquire, hold 0-1 s (every 8th time 2 s), release. Appends
//     "acquired=<n> lost=<n> overlaps=<n>" to RESULT. MARKER is created
//     exclusively while held, to catch two holders at once.

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <random>
#include <string>
#include <thread>

#include "orvane/exclusive_lock.h"

namespace {

void writeText(const std::string& path, const std::string& text, bool append = false) {
    std::ofstream out(path, append ? std::ios::app : std::ios::trunc);
    out << text << "\n";
}

int hold(const std::string& dir, const std::string& ready, const std::string& result) {
    ovDirectoryExclusiveLock lock(dir, "holder");
    std::atomic<int> calls{0};
    lock.setLostCallback([&](ovLockLossReason) { ++calls; });
    if (!lock.acquire(boost::posix_time::seconds(20))) return 2;
    writeText(ready, "held");
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(120);
    while (!lock.isLost() && std::chrono::steady_clock::now() < end)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    const ovLockLossReason reason = lock.getLossReason();
    writeText(ready + ".lost", std::to_string(reason));
    std::this_thread::sleep_for(std::chrono::seconds(1));
    const bool released = lock.release();
    writeText(result, "reason=" + std::to_string(reason) + " calls=" + std::to_string(calls.load()) +
                          " release=" + std::to_string(released ? 1 : 0));
    return 0;
}

int cycle(const std::string& dir, int n, unsigned seed, const std::string& marker, const std::string& result) {
    ovDirectoryExclusiveLock lock(dir, "cycler");
    std::atomic<int> calls{0};
    lock.setLostCallback([&](ovLockLossReason) { ++calls; });
    std::mt19937 random(seed);
    std::uniform_int_distribution<int> holdMs(0, 1000);
    int acquired = 0, lost = 0, overlaps = 0;
    for (int i = 0; i < n; ++i) {
        if (!lock.acquire(boost::posix_time::seconds(120))) break;
        ++acquired;
        const int fd = ::open(marker.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0600);
        if (fd < 0) ++overlaps;
        const int ms = (i % 8 == 7) ? 2000 : holdMs(random);
        std::this_thread::sleep_for(std::chrono::milliseconds(ms));
        if (lock.isLost()) ++lost;
        if (fd >= 0) {
            ::close(fd);
            ::unlink(marker.c_str());
        }
        lock.release();
    }
    writeText(result,
              "acquired=" + std::to_string(acquired) + " lost=" + std::to_string(lost + calls.load()) +
                  " overlaps=" + std::to_string(overlaps),
              true);
    return acquired == n ? 0 : 3;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string mode = argc > 1 ? argv[1] : "";
    if (mode == "hold" && argc == 5) return hold(argv[2], argv[3], argv[4]);
    if (mode == "cycle" && argc == 7)
        return cycle(argv[2], atoi(argv[3]), static_cast<unsigned>(strtoul(argv[4], 0, 10)), argv[5], argv[6]);
    fprintf(stderr, "usage: loss_worker hold DIR READY RESULT | cycle DIR N SEED MARKER RESULT\n");
    return 64;
}
