// The exclusive lock within one process. Lock objects on one directory
// compete only through the files, so two objects behave as two processes.

#include <sys/stat.h>
#include <unistd.h>

#include <thread>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include "lock_test_fs.h"
#include "lock_test_util.h"
#include "log_capture.h"
#include "orvane/exclusive_lock.h"
#include "test_support.h"

namespace pt = boost::posix_time;
using namespace ovtest;

namespace {

std::string level(const TempDir& dir, int n) { return dir.file(".deploy_lock." + std::to_string(n)); }
const std::vector<std::string> kOnlyLevel0{".deploy_lock.0"};

}  // namespace

// The directory string is used as given, trailing slash included.
TEST(ExclusiveLock, LevelFileNames) {
    EXPECT_EQ(ovDirectoryExclusiveLock("/x/y", "me").getLockFileName(12), "/x/y/.deploy_lock.12");
    EXPECT_EQ(ovDirectoryExclusiveLock("/x/y/", "me").getLockFileName(-1), "/x/y//.deploy_lock.-1");
}

TEST(ExclusiveLock, MissingDirectoryShowsOnlyOnUse) {
    TempDir dir;
    const std::string gone = dir.file("gone");
    ovDirectoryExclusiveLock lock(gone, "me");
    EXPECT_THROW(lock.acquire(pt::seconds(1)), ovNoSuchDirectory);
    EXPECT_THROW(lock.tryAcquire(), ovNoSuchDirectory);
    EXPECT_TRUE(listDir(dir.path()).empty());
    ASSERT_EQ(::mkdir(gone.c_str(), 0755), 0);
    EXPECT_TRUE(lock.tryAcquire()) << "a failure must leave the object usable";
    EXPECT_TRUE(lock.release());
}

TEST(ExclusiveLock, NestingCountsPerObjectAcrossThreads) {
    TempDir dir;
    ovDirectoryExclusiveLock lock(dir.path(), "me", boost::shared_ptr<ovAbstractFS>());
    const int threads = countThreads();
    ASSERT_TRUE(lock.acquire(true));
    EXPECT_EQ(listDir(dir.path()), kOnlyLevel0);
    EXPECT_EQ(countThreads(), threads) << "a no-refresh hold starts no timer";
    bool second = false;
    std::thread t([&] { second = lock.tryAcquire(); });  // another thread shares the hold
    t.join();
    EXPECT_TRUE(second);
    ageFile(level(dir, 0), 100);
    usleep(1500 * 1000);
    EXPECT_GT(ageOf(level(dir, 0)), 90) << "a no-refresh hold was refreshed";
    EXPECT_TRUE(lock.release());
    EXPECT_TRUE(pathExists(level(dir, 0))) << "only the last release gives up level 0";
    EXPECT_TRUE(lock.release());
    EXPECT_TRUE(listDir(dir.path()).empty());
    EXPECT_FALSE(lock.release()) << "nothing held";
}

TEST(ExclusiveLock, TimeoutsAgainstALiveHolder) {
    TempDir dir;
    ovDirectoryExclusiveLock holder(dir.path(), "holder"), other(dir.path(), "other");
    ASSERT_TRUE(holder.acquire());
    const double start = monotonicSeconds();
    EXPECT_FALSE(other.acquire(pt::time_duration(pt::not_a_date_time)));
    EXPECT_FALSE(other.acquire(pt::seconds(-5)));
    EXPECT_LT(monotonicSeconds() - start, 3);

    // A second call on a busy object waits for the first, up to its own timeout.
    std::thread t([&] { EXPECT_FALSE(other.acquire(pt::seconds(2))); });
    ASSERT_TRUE(waitFor([&] { return pathExists(level(dir, 1)); }, 5)) << "never queued";
    const double released = monotonicSeconds();
    EXPECT_FALSE(other.release(pt::milliseconds(200)));
    EXPECT_GE(monotonicSeconds() - released, 0.15);
    t.join();
    EXPECT_EQ(listDir(dir.path()), kOnlyLevel0) << "the waiter must remove its queue file";
    EXPECT_TRUE(holder.release());
}

// No-refresh holders keep timer threads out of the capture.
TEST(ExclusiveLock, WarningAndTracingLines) {
    TempDir dir;
    ovDirectoryExclusiveLock holder(dir.path(), "holder"), waiter(dir.path(), "waiter");
    ASSERT_TRUE(holder.acquire(true));
    {
        LogCapture warnings(warning);
        EXPECT_FALSE(waiter.tryAcquire());
        // Giving up at level 0 removes the level -1 name, which never exists.
        EXPECT_EQ(warnings.text(), "FS_LOCK: failed to remove " + level(dir, -1) + "(380)\n");
        EXPECT_EQ(listDir(dir.path()), kOnlyLevel0);
    }
    LogCapture trace(verbose);
    std::thread t([&] { EXPECT_TRUE(waiter.acquire(pt::seconds(20), true)); });
    ASSERT_TRUE(waitFor([&] { return pathExists(level(dir, 1)); }, 5));
    usleep(100 * 1000);
    EXPECT_TRUE(holder.release());
    t.join();
    const std::string expected[] = {
        "Queuing for lock acquire in directory " + dir.path() + "\n",
        "Lock file exists at level 0.  Going to next level...\n",
        "No lock found at level 1.  Sleeping for one polling cycle...\n",
        "Attempting to create queue file...\n",
        "queue file created at level 1\n",
        "waiter: Trying to acquire level 0\n",
        "waiter: Could not acquire; trying to detect stale lock at level 0\n",
        "waiter: Sleeping\n",
        "waiter: Success! removing level 1\n"};
    size_t at = 0;
    for (const std::string& line : expected) {
        at = trace.text().find(line, at);
        ASSERT_NE(at, std::string::npos) << "missing or out of order: " << line << trace.text();
        at += line.size();
    }
    EXPECT_TRUE(waiter.release());
}

TEST(ExclusiveLock, ReadOnlyDirectoryAsUnprivilegedUser) {
    TempDir dir;
    ASSERT_EQ(::chmod(dir.path().c_str(), 0755), 0);  // root-owned: read-only to the child
    const int status = runAsUnprivileged([&] {
        ovDirectoryExclusiveLock lock(dir.path(), "me");
        try {
            lock.acquire(pt::seconds(2));
        } catch (const ovPermissionDenied&) {
            return listDir(dir.path()).empty() ? 0 : 2;
        }
        return 1;
    });
    EXPECT_EQ(status, 0) << "1: no ovPermissionDenied; 2: a file was created";
}

// A stale level file that can be neither touched nor removed: the waiter
// keeps its deadline instead of spinning.
TEST(ExclusiveLockTakeOver, UntouchableStaleFileKeepsTheDeadline) {
    TempDir dir;
    ASSERT_EQ(::mkdir(level(dir, 0).c_str(), 0755), 0);
    writeFile(level(dir, 0) + "/content", "x");
    ageFile(level(dir, 0), 60);
    ovDirectoryExclusiveLock lock(dir.path(), "waiter");
    LogCapture warnings(warning), staleLines(stale_log);
    const double start = monotonicSeconds();
    EXPECT_FALSE(lock.acquire(pt::milliseconds(300)));
    EXPECT_LT(monotonicSeconds() - start, 2.0);
    EXPECT_TRUE(staleLines.contains("FS_LOCK: removing stale lock " + level(dir, 0) + "\n"));
    EXPECT_TRUE(warnings.contains("FS_LOCK: failed to remove " + level(dir, 1) + "(334)\n"))
        << warnings.text();
    EXPECT_FALSE(pathExists(level(dir, 1))) << "queue file left behind";
}

// A waiter whose deadline is too near to watch when the cached time first
// makes the live holder look stale still compares one read with the reads it
// kept while the file looked fresh: no take-over.
TEST(ExclusiveLockTakeOver, LiveHolderLookingStaleOnlyAtTheDeadlineIsKept) {
    TempDir dir;
    ovDirectoryExclusiveLock holder(dir.path(), "holder");
    ASSERT_TRUE(holder.acquire());
    const auto start = std::chrono::steady_clock::now();
    auto cached = boost::make_shared<CacheCatchesUpFS>(start + std::chrono::milliseconds(2400));
    ovDirectoryExclusiveLock waiter(dir.path(), "waiter", cached);
    LogCapture staleLines(stale_log);
    EXPECT_FALSE(waiter.acquire(pt::seconds(3)));
    EXPECT_FALSE(staleLines.contains("stale lock detected")) << staleLines.text();
    EXPECT_EQ(listDir(dir.path()), kOnlyLevel0);
    EXPECT_TRUE(holder.release());
}

// A client that caches attributes sees a live holder's file a minute old
// while its content keeps changing: never taken over. A dead holder still is,
// once 30 s have passed since the waiter last saw that file change.
TEST(ExclusiveLockTakeOver, LaggingTimesFoolNoWaiterButADeadHolderStillGoes) {
    TempDir dir;
    ovDirectoryExclusiveLock holder(dir.path(), "holder");
    ASSERT_TRUE(holder.acquire());
    auto cached = boost::make_shared<CachedAttributesFS>(60);
    ovDirectoryExclusiveLock waiter(dir.path(), "waiter", cached);
    LogCapture staleLines(stale_log);
    EXPECT_FALSE(waiter.acquire(pt::seconds(9)));
    EXPECT_GT(cached->contentReads, 0) << "the verdict was never checked";
    EXPECT_FALSE(staleLines.contains("stale lock detected")) << staleLines.text();
    EXPECT_EQ(listDir(dir.path()), kOnlyLevel0);
    EXPECT_TRUE(holder.release());

    writeFile(level(dir, 0), "dead");  // no refresh: the content never changes
    const double start = monotonicSeconds();
    EXPECT_TRUE(waiter.acquire(pt::seconds(60)));
    EXPECT_GT(monotonicSeconds() - start, 20.0) << "taken over within 30 s of a sighting";
    EXPECT_TRUE(staleLines.contains("FS_LOCK: stale lock detected: " + level(dir, 0) + "\n"));
    EXPECT_NE(readFile(level(dir, 0)), "dead");
    EXPECT_TRUE(waiter.release());
}
