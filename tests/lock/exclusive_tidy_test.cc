// The holder that releases with nobody at level 1 sweeps the files of dead
// waiters further back, and only those.

#include <signal.h>
#include <stdio.h>

#include <set>
#include <string>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <boost/make_shared.hpp>
#include <boost/thread/thread.hpp>
#include <gtest/gtest.h>

#include "lock_test_fs.h"
#include "lock_test_util.h"
#include "log_capture.h"
#include "orvane/exclusive_lock.h"
#include "exclusive_test_util.h"
#include "test_support.h"

namespace pt = boost::posix_time;
using namespace ovtest;

namespace {

using exctest::level;
using exctest::worker;

// Removal of the names in `refused` fails as in a sticky directory, of those
// in `denied` as in a directory we may not write to.
class RefusingFS : public ovNetworkFS {
public:
    using ovAbstractFS::refreshLockFile;
    bool removeFile(const std::string& name, const pt::ptime& deadline) override {
        if (refused.count(name)) return false;
        if (denied.count(name)) throw ovPermissionDenied("Tried to obtain a lock: " + name);
        return ovNetworkFS::removeFile(name, deadline);
    }
    std::set<std::string> refused, denied;
};

// A file as a waiter killed 40 s ago would have left it.
void leaveDebris(const std::string& path) {
    writeFile(path, "1");
    ageFile(path, 40);
}

}  // namespace

// A holds 0, B waits at 1, C at 2; C is killed. Nobody ever queues past C's
// place again, so only B's release can clear it.
TEST(ExclusiveTidy, WaiterKilledAtTheEndOfTheLineLeavesNothing) {
    TempDir dir, work;
    Child a = worker(dir, {"--ready", work.file("a"), "--hold-until", work.file("a-go")});
    ASSERT_TRUE(waitFor([&] { return pathExists(work.file("a")); }, 20));
    Child b = worker(dir, {"--ready", work.file("b"), "--hold-until", work.file("b-go")});
    ASSERT_TRUE(waitFor([&] { return pathExists(level(dir, 1)); }, 20));
    Child c = worker(dir, {});
    ASSERT_TRUE(waitFor([&] { return pathExists(level(dir, 2)); }, 20));
    c.kill(SIGKILL);
    EXPECT_EQ(c.wait(10), 128 + SIGKILL);

    // A's release may find level 1 already left (B moves to 0 within a
    // polling cycle) and sweep; C's file is still fresh then and must stay.
    writeFile(work.file("a-go"));
    EXPECT_EQ(a.wait(20), 0);
    ASSERT_TRUE(waitFor([&] { return pathExists(work.file("b")); }, 20));
    EXPECT_TRUE(pathExists(level(dir, 2))) << "a file refreshed within 30 s was swept";
    ageFile(level(dir, 2), 40);
    writeFile(work.file("b-go"));
    EXPECT_EQ(b.wait(40), 0);
    EXPECT_TRUE(listDir(dir.path()).empty()) << "debris left behind";
}

// Behind a gap at level 1 stands a live waiter whose client caches attributes:
// its file looks 60 s old but its content changes every second. The sweep
// must watch it and leave it.
TEST(ExclusiveTidy, LiveFileBehindAGapIsKeptEvenWhenItLooksOld) {
    TempDir dir;
    const auto cached = boost::make_shared<CachedAttributesFS>(60);
    ovDirectoryExclusiveLock lock(dir.path(), "holder", cached);
    ASSERT_TRUE(lock.tryAcquire(true));
    ovLockFile live(level(dir, 2), pt::seconds(1), ovGetDefaultFSImp());
    ASSERT_TRUE(static_cast<bool>(live));
    leaveDebris(level(dir, 3));  // watched in the same window: each keeps its own verdict
    leaveDebris(level(dir, 4));
    const int readsBefore = cached->contentReads;
    EXPECT_TRUE(lock.release());
    EXPECT_GT(cached->contentReads, readsBefore) << "the old-looking file was never watched";
    EXPECT_EQ(listDir(dir.path()), std::vector<std::string>{".deploy_lock.2"});
}

// Junk the releaser cannot remove (another user's file in a sticky
// directory, a directory it may not write to) costs the first release one
// watch of all candidates together and one warning each; later releases
// leave it alone. Something new at such a name (a dead waiter's file) is
// judged afresh.
TEST(ExclusiveTidy, JunkThatStaysCostsOneWatchAndOneWarning) {
    TempDir dir;
    const auto fs = boost::make_shared<RefusingFS>();
    ovDirectoryExclusiveLock lock(dir.path(), "holder", fs);
    LogCapture warnings(warning);
    const int junk[] = {2, 3, 4};
    for (int n : junk) leaveDebris(level(dir, n));
    fs->refused = {level(dir, 2), level(dir, 3)};
    fs->denied = {level(dir, 4)};
    leaveDebris(level(dir, 5));
    const double t0 = monotonicSeconds();
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(lock.tryAcquire(true));
        EXPECT_TRUE(lock.release());
    }
    // One after another and on every release: (4 + 3 + 3) watches of 3.5 s.
    EXPECT_LT(monotonicSeconds() - t0, 9.0);
    EXPECT_FALSE(pathExists(level(dir, 5)));
    const std::string said = warnings.text();
    for (int n : junk) {
        const std::string line = "failed to remove " + level(dir, n) + "(390)";
        EXPECT_NE(said.find(line), std::string::npos) << said;
        EXPECT_EQ(said.find(line), said.rfind(line)) << "reported more than once: " << said;
    }

    ASSERT_EQ(::unlink(level(dir, 3).c_str()), 0);
    leaveDebris(level(dir, 3));
    fs->refused = {level(dir, 2)};
    ASSERT_TRUE(lock.tryAcquire(true));
    EXPECT_TRUE(lock.release());
    EXPECT_FALSE(pathExists(level(dir, 3)));
    EXPECT_TRUE(pathExists(level(dir, 2)));
}

// Only plain levels of 2 and up are judged, and only with level 1 empty.
TEST(ExclusiveTidy, SweepsOnlyPlainLevelsAndOnlyWithLevel1Empty) {
    TempDir dir;
    ovDirectoryExclusiveLock lock(dir.path(), "holder");
    LogCapture warnings(warning);

    ASSERT_TRUE(lock.tryAcquire(true));
    leaveDebris(level(dir, 1));
    leaveDebris(level(dir, 3));
    EXPECT_TRUE(lock.release());
    EXPECT_TRUE(pathExists(level(dir, 3))) << "level 1 is the next waiter's business";
    ASSERT_EQ(::remove(level(dir, 1).c_str()), 0);

    const std::vector<std::string> foreign{".deploy_lock.+4", ".deploy_lock.03", ".deploy_lock.1024",
                                           ".deploy_lock.3x", ".deploy_lock.x"};
    for (const std::string& name : foreign) leaveDebris(dir.file(name));
    ASSERT_TRUE(lock.tryAcquire(true));
    EXPECT_TRUE(lock.release());
    EXPECT_EQ(listDir(dir.path()), foreign);
    EXPECT_EQ(warnings.text(), "");
}

// The release has happened before the sweep starts: neither an interruption
// during the watch nor a vanished directory may turn it into a failure.
TEST(ExclusiveTidy, SweepFailuresNeverFailTheRelease) {
    TempDir dir, away;
    {
        ovDirectoryExclusiveLock lock(dir.path(), "holder");
        ASSERT_TRUE(lock.tryAcquire(true));
        leaveDebris(level(dir, 2));
        bool released = false, threw = false;
        boost::thread t([&] {
            try {
                released = lock.release();
            } catch (...) {
                threw = true;
            }
        });
        usleep(300 * 1000);  // well inside the ~3.5 s watch of level 2
        t.interrupt();
        ASSERT_TRUE(t.timed_join(pt::seconds(30)));
        EXPECT_TRUE(released);
        EXPECT_FALSE(threw);
        EXPECT_TRUE(pathExists(level(dir, 2))) << "the sweep went on after the interruption";
        EXPECT_FALSE(pathExists(level(dir, 0)));
        EXPECT_FALSE(lock.release()) << "nothing is held any more";
    }

    const std::string moved = away.file("moved");
    ovDirectoryExclusiveLock lock(dir.path(), "holder");
    ASSERT_TRUE(lock.tryAcquire(true));
    ASSERT_EQ(::rename(dir.path().c_str(), moved.c_str()), 0);
    LogCapture warnings(warning);
    EXPECT_NO_THROW(EXPECT_TRUE(lock.release()));
    EXPECT_TRUE(warnings.contains("(390)")) << warnings.text();
    ASSERT_EQ(::rename(moved.c_str(), dir.path().c_str()), 0);  // TempDir cleans up its own path
}
