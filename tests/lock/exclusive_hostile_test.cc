// The exclusive lock in a directory that other users share and may fill with
// anything: junk at lock names, files of other users, a full disk, a rival
// taking over at the same moment. Each case runs in a child process with a
// bounded wait, so a hang or an abort shows as a status, not a stuck suite.

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include "lock_test_util.h"
#include "log_capture.h"
#include "orvane/exclusive_lock.h"
#include "test_support.h"

namespace pt = boost::posix_time;
using namespace ovtest;

namespace {

std::string level(const TempDir& dir, int n) { return dir.file(".deploy_lock." + std::to_string(n)); }

// A second unprivileged user and a group both share.
constexpr uid_t kOtherUser = 65533;
constexpr gid_t kSharedGroup = 65533;

struct Junk {
    const char* kind;
    // Puts the junk at `name`; `outside` is a root-only file beyond the directory.
    std::function<void(const std::string& name, const std::string& outside)> make;
};

const Junk kJunk[] = {
    {"fifo", [](const std::string& n, const std::string&) { ASSERT_EQ(::mkfifo(n.c_str(), 0666), 0); }},
    {"dangling symlink",
     [](const std::string& n, const std::string& o) { ASSERT_EQ(::symlink((o + ".new").c_str(), n.c_str()), 0); }},
    {"symlink loop",
     [](const std::string& n, const std::string&) {
         ASSERT_EQ(::symlink((n + ".b").c_str(), n.c_str()), 0);
         ASSERT_EQ(::symlink(n.c_str(), (n + ".b").c_str()), 0);
     }},
    {"symlink to a root-only file", [](const std::string& n, const std::string& o) { ASSERT_EQ(::symlink(o.c_str(), n.c_str()), 0); }},
    {"empty directory", [](const std::string& n, const std::string&) { ASSERT_EQ(::mkdir(n.c_str(), 0777), 0); }},
    {"file nobody may open",
     [](const std::string& n, const std::string&) {
         writeFile(n, "junk");
         ASSERT_EQ(::chmod(n.c_str(), 0), 0);
     }},
};

}  // namespace

// Fresh junk at the holder's name is waited on like a live holder: the wait
// ends at its time-out, sleeping between looks. Aged junk is removed and the
// lock taken. Nothing is written beyond the directory, for root or not.
TEST(ExclusiveHostile, JunkAtTheHoldersNameNeverHangsSpinsAbortsOrWritesOutside) {
    TempDir outsideDir;
    const std::string outside = outsideDir.file("root-only");
    writeFile(outside, "precious");
    ASSERT_EQ(::chmod(outside.c_str(), 0600), 0);
    ageFile(outside, 3600);
    struct Run {
        std::string what;
        std::unique_ptr<TempDir> dir;
        Child child;
    };
    std::vector<Run> runs;
    for (const Junk& junk : kJunk) {
        for (bool root : {true, false}) {
            for (bool aged : {false, true}) {
                Run run{std::string(junk.kind) + (root ? " as root" : " as a user") + (aged ? ", aged" : ", fresh"),
                        std::unique_ptr<TempDir>(new TempDir), Child()};
                const TempDir& dir = *run.dir;
                ASSERT_EQ(::chmod(dir.path().c_str(), 0777), 0);
                junk.make(level(dir, 0), outside);
                if (aged) ageFile(level(dir, 0), 60, true);
                const uid_t uid = root ? 0 : kUnprivilegedId;
                run.child = forkChild([&dir, aged, uid] {
                    return runAsUser(uid, uid, 022, [&] {
                        ovDirectoryExclusiveLock lock(dir.path(), "contender");
                        const double t0 = monotonicSeconds(), cpu0 = cpuSeconds();
                        const bool got = lock.acquire(pt::seconds(aged ? 10 : 2));
                        const double took = monotonicSeconds() - t0, cpu = cpuSeconds() - cpu0;
                        if (got != aged) return 1;
                        if (!aged && (took < 1.5 || took > 5)) return 2;
                        if (cpu > 0.5 * took) return 3;  // waited by spinning
                        if (got && !lock.release()) return 4;
                        return 0;
                    }, 30);
                });
                runs.push_back(std::move(run));
            }
        }
    }
    for (Run& run : runs)
        EXPECT_EQ(run.child.wait(40), 0)
            << run.what << " (1: wrong outcome, 2: time-out not kept, 3: spinning, 4: release, -1: hang, 134: abort)";
    EXPECT_EQ(readFile(outside), "precious");
    EXPECT_GT(ageOf(outside), 3000) << "the root-only file was written through a link";
    EXPECT_FALSE(pathExists(outside + ".new")) << "a file was created through a dangling link";
}

// A held file swapped for a link: the refresh neither writes through it nor
// creates the link's target, and the holder learns the file is not its own.
TEST(ExclusiveHostile, HeldFileSwappedForALinkIsNotFollowed) {
    TempDir dir, outsideDir;
    const std::string target = outsideDir.file("created-through-link");
    ovDirectoryExclusiveLock lock(dir.path(), "holder");
    ASSERT_TRUE(lock.acquire());
    ASSERT_EQ(::unlink(level(dir, 0).c_str()), 0);
    ASSERT_EQ(::symlink(target.c_str(), level(dir, 0).c_str()), 0);
    EXPECT_TRUE(waitFor([&] { return lock.isLost(); }, 5));
    EXPECT_FALSE(pathExists(target));
    EXPECT_TRUE(lock.release());
    EXPECT_FALSE(pathExists(target));
}

// A holder of another user died in a shared group directory. Where the
// directory lets us remove its file, the lock is taken over; in a sticky
// directory it cannot be: one warning names the file and its owner, and the
// wait keeps its time-out.
TEST(ExclusiveHostile, DeadHolderOfAnotherUser) {
    for (mode_t mode : {02775, 01777}) {
        TempDir dir;
        ASSERT_EQ(::chown(dir.path().c_str(), 0, kSharedGroup), 0);
        ASSERT_EQ(::chmod(dir.path().c_str(), mode), 0);
        ASSERT_EQ(runAsUser(kUnprivilegedId, kSharedGroup, 022, [&] {
                      ovDirectoryExclusiveLock lock(dir.path(), "dies");
                      if (!lock.acquire(pt::seconds(5))) return 1;
                      ::_exit(0);  // killed while holding: the file stays
                  }),
                  0);
        ageFile(level(dir, 0), 60);
        const bool sticky = mode & S_ISVTX;
        const int status = runAsUser(kOtherUser, kSharedGroup, 002, [&] {
            LogCapture warnings(warning);
            ovDirectoryExclusiveLock lock(dir.path(), "next");
            const double t0 = monotonicSeconds();
            const bool got = lock.acquire(pt::seconds(sticky ? 6 : 20));
            if (got == sticky) return 1;
            if (sticky) {
                const std::string said = warnings.text();
                const std::string line = "FS_LOCK: cannot take over stale lock " + level(dir, 0);
                if (said.find(line) == std::string::npos || said.find("nobody") == std::string::npos) return 2;
                if (said.find(line) != said.rfind(line)) return 3;  // said once
                if (monotonicSeconds() - t0 < 5) return 4;
            }
            return got && !lock.release() ? 5 : 0;
        });
        EXPECT_EQ(status, 0) << std::oct << mode << " (134: the process was ended)";
    }
}

// No space left: the acquisition fails at once with the error, instead of
// holding an empty file that cannot be refreshed.
TEST(ExclusiveHostile, FullDiskFailsTheAcquisitionAtOnce) {
    TempDir dir;
    if (::mount("tmpfs", dir.path().c_str(), "tmpfs", 0, "size=16k") != 0) GTEST_SKIP() << "cannot mount a tmpfs here";
    {
        // Every block taken; an empty file still fits (it needs only an inode).
        const int fd = ::open(dir.file("fill").c_str(), O_WRONLY | O_CREAT, 0600);
        const std::string block(512, 'x');
        for (int i = 0; i < 1000 && ::write(fd, block.data(), block.size()) > 0; ++i) {
        }
        for (int i = 0; i < 1000 && ::write(fd, block.data(), 1) > 0; ++i) {
        }
        ::close(fd);
    }
    ovDirectoryExclusiveLock lock(dir.path(), "holder");
    const double t0 = monotonicSeconds();
    try {
        (void)lock.acquire(pt::seconds(5));
        ADD_FAILURE() << "acquired on a full disk";
        (void)lock.release();
    } catch (const ovFileAccessError& e) {
        EXPECT_NE(std::string(e.what()).find("No space left on device"), std::string::npos) << e.what();
    }
    EXPECT_LT(monotonicSeconds() - t0, 3.0);
    EXPECT_FALSE(pathExists(level(dir, 0)));
    ::umount2(dir.path().c_str(), MNT_DETACH);
}

namespace {

// Another waiter takes the stale holder's file over at the very moment we do
// (it was paused after judging the file stale, or judged it just before us):
// its content lands just before our take-over writes.
class RivalTakesOverFirst : public ovNetworkFS {
public:
    using ovAbstractFS::refreshLockFile;
    explicit RivalTakesOverFirst(const std::string& name) : name_(name) {}
    bool refreshLockFile(const std::string& name, const pt::ptime& deadline) override {
        rival(name);
        return ovNetworkFS::refreshLockFile(name, deadline);
    }
    ovOwnedRefreshResult refreshOwnedLockFile(const std::string& name, const pt::ptime& deadline,
                                              const std::string& expected, const std::string& content) override {
        if (!expected.empty()) rival(name);  // a take-over, not our own first write
        return ovNetworkFS::refreshOwnedLockFile(name, deadline, expected, content);
    }

private:
    void rival(const std::string& name) {
        if (name != name_ || done_.exchange(true)) return;
        writeFile(name, "RIVAL-HOLDER");
    }
    std::string name_;
    std::atomic<bool> done_{false};
};

}  // namespace

// A take-over writes only over the content it judged stale: a rival's
// take-over in between wins, and we wait, instead of two holders.
TEST(ExclusiveHostile, TakeOverNeverOverwritesARivalsTakeOver) {
    TempDir dir;
    writeFile(level(dir, 0), "dead holder");
    ageFile(level(dir, 0), 60);
    ovDirectoryExclusiveLock lock(dir.path(), "waiter", boost::make_shared<RivalTakesOverFirst>(level(dir, 0)));
    EXPECT_FALSE(lock.acquire(pt::seconds(6)));
    EXPECT_EQ(readFile(level(dir, 0)), "RIVAL-HOLDER");
}

// A dead holder's file dated an hour ahead (the server's clock was stepped
// back since) is judged by its unchanging content, not left until that hour.
TEST(ExclusiveHostile, DeadHolderDatedInTheFutureIsJudgedByItsContent) {
    TempDir dir;
    writeFile(level(dir, 0), "dead holder");
    ageFile(level(dir, 0), -3600);
    ovDirectoryExclusiveLock lock(dir.path(), "waiter");
    EXPECT_TRUE(lock.acquire(pt::seconds(15)));
    EXPECT_NE(readFile(level(dir, 0)), "dead holder");
    EXPECT_TRUE(lock.release());
}
