// The read/write lock against a file system that does not behave: lock files
// that vanish under the staleness query, and modification times that lag a
// minute behind while the content keeps changing.
#include <signal.h>

#include <chrono>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include "lock_test_fs.h"
#include "rw_test_util.h"

using boost::posix_time::seconds;
using namespace rwtest;

namespace {

bool isLockFileName(const char* path) {
    return std::strstr(path, ".deploy_read_lock.") || std::strstr(path, ".deploy_write_lock");
}

// The holder releases between the listing and the staleness query.
class VanishingFS : public ovNetworkFS {
public:
    using ovAbstractFS::refreshLockFile;
    int vanished = 0;
    time_t getFileLastModifiedTime(const char* path) override {
        if (!isLockFileName(path)) return ovNetworkFS::getFileLastModifiedTime(path);
        ++vanished;
        ::unlink(path);
        throw ovFileNotFoundError(std::string("File not found: ") + path);
    }
};

// A client caching attributes: lock files look a minute older than they are,
// while reading their content still sees every rewrite.
class LaggingFS : public ovNetworkFS {
public:
    using ovAbstractFS::refreshLockFile;
    time_t getFileLastModifiedTime(const char* path) override {
        return ovNetworkFS::getFileLastModifiedTime(path) - (isLockFileName(path) ? 60 : 0);
    }
};

}  // namespace

TEST(RwLockHardening, AFileGoneBeforeItsStalenessQueryDoesNotBlock) {
    // In a child: were the error let through, the closed exception list would
    // end the process, and the status shows it.
    ovtest::TempDir dir;
    ovtest::Child child = ovtest::forkChild([&]() -> int {
        boost::shared_ptr<VanishingFS> fs(new VanishingFS);
        ovDirectoryReadWriteLock rw(dir.path(), fs);
        ovtest::writeFile(dir.file(".deploy_write_lock"));
        ReadLock reader = rw.getReadLock();
        if (!reader.acquire(seconds(10)) || fs->vanished != 1 || !reader.release()) return 10;
        ovtest::writeFile(dir.file(".deploy_read_lock.424242"));
        ovtest::writeFile(dir.file(".deploy_read_lock.434343"));
        WriteLock writer = rw.getWriteLock();
        if (!writer.acquire(seconds(10)) || fs->vanished != 3 || !writer.release()) return 20;
        return 0;
    });
    EXPECT_EQ(0, child.wait(60));
}

TEST(RwLockHardening, LaggingTimesNeverTakeOverALiveHolderButStillADeadOne) {
    boost::shared_ptr<ovAbstractFS> lagging(new LaggingFS);
    {
        ovtest::TempDir dir, ctl;
        ovtest::Child writer = holder(dir.path(), "writer", ctl);
        ReadLock reader = ovDirectoryReadWriteLock(dir.path(), lagging).getReadLock();
        EXPECT_FALSE(reader.acquire(seconds(6)));
        EXPECT_TRUE(writeLockExists(dir.path()));
        ovtest::writeFile(ctl.file("go"));
        EXPECT_EQ(0, writer.wait(60));
    }
    ovtest::TempDir dir, ctl;
    ovtest::Child reader = holder(dir.path(), "reader", ctl);
    WriteLock writer = ovDirectoryReadWriteLock(dir.path(), lagging).getWriteLock();
    EXPECT_FALSE(writer.acquire(seconds(6)));
    EXPECT_EQ(1u, readLockCount(dir.path()));
    EXPECT_FALSE(writeLockExists(dir.path()));
    reader.kill(SIGKILL);  // now nobody rewrites the file: it is stale
    EXPECT_EQ(128 + SIGKILL, reader.wait(30));
    // Seen changing moments ago: not stale until that sighting is 30 s old.
    const double t0 = ovtest::monotonicSeconds();
    ASSERT_TRUE(writer.acquire(seconds(60)));
    EXPECT_GT(ovtest::monotonicSeconds() - t0, 20.0);
    EXPECT_LT(ovtest::monotonicSeconds() - t0, 45.0);
    EXPECT_EQ(0u, readLockCount(dir.path()));
    EXPECT_TRUE(writer.release());
}

// The cached time first makes the live holder look stale when the waiter's
// deadline leaves no room to watch: the reads kept while the file looked
// fresh still show it at work, for a waiting reader and a waiting writer.
TEST(RwLockHardening, LiveHolderLookingStaleOnlyAtTheDeadlineIsKept) {
    for (const char* mode : {"writer", "reader"}) {
        SCOPED_TRACE(mode);
        ovtest::TempDir dir, ctl;
        ovtest::Child live = holder(dir.path(), mode, ctl);
        const auto staleFrom = std::chrono::steady_clock::now() + std::chrono::milliseconds(2400);
        ovDirectoryReadWriteLock lock(dir.path(), boost::make_shared<ovtest::CacheCatchesUpFS>(staleFrom, "/.deploy_"));
        if (std::string(mode) == "writer") {
            ReadLock reader = lock.getReadLock();
            EXPECT_FALSE(reader.acquire(seconds(3)));
            EXPECT_TRUE(writeLockExists(dir.path()));
        } else {
            WriteLock writer = lock.getWriteLock();
            EXPECT_FALSE(writer.acquire(seconds(3)));
            EXPECT_EQ(1u, readLockCount(dir.path()));
            EXPECT_FALSE(writeLockExists(dir.path()));
        }
        ovtest::writeFile(ctl.file("go"));
        EXPECT_EQ(0, live.wait(60));
    }
}
