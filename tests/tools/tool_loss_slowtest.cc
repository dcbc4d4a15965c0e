// orvane-lock paused past the 20 s silence limit. Needs 21 s of real time.

#include <signal.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "test_support.h"
#include "tool_runner.h"

using namespace tooltest;

// Resumed, it learns of the silence before anything else, stops COMMAND's
// group and exits at once without releasing: the file server may be the
// reason for the silence, and the file ages out like a dead holder's.
TEST(ToolLossSlow, PausedPastTheSilenceLimitStopsTheCommandAndExitsAtOnce) {
    ovtest::TempDir dir, work;
    Running tool(withBackgroundJob({"-q", dir.path()}, work.file("pid")));
    const pid_t grandchild = backgroundJob(work.file("pid"));
    ASSERT_GT(grandchild, 1);
    tool.signal(SIGSTOP);
    usleep(21 * 1000 * 1000);
    tool.signal(SIGCONT);
    const double resumed = ovtest::monotonicSeconds();
    const Outcome o = tool.wait(30);
    EXPECT_EQ(75, o.status) << o.err;
    EXPECT_LT(ovtest::monotonicSeconds() - resumed, 5.0);
    EXPECT_NE(std::string::npos, o.err.find("lost (refresh failing)")) << o.err;
    EXPECT_TRUE(backgroundJobGone(grandchild)) << "COMMAND's background job runs on";
    EXPECT_TRUE(exists(dir.file(".deploy_lock.0"))) << "released after a silence";
}
