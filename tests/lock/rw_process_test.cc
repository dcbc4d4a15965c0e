// The read/write lock between real processes: readers share, writers exclude
// everyone, downgrade leaves no gap, dead holders are cleared, the try forms
// answer at once, and a fresh process numbers its read locks from its pid.
#include <signal.h>

#include <gtest/gtest.h>

#include "rw_test_util.h"

using boost::posix_time::milliseconds;
using boost::posix_time::seconds;
using namespace rwtest;

TEST(RwLockProcesses, TwoReadersHoldAtTheSameMoment) {
    ovtest::TempDir dir, ctl, ctl2;
    ovtest::Child a = holder(dir.path(), "reader", ctl), b = holder(dir.path(), "reader", ctl2);
    EXPECT_EQ(2u, readLockCount(dir.path()));  // both ready, neither let go
    EXPECT_TRUE(a.running() && b.running());
    ovtest::writeFile(ctl.file("go"));
    ovtest::writeFile(ctl2.file("go"));
    EXPECT_EQ(0, a.wait(60));
    EXPECT_EQ(0, b.wait(60));
    EXPECT_EQ(0u, readLockCount(dir.path()));
}

TEST(RwLockProcesses, NeverAWriterTogetherWithAnyoneElse) {
    ovtest::TempDir dir, check, out;
    // Two writers and a downgrader without time-out, readers waiting, giving up
    // at a deadline, and trying.
    const char* roles[] = {"writer", "writer", "downgrader", "reader", "reader", "reader"};
    const char* timeouts[] = {"-1", "-1", "-1", "-1", "1500", "0"};
    const std::vector<long> acquired = runAll(6, [&](size_t i, const std::string& result) {
        return worker(dir.path(), roles[i], {"--iterations", "12", "--hold-ms", "15", "--gap-ms", "3", "--timeout-ms",
                                             timeouts[i], "--check-dir", check.path(), "--result", result});
    }, out, 240);
    EXPECT_EQ(36, acquired[0] + acquired[1] + acquired[2]);  // writers without a time-out always get in
    EXPECT_GT(acquired[3] + acquired[4] + acquired[5], 12);
    EXPECT_EQ(0u, readLockCount(dir.path()));
    EXPECT_FALSE(writeLockExists(dir.path()));
}

TEST(RwLockProcesses, DowngradeLeavesNoMomentForAWaitingWriter) {
    ovtest::TempDir dir, check, ctl;
    WriteLock writer = ovDirectoryReadWriteLock(dir.path()).getWriteLock();
    ASSERT_TRUE(writer.acquire(seconds(10)));
    ovtest::writeFile(check.file("writer"));
    ovtest::Child second = worker(dir.path(), "writer", {"--check-dir", check.path(), "--started", ctl.file("started"),
                                                          "--result", ctl.file("result")});
    ASSERT_TRUE(waitForFile(ctl.file("started")));
    ::usleep(300 * 1000);  // it is polling now
    ovtest::writeFile(check.file("reader.downgraded"));  // a reader in the markers first, as in the lock
    ReadLock reader = writer.downgrade();
    ASSERT_TRUE(reader.isAcquired());
    ASSERT_EQ(0, ::unlink(check.file("writer").c_str()));
    ::usleep(1500 * 1000);
    EXPECT_TRUE(second.running());
    EXPECT_FALSE(exists(ctl.file("result"))) << "the waiting writer got in beside the downgraded reader";
    ASSERT_EQ(0, ::unlink(check.file("reader.downgraded").c_str()));
    ASSERT_TRUE(reader.release());
    EXPECT_EQ(0, second.wait(60));
    EXPECT_EQ(1, readResult(ctl.file("result"))["acquired"]);
}

TEST(RwLockProcesses, CrashedHoldersFilesAreClearedAndDoNotBlock) {
    ovtest::TempDir dir;
    ovDirectoryReadWriteLock rw(dir.path());
    auto takeOver = [](auto lock) {
        EXPECT_TRUE(lock.acquire(seconds(30)));
        EXPECT_TRUE(lock.release());
    };
    for (const char* role : {"reader", "writer"}) {
        ovtest::TempDir ctl;
        holder(dir.path(), role, ctl).kill(SIGKILL);  // destroyed: reaped
        const std::vector<std::string> left = filesStartingWith(dir.path(), ".deploy_read_lock.");
        const std::string file = dir.file(role == std::string("reader") ? (left.empty() ? "?" : left[0])
                                                                        : ".deploy_write_lock");
        ASSERT_TRUE(exists(file)) << role;
        ovtest::ageFile(file, 60);
        const double t0 = ovtest::monotonicSeconds();
        if (role == std::string("reader")) {
            takeOver(rw.getWriteLock());
        } else {
            takeOver(rw.getReadLock());
        }
        EXPECT_LT(ovtest::monotonicSeconds() - t0, 25.0);
        EXPECT_FALSE(exists(file)) << role;
    }
}

// Dead holders found in one pass are watched in one window: a writer behind
// five dead readers and a dead writer waits about one content watch (3.5 s),
// not six in a row (21 s).
TEST(RwLockProcesses, DeadHoldersFoundTogetherAreWatchedTogether) {
    ovtest::TempDir dir;
    std::vector<std::string> dead{dir.file(".deploy_write_lock")};
    for (int i = 1; i <= 5; ++i) dead.push_back(dir.file(".deploy_read_lock.99999" + std::to_string(i)));
    for (const std::string& file : dead) {
        ovtest::writeFile(file, "dead");
        ovtest::ageFile(file, 40);
    }
    WriteLock writer = ovDirectoryReadWriteLock(dir.path()).getWriteLock();
    const double t0 = ovtest::monotonicSeconds();
    ASSERT_TRUE(writer.acquire(seconds(60), true));
    const double took = ovtest::monotonicSeconds() - t0;
    EXPECT_LT(took, 10.0) << "watched one after another";
    EXPECT_EQ(0u, readLockCount(dir.path()));
    EXPECT_TRUE(writer.release());
}

TEST(RwLockProcesses, ALiveWriterTurnsTryFormsAwayAtOnceAndTimedOnesAtTheirDeadline) {
    ovtest::TempDir dir, ctl;
    ovtest::Child w = holder(dir.path(), "writer", ctl);
    ovDirectoryReadWriteLock rw(dir.path());
    ReadLock reader = rw.getReadLock();
    WriteLock writer = rw.getWriteLock();
    const double t0 = ovtest::monotonicSeconds();
    for (int i = 0; i < 5; ++i) {  // a "fails at once" that really waits would show
        EXPECT_FALSE(reader.tryAcquire());
        EXPECT_FALSE(writer.tryAcquire());
    }
    EXPECT_LT(ovtest::monotonicSeconds() - t0, 10.0);
    EXPECT_FALSE(reader.acquire(milliseconds(300)));  // and timed forms give up at their deadline
    EXPECT_FALSE(writer.acquire(milliseconds(300)));
    EXPECT_LT(ovtest::monotonicSeconds() - t0, 20.0);
    EXPECT_TRUE(writeLockExists(dir.path()));
    EXPECT_EQ(0u, readLockCount(dir.path()));
    ovtest::writeFile(ctl.file("go"));
    EXPECT_EQ(0, w.wait(60));
    EXPECT_TRUE(reader.acquire(seconds(10)));
}

TEST(RwLockProcesses, AFreshProcessNumbersReadLocksFromItsPidSkippingTakenNames) {
    const unsigned long kModulus = 2038074743ul;
    ovtest::TempDir dir;
    ovtest::Child names = worker(dir.path(), "names", {"--iterations", "3", "--wait-for", dir.file("go"), "--result",
                                                        dir.file("names")});
    const unsigned long p = static_cast<unsigned long>(names.pid()) % kModulus;
    ovtest::writeFile(dir.file(".deploy_read_lock." + std::to_string(2 * p % kModulus)));
    ovtest::writeFile(dir.file("go"));
    ASSERT_EQ(0, names.wait(60));
    std::istringstream lines(ovtest::readFile(dir.file("names")));
    std::vector<std::string> got;
    for (std::string line; std::getline(lines, line);) got.push_back(line);
    const std::string base = dir.file(".deploy_read_lock.");
    EXPECT_EQ((std::vector<std::string>{base + std::to_string(p), base + std::to_string(3 * p % kModulus),
                                        base + std::to_string(4 * p % kModulus)}),
              got);
}
