// Reader and writer handles learn that their lock file was lost, keep their
// callback across acquisitions and downgrade, and leave a file that another
// holder rewrote alone on release.

#include <unistd.h>

#include <atomic>
#include <string>

#include <gtest/gtest.h>

#include "lock_test_util.h"
#include "test_support.h"
#include "orvane/rw_lock.h"

using namespace ovtest;
namespace pt = boost::posix_time;

namespace {

std::string onlyReadLock(const TempDir& dir) {
    for (const std::string& n : listDir(dir.path()))
        if (n.compare(0, READ_LOCK_BASE.size(), READ_LOCK_BASE) == 0) return dir.file(n);
    return std::string();
}

}  // namespace

TEST(RwLoss, RewrittenWriteLockIsReportedAndReleasedWithoutRemovingIt) {
    TempDir dir;
    ovDirectoryReadWriteLock rw(dir.path());
    auto writer = rw.getWriteLock();
    std::atomic<int> calls{0}, reason{ovLockNotLost};
    std::atomic<bool> sawLost{false};
    // Asking the handle from the refresh thread is allowed, and already true.
    writer.setLostCallback([&](ovLockLossReason r) {
        reason = r;
        sawLost = writer.isLost();
        ++calls;
    });
    EXPECT_FALSE(writer.isLost()) << "not held: not lost";
    ASSERT_TRUE(writer.acquire(pt::seconds(10)));
    const std::string file = dir.file(WRITE_LOCK_BASE);
    writeFile(file, "another writer");
    ASSERT_TRUE(waitFor([&] { return writer.isLost(); }, 5));
    EXPECT_EQ(writer.getLossReason(), ovLockFileRewritten);
    EXPECT_TRUE(waitFor([&] { return calls > 0; }, 3));
    EXPECT_EQ(reason, ovLockFileRewritten);
    EXPECT_TRUE(sawLost);
    EXPECT_TRUE(writer.release());
    EXPECT_FALSE(writer.isAcquired());
    EXPECT_FALSE(writer.isLost());
    EXPECT_EQ(readFile(file), "another writer");
    EXPECT_EQ(calls, 1);
}

TEST(RwLoss, CallbackFollowsADowngrade) {
    TempDir dir;
    ovDirectoryReadWriteLock rw(dir.path());
    auto writer = rw.getWriteLock();
    std::atomic<int> calls{0};
    writer.setLostCallback([&](ovLockLossReason) { ++calls; });
    ASSERT_TRUE(writer.acquire(pt::seconds(10)));
    auto reader = writer.downgrade(pt::seconds(10));
    ASSERT_TRUE(reader.isAcquired());
    const std::string file = onlyReadLock(dir);
    ASSERT_FALSE(file.empty());
    ::unlink(file.c_str());
    ASSERT_TRUE(waitFor([&] { return calls > 0; }, 5));
    EXPECT_EQ(reader.getLossReason(), ovLockFileMissing);
    EXPECT_FALSE(writer.isLost()) << "the writer no longer holds anything";
    EXPECT_TRUE(pathExists(file)) << "a missing file is recreated";
    EXPECT_TRUE(reader.release());
    EXPECT_FALSE(pathExists(file)) << "a recreated file is the holder's own to remove";
}
