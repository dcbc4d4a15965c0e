// The one take-over that waits out the real 30 seconds without any help.

#include <signal.h>

#include <gtest/gtest.h>

#include "lock_test_util.h"
#include "test_support.h"

using namespace ovtest;

TEST(ExclusiveSlow, KilledHolderIsTakenOverAfterThirtySeconds) {
    TempDir dir, work;
    const std::string worker = std::string(ORVANE_WORKER_DIR) + "/exclusive_worker";
    Child holder = spawn({worker, "--dir", dir.path(), "--crash", "--ready", work.file("held")});
    ASSERT_TRUE(waitFor([&] { return pathExists(work.file("held")); }, 20));
    holder.kill(SIGKILL);
    holder.wait(10);
    const double killed = monotonicSeconds();

    Child heir = spawn({worker, "--dir", dir.path(), "--timeout-ms", "90000", "--ready",
                        work.file("heir")});
    ASSERT_TRUE(waitFor([&] { return pathExists(work.file("heir")); }, 80));
    const double waited = monotonicSeconds() - killed;
    // Not before the file is 30 s old; well within a minute on a loaded machine.
    EXPECT_GE(waited, 28.0);
    EXPECT_LT(waited, 75.0);
    EXPECT_EQ(heir.wait(20), 0);
    EXPECT_TRUE(listDir(dir.path()).empty());
}
