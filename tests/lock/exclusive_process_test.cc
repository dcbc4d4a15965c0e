// The exclusive lock between real processes (exclusive_worker).

#include <signal.h>

#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "lock_test_util.h"
#include "exclusive_test_util.h"
#include "test_support.h"

using namespace ovtest;

namespace {

using exctest::level;
using exctest::worker;

// A worker holding the lock until `work`/go exists.
Child holder(const TempDir& dir, const TempDir& work) {
    Child h = worker(dir, {"--ready", work.file("held"), "--hold-until", work.file("go")});
    EXPECT_TRUE(waitFor([&] { return pathExists(work.file("held")); }, 20)) << "holder never held";
    return h;
}

// A holder killed with SIGKILL, its level-0 file aged as if 40 s had passed.
void leaveDeadHolder(const TempDir& dir, const TempDir& work) {
    Child dead = worker(dir, {"--crash", "--ready", work.file("dead")});
    ASSERT_TRUE(waitFor([&] { return pathExists(work.file("dead")); }, 20));
    dead.kill(SIGKILL);
    EXPECT_EQ(dead.wait(10), 128 + SIGKILL);
    ASSERT_TRUE(pathExists(level(dir, 0)));
    ageFile(level(dir, 0), 40);
}

}  // namespace

TEST(ExclusiveProcesses, FourProcessesNeverOverlap) {
    TempDir dir, work;
    const std::string marker = work.file("marker"), result = work.file("result");
    std::vector<Child> workers;
    for (int i = 0; i < 4; ++i)
        workers.push_back(worker(dir, {"--iterations", "200", "--marker", marker, "--result", result}));
    for (Child& w : workers) EXPECT_EQ(w.wait(400), 0) << "2 means an overlap was seen";
    std::ifstream in(result);
    int acquired = 0, other = 0;
    for (std::string line; std::getline(in, line);) ++(line.rfind("acquired ", 0) == 0 ? acquired : other);
    EXPECT_EQ(acquired, 800);
    EXPECT_EQ(other, 0);
    EXPECT_FALSE(pathExists(marker));
    EXPECT_TRUE(listDir(dir.path()).empty()) << "level files left behind";
}

// Three contenders stand at levels 0, 1, 2 and each moves down one level
// when the one in front goes.
TEST(ExclusiveProcesses, WaitingLineMovesDownOneLevelAtATime) {
    TempDir dir, work;
    auto held = [&](int who) { return work.file("held" + std::to_string(who)); };
    auto go = [&](int who) { return work.file("go" + std::to_string(who)); };
    std::vector<Child> line;
    for (int who = 0; who < 3; ++who) {
        line.push_back(worker(dir, {"--ready", held(who), "--hold-until", go(who)}));
        ASSERT_TRUE(waitFor([&] { return pathExists(who == 0 ? held(0) : level(dir, who)); }, 20));
    }
    std::vector<std::string> expected{".deploy_lock.0", ".deploy_lock.1", ".deploy_lock.2"};
    EXPECT_EQ(listDir(dir.path()), expected);
    for (int who = 0; who < 3; ++who) {
        writeFile(go(who));
        EXPECT_EQ(line[who].wait(20), 0);
        expected.pop_back();
        ASSERT_TRUE(who == 2 || waitFor([&] { return pathExists(held(who + 1)); }, 20));
        EXPECT_TRUE(waitFor([&] { return listDir(dir.path()) == expected; }, 20)) << who;
        EXPECT_TRUE(who > 0 || !pathExists(held(2))) << "the last one jumped the line";
    }
}

TEST(ExclusiveProcesses, TimeoutsLeaveTheHolderAloneAndDestructionFrees) {
    TempDir dir, work;
    Child h = holder(dir, work);
    EXPECT_EQ(worker(dir, {"--timeout-ms", "0"}).wait(20), 1);    // tryAcquire
    EXPECT_EQ(worker(dir, {"--timeout-ms", "800"}).wait(20), 1);  // queues, then gives up
    EXPECT_EQ(listDir(dir.path()), std::vector<std::string>{".deploy_lock.0"});
    EXPECT_TRUE(h.running());
    writeFile(work.file("go"));
    EXPECT_EQ(h.wait(20), 0);

    // Destroying a held lock object frees the directory at once.
    EXPECT_EQ(worker(dir, {"--destroy-held"}).wait(20), 0);
    EXPECT_TRUE(listDir(dir.path()).empty());
    EXPECT_EQ(worker(dir, {"--timeout-ms", "0"}).wait(20), 0);
}

// Waiters whose file server's clock runs ten minutes off, or not at all: a
// live holder is never taken over, a killed one is once its file has aged.
TEST(ExclusiveProcesses, KilledHolderIsTakenOverLiveOneNeverWhateverTheServerClock) {
    for (const char* skew : {"0", "600", "-600"}) {
        TempDir dir, work;
        Child h = holder(dir, work);
        EXPECT_EQ(worker(dir, {"--skew", skew, "--timeout-ms", "2500"}).wait(30), 1) << skew;
        writeFile(work.file("go"));
        EXPECT_EQ(h.wait(20), 0);

        leaveDeadHolder(dir, work);
        Child heir = worker(dir, {"--skew", skew, "--timeout-ms", "30000", "--ready", work.file("heir"),
                                  "--hold-until", work.file("heir-go")});
        ASSERT_TRUE(waitFor([&] { return pathExists(work.file("heir")); }, 30)) << skew;
        EXPECT_EQ(listDir(dir.path()), std::vector<std::string>{".deploy_lock.0"});
        ageFile(level(dir, 0), 100);
        EXPECT_TRUE(waitFor([&] { return ageOf(level(dir, 0)) < 10; }, 5)) << "heir does not refresh";
        writeFile(work.file("heir-go"));
        EXPECT_EQ(heir.wait(20), 0);
        EXPECT_TRUE(listDir(dir.path()).empty());
    }
}
