// A holder of the exclusive lock learns that it lost the lock: taken over
// while it was stopped, its directory removed, its refreshes failing; and
// holders that keep their lock are never told otherwise.

#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include "lock_test_util.h"
#include "test_support.h"
#include "orvane/exclusive_lock.h"

using namespace ovtest;
namespace pt = boost::posix_time;

namespace {

const std::string kWorker = std::string(ORVANE_WORKER_DIR) + "/loss_worker";

std::string level0(const std::string& dir) { return dir + "/.deploy_lock.0"; }

// "a=1 b=2" lines, summed by key.
std::map<std::string, long> sums(const std::string& path) {
    std::map<std::string, long> r;
    std::istringstream in(readFile(path));
    std::string item;
    while (in >> item) {
        const std::string::size_type eq = item.find('=');
        if (eq != std::string::npos) r[item.substr(0, eq)] += std::atol(item.c_str() + eq + 1);
    }
    return r;
}

// Refreshes that give up, on demand: a file server that stopped answering.
class StalledFS : public ovNetworkFS {
public:
    using ovAbstractFS::refreshLockFile;
    std::atomic<bool> stalled{false};
    bool throws = false;  // a stalled refresh fails with an error instead, ending the refresh task
    ovOwnedRefreshResult refreshOwnedLockFile(const std::string& name, const pt::ptime& deadline,
                                              const std::string& expected, const std::string& content) override {
        if (stalled && throws) throw ovFileAccessError("File system error occurred: injected");
        if (stalled) return ovRefreshFailed;
        return ovNetworkFS::refreshOwnedLockFile(name, deadline, expected, content);
    }
};

}  // namespace

TEST(ExclusiveLoss, HolderTakenOverWhileStoppedLearnsItAndLeavesTheNewHolderAlone) {
    TempDir dir, work;
    const std::string ready = work.file("ready"), result = work.file("result");
    Child holder = spawn({kWorker, "hold", dir.path(), ready, result});
    ASSERT_TRUE(waitFor([&] { return pathExists(ready); }, 30)) << "holder never got the lock";

    // Stopped past the stale age: made to look so by ageing its file.
    holder.kill(SIGSTOP);
    ageFile(level0(dir.path()), 40);
    ovDirectoryExclusiveLock taker(dir.path(), "taker");
    ASSERT_TRUE(taker.acquire(pt::seconds(30))) << "stopped holder was not taken over";
    const std::string takersContent = readFile(level0(dir.path()));

    holder.kill(SIGCONT);
    EXPECT_TRUE(waitFor([&] { return pathExists(ready + ".lost"); }, 2)) << "loss not reported within 2 s";
    ASSERT_EQ(holder.wait(30), 0);
    const auto r = sums(result);
    EXPECT_EQ(r.at("reason"), ovLockFileRewritten);
    EXPECT_EQ(r.at("calls"), 1) << "the callback runs exactly once";
    EXPECT_EQ(r.at("release"), 1);

    // The new holder's file and lock are intact, and it keeps refreshing.
    ASSERT_TRUE(pathExists(level0(dir.path()))) << "the lost holder removed the new holder's file";
    EXPECT_TRUE(waitFor([&] { return readFile(level0(dir.path())) != takersContent; }, 5));
    EXPECT_FALSE(taker.isLost());
    ovDirectoryExclusiveLock third(dir.path(), "third");
    EXPECT_FALSE(third.tryAcquire());
    EXPECT_TRUE(taker.release());
    EXPECT_FALSE(pathExists(level0(dir.path())));
}

TEST(ExclusiveLoss, RemovedDirectoryIsReportedOnceAsMissing) {
    TempDir base;
    const std::string dir = base.file("locked");
    ASSERT_TRUE(ovMkdirP(dir.c_str()));
    ovDirectoryExclusiveLock lock(dir, "holder");
    std::atomic<int> calls{0}, reason{ovLockNotLost};
    // Registered before the acquisition: installed on the level-0 file it takes.
    lock.setLostCallback([&](ovLockLossReason r) {
        reason = r;
        ++calls;
    });
    EXPECT_FALSE(lock.isLost()) << "not held: not lost";
    ASSERT_TRUE(lock.acquire(pt::seconds(10)));
    ASSERT_TRUE(ovRemoveRF(dir.c_str()));
    ASSERT_TRUE(waitFor([&] { return calls > 0; }, 5));
    EXPECT_EQ(reason, ovLockFileMissing);
    EXPECT_EQ(lock.getLossReason(), ovLockFileMissing);
    usleep(1200 * 1000);
    EXPECT_EQ(calls, 1);
    EXPECT_TRUE(lock.release());
    EXPECT_FALSE(lock.isLost());
}

// Needs 21 s of real time: the silence is measured by the monotonic clock.
// One holder's refreshes keep failing; the other's first failure is an error,
// which ends its refresh task: both are told when the silence passes 20 s.
TEST(ExclusiveLoss, RefreshesFailingForTwentyOneSecondsAreReported) {
    TempDir dir, dir2;
    auto fs = boost::make_shared<StalledFS>(), fs2 = boost::make_shared<StalledFS>();
    fs2->throws = true;
    ovDirectoryExclusiveLock lock(dir.path(), "holder", fs), lock2(dir2.path(), "holder", fs2);
    ASSERT_TRUE(lock.acquire(pt::seconds(10)));
    ASSERT_TRUE(lock2.acquire(pt::seconds(10)));
    std::atomic<int> calls{0}, reason{ovLockNotLost}, calls2{0}, reason2{ovLockNotLost};
    // Installed on the held file at once.
    lock.setLostCallback([&](ovLockLossReason r) {
        reason = r;
        ++calls;
    });
    lock2.setLostCallback([&](ovLockLossReason r) {
        reason2 = r;
        ++calls2;
    });
    fs->stalled = true;
    fs2->stalled = true;
    const double start = monotonicSeconds();
    usleep(15 * 1000 * 1000);
    EXPECT_FALSE(lock.isLost()) << "reported after only 15 s";
    EXPECT_EQ(calls2, 0) << "reported after only 15 s";
    // The ended task's holder is told without asking.
    ASSERT_TRUE(waitFor([&] { return calls2 > 0; }, 15));
    EXPECT_GE(monotonicSeconds() - start, 19.5);
    EXPECT_EQ(reason2, ovLockRefreshFailing);
    ASSERT_TRUE(waitFor([&] { return lock.isLost(); }, 15));
    EXPECT_GE(monotonicSeconds() - start, 19.5);
    EXPECT_EQ(lock.getLossReason(), ovLockRefreshFailing);
    // The refresh thread makes the one call even when isLost() noticed first.
    EXPECT_TRUE(waitFor([&] { return calls > 0; }, 5));
    EXPECT_EQ(reason, ovLockRefreshFailing);
    EXPECT_EQ(calls2, 1);
    // Taken over meanwhile: the silence was found first, yet the release
    // sees the rewrite and leaves the new holder's file.
    writeFile(level0(dir2.path()), "new holder");
    EXPECT_TRUE(lock2.release());
    EXPECT_EQ(readFile(level0(dir2.path())), "new holder");
    // Refreshes work again: still lost, and the file is still ours to remove.
    fs->stalled = false;
    usleep(1500 * 1000);
    EXPECT_EQ(lock.getLossReason(), ovLockRefreshFailing);
    EXPECT_EQ(calls, 1);
    EXPECT_TRUE(lock.release());
    EXPECT_FALSE(pathExists(level0(dir.path())));
}

// 8 processes taking turns, holds up to 2 s: no holder is ever told it lost.
TEST(ExclusiveLoss, NoFalseReportAmongEightProcessesTakingTurns) {
    TempDir dir, work;
    const std::string marker = work.file("marker"), result = work.file("result");
    const int kProcesses = 8, kCycles = 12;
    std::vector<Child> workers;
    for (int i = 0; i < kProcesses; ++i)
        workers.push_back(spawn({kWorker, "cycle", dir.path(), std::to_string(kCycles), std::to_string(i + 1),
                                 marker, result}));
    for (Child& w : workers) EXPECT_EQ(w.wait(400), 0);
    const auto r = sums(result);
    EXPECT_EQ(r.at("acquired"), kProcesses * kCycles);
    EXPECT_EQ(r.at("lost"), 0);
    EXPECT_EQ(r.at("overlaps"), 0);
}
