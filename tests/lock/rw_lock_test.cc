// The read/write lock within one process: handle semantics, the ignored
// directory gate, interruption, bad directories, and downgrade.
#include <sys/stat.h>
#include <unistd.h>

#include <boost/make_shared.hpp>
#include <boost/thread/thread.hpp>
#include <gtest/gtest.h>

#include "rw_test_util.h"

using boost::posix_time::milliseconds;
using boost::posix_time::seconds;
using namespace rwtest;

namespace {

// Refuses read-lock files; notes how many exist when the write-lock file goes.
class WatchingFS : public ovNetworkFS {
public:
    using ovAbstractFS::refreshLockFile;
    WatchingFS(const std::string& dir, bool refuseReaders) : dir_(dir), refuse_(refuseReaders) {}
    bool createFile(const char* path) override {
        if (refuse_ && std::strstr(path, ".deploy_read_lock.")) throw ovPermissionDenied(std::string("denied: ") + path);
        return ovNetworkFS::createFile(path);
    }
    bool removeFile(const std::string& name, const boost::posix_time::ptime& deadline) override {
        if (name == dir_ + "/.deploy_write_lock") readersAtWriterRemoval.push_back(readLockCount(dir_));
        return ovNetworkFS::removeFile(name, deadline);
    }
    std::vector<size_t> readersAtWriterRemoval;

private:
    std::string dir_;
    bool refuse_;
};

// A rival that tested before us and creates its file just as we create ours:
// what a pass without the directory gate can meet.
class RivalFS : public ovNetworkFS {
public:
    using ovAbstractFS::refreshLockFile;
    RivalFS(const std::string& ours, const std::string& rivals) : ours_(ours), rivals_(rivals) {}
    bool createFile(const char* path) override {
        if (!done_ && std::strstr(path, ours_.c_str())) {
            done_ = true;
            ovtest::writeFile(rivals_);
        }
        return ovNetworkFS::createFile(path);
    }

private:
    std::string ours_, rivals_;
    bool done_ = false;
};

}  // namespace

TEST(RwLock, OfTwoPassesThatTestedTogetherOnlyOneWins) {
    struct Case {
        bool writer;
        const char* rival;
    } cases[] = {{false, ".deploy_write_lock"}, {true, ".deploy_read_lock.4242"}, {true, ".deploy_write_lock"}};
    for (const Case& c : cases) {
        ovtest::TempDir dir;
        const std::string ours = c.writer ? ".deploy_write_lock" : ".deploy_read_lock.";
        ovDirectoryReadWriteLock rw(dir.path(), boost::make_shared<RivalFS>(ours, dir.file(c.rival)));
        bool won;
        if (c.writer) {
            WriteLock lock = rw.getWriteLock();
            won = lock.acquire(milliseconds(100));
        } else {
            ReadLock lock = rw.getReadLock();
            won = lock.acquire(milliseconds(100));
        }
        EXPECT_FALSE(won) << ours << " beside " << c.rival;
        // The rival's file stays; nothing of ours does.
        EXPECT_EQ(std::vector<std::string>{c.rival}, filesStartingWith(dir.path(), ".deploy")) << ours;
    }
}

TEST(RwLock, HandlesAcquireOnceReleaseOnceShareStateAndOutliveTheObject) {
    ovtest::TempDir dir;
    ReadLock reader(ovPathString(""), ovGetDefaultFSImp()), copy = reader;
    WriteLock writer = ovDirectoryReadWriteLock(dir.path()).getWriteLock();
    {
        ovDirectoryReadWriteLock rw(dir.path());
        reader = rw.getReadLock();
        copy = reader;
        EXPECT_FALSE(rw.getReadLock().isAcquired());  // each get is a fresh handle
    }
    EXPECT_FALSE(reader.release());
    const int threads = ovtest::countThreads();
    ASSERT_TRUE(reader.acquire(seconds(10), true));
    EXPECT_EQ(threads, ovtest::countThreads()) << "no refresh, no timer thread";
    EXPECT_FALSE(copy.tryAcquire());  // a second acquire fails, the held lock stays
    EXPECT_TRUE(copy.isAcquired());
    EXPECT_EQ(1u, readLockCount(dir.path()));
    EXPECT_TRUE(copy.release());
    EXPECT_FALSE(reader.isAcquired());
    EXPECT_FALSE(reader.release());

    ASSERT_TRUE(writer.acquire(seconds(10)));
    EXPECT_EQ(threads + 2, ovtest::countThreads()) << "a refreshing holder has its timer thread and watchdog";
    EXPECT_TRUE(writeLockExists(dir.path()));
    EXPECT_FALSE(writer.acquire(seconds(1)));
    EXPECT_TRUE(writer.release());
    EXPECT_FALSE(writer.release());
    EXPECT_FALSE(writeLockExists(dir.path()));
    EXPECT_EQ(0u, readLockCount(dir.path()));
    EXPECT_TRUE(filesStartingWith(dir.path(), ".deploy_lock.").empty()) << "the directory gate was left held";
}

TEST(RwLock, APassGoesOnWithoutTheDirectoryGate) {
    // Someone sits in the directory's exclusive lock past our deadline: the
    // pass deliberately ignores that and still tests and creates.
    ovtest::TempDir dir;
    ovDirectoryExclusiveLock gate(dir.path(), "gate");
    ASSERT_TRUE(gate.acquire(seconds(10)));
    ovDirectoryReadWriteLock rw(dir.path());
    ReadLock reader = rw.getReadLock();
    WriteLock writer = rw.getWriteLock();
    ASSERT_TRUE(reader.tryAcquire());
    EXPECT_FALSE(writer.tryAcquire());  // the reader's file is seen
    ASSERT_TRUE(reader.release());
    EXPECT_TRUE(writer.tryAcquire());
    EXPECT_TRUE(gate.lockFileExists(0));  // nobody touched the gate's level 0
    EXPECT_TRUE(writer.release());
    EXPECT_TRUE(gate.release());
}

TEST(RwLock, AnInterruptedWaiterLeavesNothingBehind) {
    ovtest::TempDir dir;
    ovDirectoryReadWriteLock rw(dir.path());
    WriteLock writer = rw.getWriteLock();
    ASSERT_TRUE(writer.acquire(seconds(10)));
    ReadLock reader = rw.getReadLock();
    bool interrupted = false;
    boost::thread waiter([&] {
        try {
            reader.acquire();
        } catch (const boost::thread_interrupted&) {
            interrupted = true;
        }
    });
    ::usleep(200 * 1000);
    waiter.interrupt();
    ASSERT_TRUE(waiter.timed_join(seconds(30)));
    EXPECT_TRUE(interrupted);
    EXPECT_FALSE(reader.isAcquired());
    EXPECT_EQ(0u, readLockCount(dir.path()));
    ASSERT_TRUE(writer.release());
    EXPECT_TRUE(rw.getWriteLock().acquire(seconds(5)));  // the gate was given back
}

TEST(RwLock, MissingOrUnmatchableDirectoriesAreRefused) {
    // Lock files are found by pattern matching, which finds nothing for
    // patterns over 1024 bytes or with a "*" in a directory part.
    ovtest::TempDir dir;
    std::string deep = dir.path();
    while (deep.size() < 1100) {
        deep += "/" + std::string(200, 'd');
        ASSERT_EQ(0, ::mkdir(deep.c_str(), 0755));
    }
    ASSERT_EQ(0, ::mkdir(dir.file("a*b").c_str(), 0755));
    ovDirectoryReadWriteLock missing(dir.file("missing"));  // constructing checks nothing
    EXPECT_THROW(missing.getReadLock().acquire(seconds(1)), ovNoSuchDirectory);
    EXPECT_THROW(missing.getWriteLock().tryAcquire(), ovNoSuchDirectory);
    for (const std::string& bad : {deep, dir.file("a*b")}) {
        ovDirectoryReadWriteLock rw(bad);
        WriteLock writer = rw.getWriteLock();
        ReadLock reader = rw.getReadLock();
        EXPECT_THROW(writer.acquire(seconds(1)), ovFileAccessError) << bad;
        EXPECT_THROW(reader.tryAcquire(), ovFileAccessError) << bad;
        EXPECT_FALSE(writer.isAcquired() || reader.isAcquired());
        EXPECT_EQ(0u, readLockCount(bad) + writeLockExists(bad)) << bad;
    }
}

TEST(RwLock, DowngradeCreatesTheReadLockBeforeTheWriteLockGoes) {
    ovtest::TempDir dir;
    boost::shared_ptr<WatchingFS> fs(new WatchingFS(dir.path(), false));
    ovDirectoryReadWriteLock rw(dir.path(), fs);
    WriteLock writer = rw.getWriteLock();
    EXPECT_FALSE(writer.tryDowngrade().isAcquired());  // nothing held yet
    ASSERT_TRUE(writer.acquire(seconds(10)));
    ReadLock reader = writer.downgrade(seconds(5));
    EXPECT_TRUE(reader.isAcquired());
    EXPECT_FALSE(writer.isAcquired());
    EXPECT_EQ(std::vector<size_t>{1}, fs->readersAtWriterRemoval);
    EXPECT_FALSE(writeLockExists(dir.path()));
    EXPECT_FALSE(writer.release());
    // Other readers may join; writers stay out until the reader goes.
    EXPECT_TRUE(rw.getReadLock().tryAcquire());
    EXPECT_FALSE(rw.getWriteLock().acquire(milliseconds(200)));
    EXPECT_TRUE(reader.release());

    ovtest::TempDir other;
    WriteLock refused = ovDirectoryReadWriteLock(other.path(), boost::make_shared<WatchingFS>(other.path(), true))
                            .getWriteLock();
    ASSERT_TRUE(refused.acquire(seconds(10)));
    EXPECT_THROW(refused.downgrade(), ovPermissionDenied);
    EXPECT_TRUE(refused.isAcquired());  // a failed reader keeps the write lock
    EXPECT_TRUE(writeLockExists(other.path()));
    EXPECT_TRUE(refused.release());
}

TEST(RwLock, AnAdoptedFileIsHeldInItsOwnDirectory) {
    ovtest::TempDir dir;
    const boost::shared_ptr<ovAbstractFS> fs = ovGetDefaultFSImp();
    const std::string name = dir.file(".deploy_read_lock.7");
    ReadLock adopted(boost::shared_ptr<ovLockFile>(new ovLockFile(name, ovLockFile::NO_REFRESH, fs)), fs);
    EXPECT_TRUE(adopted.isAcquired());
    EXPECT_TRUE(adopted.release());
    EXPECT_FALSE(exists(name));
    ASSERT_TRUE(adopted.acquire(seconds(10)));  // the directory was taken from the name
    EXPECT_EQ(1u, readLockCount(dir.path()));
    EXPECT_TRUE(adopted.release());
}
