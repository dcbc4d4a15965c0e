// A refreshing lock file notices when it stopped being its holder's: its
// file rewritten by someone else, removed, or not refreshed for 20 s.

#include <unistd.h>

#include <atomic>
#include <stdexcept>
#include <string>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include "lock_test_util.h"
#include "test_support.h"
#include "orvane/fs.h"
#include "orvane/lock_file.h"

using namespace ovtest;
namespace pt = boost::posix_time;

namespace {

pt::ptime in(int seconds) { return ovSteadyNow() + pt::seconds(seconds); }

// Forwards everything to a network file system, overriding none of the
// owned refresh: the interface's own default runs, through these slots.
class ForwardingFS : public ovAbstractFS {
public:
    using ovAbstractFS::refreshLockFile;
    std::atomic<int> touches{0};
    std::atomic<bool> failTouches{false};

    bool isDir(const char* p) override { return real.isDir(p); }
    bool mkDir(const char* p) override { return real.mkDir(p); }
    int rmDir(const char* p) override { return real.rmDir(p); }
    bool rmSubFolderTree(const char* p) override { return real.rmSubFolderTree(p); }
    bool fileExists(const char* p) override { return real.fileExists(p); }
    bool createFile(const char* p) override { return real.createFile(p); }
    bool removeFile(const std::string& n, const pt::ptime& d) override { return real.removeFile(n, d); }
    bool refreshLockFile(const std::string& n, const pt::ptime& d) override {
        ++touches;
        return failTouches ? false : real.refreshLockFile(n, d);
    }
    time_t getFileLastModifiedTime(const char* p) override { return real.getFileLastModifiedTime(p); }
    bool matchingFileOrDirExists(const char* p) override { return real.matchingFileOrDirExists(p); }
    unsigned findMatchingFilesAndDirs(const char* p, const ovStringProcedure& f, const ovStringProcedure& d,
                                      int depth, bool stop) override {
        return real.findMatchingFilesAndDirs(p, f, d, depth, stop);
    }
    uint16_t disableWritePermission(const char* p) override { return real.disableWritePermission(p); }
    uint16_t enableWritePermission(const char* p) override { return real.enableWritePermission(p); }

private:
    ovNetworkFS real;
};

// Counts the callback's calls and remembers the last reason.
struct LossRecorder {
    std::atomic<int> calls{0};
    std::atomic<int> reason{ovLockNotLost};
    ovLockLostCallback callback() {
        return [this](ovLockLossReason r) {
            reason = r;
            ++calls;
        };
    }
};

}  // namespace

// ---- The owned refresh of the file layer -----------------------------------

// Both the network implementation and the interface's default must agree.
class OwnedRefresh : public ::testing::TestWithParam<bool> {
protected:
    ovAbstractFS& fs() { return GetParam() ? static_cast<ovAbstractFS&>(forwarding) : network; }
    ovNetworkFS network;
    ForwardingFS forwarding;
};

TEST_P(OwnedRefresh, ChecksBeforeWritingAndNeverWritesAnotherHoldersFile) {
    TempDir dir;
    const std::string f = dir.file("lock");
    EXPECT_EQ(fs().refreshOwnedLockFile(f, in(1), "", "AAAAmine"), ovRefreshFoundMissing);
    EXPECT_EQ(readFile(f), "AAAAmine");
    EXPECT_EQ(fs().refreshOwnedLockFile(f, in(1), "AAAAmine", "BBBBmine"), ovRefreshedOwned);
    EXPECT_EQ(readFile(f), "BBBBmine");

    // A take-over touch changes the counter bytes only: still seen.
    writeFile(f, "CCCCmine");
    EXPECT_EQ(fs().refreshOwnedLockFile(f, in(1), "BBBBmine", "DDDDmine"), ovRefreshFoundRewritten);
    EXPECT_EQ(readFile(f), "CCCCmine") << "another holder's file was written";
    // A file shorter than what we wrote (a new holder's empty create) is not ours.
    writeFile(f, "");
    EXPECT_EQ(fs().refreshOwnedLockFile(f, in(1), "CCCCmine", "DDDDmine"), ovRefreshFoundRewritten);
    EXPECT_EQ(readFile(f), "");
    // No expectation: written whatever is there.
    EXPECT_EQ(fs().refreshOwnedLockFile(f, in(1), "", "EEEEmine"), ovRefreshedOwned);
    EXPECT_EQ(readFile(f), "EEEEmine");

    EXPECT_THROW(fs().refreshOwnedLockFile(dir.file("gone/lock"), in(1), "", "x"), ovNoSuchDirectory);
}

INSTANTIATE_TEST_SUITE_P(NetworkAndDefault, OwnedRefresh, ::testing::Bool());

TEST(OwnedRefreshDefault, TouchesThroughTheSlotSoItsFailureShows) {
    TempDir dir;
    ForwardingFS fs;
    const std::string f = dir.file("lock");
    ASSERT_EQ(fs.refreshOwnedLockFile(f, in(1), "", "AAAAmine"), ovRefreshFoundMissing);
    EXPECT_EQ(fs.touches, 1);
    fs.failTouches = true;
    EXPECT_EQ(fs.refreshOwnedLockFile(f, in(1), "AAAAmine", "BBBBmine"), ovRefreshFailed);
    EXPECT_EQ(readFile(f), "AAAAmine");
}

// ---- The lock file ---------------------------------------------------------

TEST(LockLoss, ReasonTexts) {
    EXPECT_STREQ(ovLockLossReasonText(ovLockFileMissing), "missing");
    EXPECT_STREQ(ovLockLossReasonText(ovLockFileRewritten), "rewritten by another holder");
    EXPECT_STREQ(ovLockLossReasonText(ovLockRefreshFailing), "refresh failing");
    EXPECT_STREQ(ovLockLossReasonText(static_cast<ovLockLossReason>(42)), "unknown");
}

TEST(LockLoss, UndisturbedHolderIsNeverLostAndTwoHoldersWriteDifferentContent) {
    TempDir dir;
    LossRecorder rec;
    std::string firstA, firstB;
    {
        ovLockFile a(dir.file("a"), pt::milliseconds(200), ovGetDefaultFSImp());
        ovLockFile b(dir.file("b"), pt::milliseconds(200), ovGetDefaultFSImp());
        a.setLostCallback(rec.callback());
        firstA = readFile(dir.file("a"));
        firstB = readFile(dir.file("b"));
        usleep(1500 * 1000);  // several refreshes
        EXPECT_FALSE(a.isLost());
        EXPECT_EQ(a.getLossReason(), ovLockNotLost);
        EXPECT_NE(readFile(dir.file("a")), firstA) << "not refreshed";
    }
    EXPECT_EQ(rec.calls, 0);
    // Counter plus a token that differs between holders.
    ASSERT_GT(firstA.size(), 4u);
    EXPECT_NE(firstA.substr(4), firstB.substr(4));
    EXPECT_FALSE(pathExists(dir.file("a")));
}

TEST(LockLoss, RewrittenFileIsReportedOnceAndLeftToItsNewHolder) {
    TempDir dir;
    const std::string f = dir.file("lock");
    LossRecorder rec;
    {
        ovLockFile held(f, pt::milliseconds(100), ovGetDefaultFSImp());
        held.setLostCallback(rec.callback());
        writeFile(f, "someone else's");
        ASSERT_TRUE(waitFor([&] { return rec.calls > 0; }, 5));
        EXPECT_TRUE(held.isLost());
        EXPECT_EQ(held.getLossReason(), ovLockFileRewritten);
        EXPECT_EQ(rec.reason, ovLockFileRewritten);
        usleep(500 * 1000);  // more periods pass: neither written nor reported again
        EXPECT_EQ(readFile(f), "someone else's");
        // A later loss (the file now removed) does not change the reason.
        ::unlink(f.c_str());
        usleep(300 * 1000);
        EXPECT_EQ(held.getLossReason(), ovLockFileRewritten);
        EXPECT_FALSE(pathExists(f)) << "a lost file was recreated";
        writeFile(f, "someone else's");
    }
    EXPECT_EQ(rec.calls, 1);
    EXPECT_EQ(readFile(f), "someone else's") << "release removed the new holder's file";
}

TEST(LockLoss, ReleaseBeforeTheNextRefreshStillLeavesARewrittenFileAlone) {
    TempDir dir;
    const std::string f = dir.file("lock");
    {
        // A period long enough that no refresh runs before destruction.
        ovLockFile held(f, pt::seconds(30), ovGetDefaultFSImp());
        writeFile(f, "new holder");
    }
    EXPECT_EQ(readFile(f), "new holder");
}

TEST(LockLoss, MissingFileIsReportedRecreatedAndStillRemovedAtTheEnd) {
    TempDir dir;
    const std::string f = dir.file("lock");
    LossRecorder rec;
    {
        ovLockFile held(f, pt::milliseconds(100), ovGetDefaultFSImp());
        // A callback that throws must not stop the refresh.
        std::atomic<int> calls{0};
        held.setLostCallback([&](ovLockLossReason) {
            ++calls;
            throw std::runtime_error("dropped");
        });
        ::unlink(f.c_str());
        ASSERT_TRUE(waitFor([&] { return calls > 0; }, 5));
        EXPECT_EQ(held.getLossReason(), ovLockFileMissing);
        EXPECT_TRUE(pathExists(f));
        const std::string before = readFile(f);
        EXPECT_TRUE(waitFor([&] { return readFile(f) != before; }, 5)) << "refresh stopped";
        EXPECT_EQ(calls, 1);
    }
    EXPECT_FALSE(pathExists(f));
}

TEST(LockLoss, RemovedDirectoryIsReportedAsMissing) {
    TempDir dir;
    const std::string sub = dir.file("locked");
    ASSERT_EQ(::mkdir(sub.c_str(), 0777), 0);
    LossRecorder rec;
    ovLockFile held(sub + "/lock", pt::milliseconds(100), ovGetDefaultFSImp());
    held.setLostCallback(rec.callback());
    ASSERT_TRUE(ovRemoveRF(sub.c_str()));
    ASSERT_TRUE(waitFor([&] { return rec.calls > 0; }, 5));
    EXPECT_EQ(rec.reason, ovLockFileMissing);
    EXPECT_TRUE(held.isLost());
}

TEST(LockLoss, NoRefreshFileIsNeverReportedLost) {
    TempDir dir;
    const std::string f = dir.file("lock");
    ovLockFile held(f, ovLockFile::NO_REFRESH, ovGetDefaultFSImp());
    LossRecorder rec;
    held.setLostCallback(rec.callback());
    writeFile(f, "someone else's");
    EXPECT_FALSE(held.isLost());
    ::unlink(f.c_str());
    EXPECT_FALSE(held.isLost());
    EXPECT_EQ(rec.calls, 0);
}
