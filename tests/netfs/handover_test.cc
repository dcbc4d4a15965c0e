// Hand-over between two clients of one network directory, on the mounts that
// tests/netfs/on-netfs.sh brings up with default options (ORVANE_NET_A and
// ORVANE_NET_B name one directory through two independent clients). Each
// client keeps a name that the other removed in its caches for a while (an
// sshfs client 20 s, a GlusterFS client about 1 s); what one client released
// must be free through the other at once.

#include <unistd.h>

#include <cstdlib>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "orvane/exclusive_lock.h"
#include "orvane/fs.h"
#include "orvane/path.h"
#include "orvane/rw_lock.h"
#include "test_support.h"

namespace {

namespace pt = boost::posix_time;

class NetHandover : public ::testing::Test {
protected:
    void SetUp() override {
        const char* a = std::getenv("ORVANE_NET_A");
        const char* b = std::getenv("ORVANE_NET_B");
        if (!a || !b) GTEST_SKIP() << "ORVANE_NET_A/ORVANE_NET_B not set (run through on-netfs.sh)";
        const std::string sub = "/t" + std::to_string(::getpid()) + "-" +
                                ::testing::UnitTest::GetInstance()->current_test_info()->name();
        dirA = a + sub;
        dirB = b + sub;
        ASSERT_EQ(0, ::mkdir(dirA.c_str(), 0777));
        for (int i = 0; i < 200 && ::access(dirB.c_str(), F_OK) != 0; ++i) ::usleep(10000);
    }
    void TearDown() override {
        if (!dirA.empty()) ovRemoveRF(dirA.c_str());
    }

    // B has seen `name` in use, as a waiter there has: a failed exclusive
    // create and a look at its date.
    void seenInUseThroughB(const std::string& name) {
        ASSERT_FALSE(fs.createFile((dirB + name).c_str()));
        ASSERT_TRUE(fs.fileExists((dirB + name).c_str()));
        (void)fs.getFileLastModifiedTime((dirB + name).c_str());
    }

    ovNetworkFS fs;
    std::string dirA, dirB;
};

// Every question about a name that A has just removed is answered with the
// server's view through B, at the first asking: no waiting, no polling.
TEST_F(NetHandover, ANameRemovedThroughOneClientIsFreeThroughTheOtherAtOnce) {
    for (int round = 0; round < 5; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        const std::string name = "/.deploy_lock.0";
        ASSERT_TRUE(fs.createFile((dirA + name).c_str()));
        seenInUseThroughB(name);
        ASSERT_TRUE(fs.removeFile(dirA + name, ovSteadyNow() + pt::seconds(1)));
        EXPECT_FALSE(fs.fileExists((dirB + name).c_str()));
        EXPECT_FALSE(fs.matchingFileOrDirExists((dirB + name).c_str()));
        ASSERT_TRUE(fs.createFile((dirB + name).c_str()));
        // And B's create is the server's: A cannot have it now.
        EXPECT_FALSE(fs.createFile((dirA + name).c_str()));
        ASSERT_TRUE(fs.removeFile(dirB + name, ovSteadyNow() + pt::seconds(1)));
    }
}

// Taken again through A with a new file: B, which knew the old file, must
// not call the name free.
TEST_F(NetHandover, ANameTakenAgainThroughOneClientStaysTakenThroughTheOther) {
    const std::string name = "/.deploy_write_lock";
    ASSERT_TRUE(fs.createFile((dirA + name).c_str()));
    seenInUseThroughB(name);
    ASSERT_TRUE(fs.removeFile(dirA + name, ovSteadyNow() + pt::seconds(1)));
    ASSERT_TRUE(fs.createFile((dirA + name).c_str()));
    EXPECT_TRUE(fs.fileExists((dirB + name).c_str()));
    EXPECT_TRUE(fs.matchingFileOrDirExists((dirB + name).c_str()));
    EXPECT_FALSE(fs.createFile((dirB + name).c_str()));
}

// The locks themselves: a waiter on B gets what a holder on A lets go within
// a few polling cycles (bounded at 3 s; the client caches alone would make it
// 20 s on sshfs).
template <class Hold, class Wait>
double waitAfterRelease(Hold hold, Wait wait) {
    auto holder = hold();
    double got = -1;
    std::thread waiter([&] {
        if (wait()) got = ovtest::monotonicSeconds();
    });
    ::usleep(300000);  // the waiter is in line and has seen the holder's files
    const double released = ovtest::monotonicSeconds();
    holder.reset();
    waiter.join();
    return got < 0 ? -1 : got - released;
}

TEST_F(NetHandover, LocksPassFromOneClientToTheOtherPromptly) {
    for (int round = 0; round < 3; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        ovDirectoryExclusiveLock a(dirA, "a"), b(dirB, "b");
        const double exclusive = waitAfterRelease(
            [&] {
                EXPECT_TRUE(a.acquire());
                return std::shared_ptr<void>(nullptr, [&](void*) { a.release(); });
            },
            [&] { return b.acquire(pt::seconds(30)); });
        EXPECT_GE(exclusive, 0);
        EXPECT_LT(exclusive, 3.0);
        b.release();

        // A writer on A, then a reader on B; a reader on A, then a writer on B.
        ovDirectoryReadWriteLock rwA(dirA), rwB(dirB);
        ovDirectoryReadWriteLock::WriteLock writerA = rwA.getWriteLock(), writerB = rwB.getWriteLock();
        ovDirectoryReadWriteLock::ReadLock readerA = rwA.getReadLock(), readerB = rwB.getReadLock();
        const double readerWaited = waitAfterRelease(
            [&] {
                EXPECT_TRUE(writerA.acquire(pt::seconds(10), false));
                return std::shared_ptr<void>(nullptr, [&](void*) { writerA.release(); });
            },
            [&] { return readerB.acquire(pt::seconds(30), false); });
        EXPECT_GE(readerWaited, 0);
        EXPECT_LT(readerWaited, 3.0);
        readerB.release();
        const double writerWaited = waitAfterRelease(
            [&] {
                EXPECT_TRUE(readerA.acquire(pt::seconds(10), false));
                return std::shared_ptr<void>(nullptr, [&](void*) { readerA.release(); });
            },
            [&] { return writerB.acquire(pt::seconds(30), false); });
        EXPECT_GE(writerWaited, 0);
        EXPECT_LT(writerWaited, 3.0);
        writerB.release();
    }
}

}  // namespace
