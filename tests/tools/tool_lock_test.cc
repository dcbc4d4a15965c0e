// orvane-lock processes against each other: exclusion, conflicts, and the
// signal paths, each of which must leave nothing behind in DIR.

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "tool_runner.h"

using namespace tooltest;

namespace {

const std::string kWriteLock = ".deploy_write_lock", kQueueHolder = ".deploy_lock.0";
typedef std::vector<std::string> Names;

// The lock file a holder of this kind keeps in DIR.
std::string holderFile(const std::string& kind) { return kind == "-q" ? kQueueHolder : kWriteLock; }

int readers(const std::string& dir) {
    int n = 0;
    for (const std::string& name : listDir(dir)) n += name.rfind(".deploy_read_lock.", 0) == 0;
    return n;
}

TEST(ToolLocking, ContendingToolProcessesNeverOverlap) {
    // Each critical section creates a marker with O_EXCL (noclobber); an
    // overlapping holder fails to, and its loop ends with 99.
    for (const char* kind : {"-x", "-q"}) {
        ovtest::TempDir dir, work;
        const std::string marker = work.file("inside");
        const std::string section = "set -C; : > '" + marker + "' || exit 99; sleep 0.05; rm -f '" + marker + "'";
        const std::string loop = std::string("for i in 1 2 3 4 5; do '") + ORVANE_LOCK_TOOL + "' " + kind + " '" +
                                 dir.path() + "' sh -c \"" + section + "\" || exit $?; done";
        std::vector<ovtest::Child> loops;
        for (int i = 0; i < 3; ++i) loops.push_back(ovtest::spawn({"/bin/sh", "-c", loop}));
        for (ovtest::Child& c : loops) EXPECT_EQ(0, c.wait(120)) << kind;
        EXPECT_EQ(Names{}, listDir(dir.path())) << kind;
    }
}

TEST(ToolLocking, ReadersShareWritersExcludeAndConflictsGiveTheirCode) {
    ovtest::TempDir dir;
    const std::string d = dir.path();
    Running r1({"-s", d, "sleep", "60"}), r2({"-s", d, "sleep", "60"});
    ASSERT_TRUE(waitUntil([&] { return readers(d) == 2; }));
    EXPECT_EQ(0, runTool({"-s", "-n", d, "true"}).status);
    EXPECT_EQ(1, runTool({"-x", "-n", d, "true"}).status);
    EXPECT_EQ(9, runTool({"-n", "-E", "9", d, "true"}).status);
    EXPECT_EQ(0, runTool({"-n", "-E", "0", d, "false"}).status);  // conflict reported as 0
    r1.signal(SIGTERM);
    r2.signal(SIGTERM);
    EXPECT_EQ(128 + SIGTERM, r1.wait(20).status);
    EXPECT_EQ(128 + SIGTERM, r2.wait(20).status);
    Running writer({d, "sleep", "60"});
    ASSERT_TRUE(waitUntil([&] { return listDir(d) == Names{kWriteLock}; }));
    EXPECT_EQ(1, runTool({"-s", "-n", d, "true"}).status);
    EXPECT_EQ(0, runTool({"-qn", d, "true"}).status);  // the queue lock is separate
    const double start = ovtest::monotonicSeconds();
    Outcome timed = runTool({"--timeout=0.4", "-v", d, "true"});
    EXPECT_EQ(1, timed.status);
    EXPECT_GE(ovtest::monotonicSeconds() - start, 0.35);
    EXPECT_NE(std::string::npos, timed.err.find("not obtained")) << timed.err;

    EXPECT_EQ(Names{kWriteLock}, listDir(d));  // nobody left anything next to the holder
    writer.signal(SIGTERM);                    // forwarded to sleep, which dies of it
    EXPECT_EQ(128 + SIGTERM, writer.wait(20).status);
    EXPECT_EQ(Names{}, listDir(d));
}

TEST(ToolLocking, SignalsStopWaitersAndReachTheHoldersCommand) {
    // Waiters get each signal, some while a read/write waiter holds the
    // level-0 file for its check; then the holder's command gets one, and
    // its trap checks that the lock file is still there.
    const struct {
        std::string waiter, holder;
        int sig;
        const char* name;
    } cases[] = {{"-q", "-q", SIGINT, "INT"}, {"-x", "-x", SIGTERM, "TERM"}, {"-s", "-x", SIGHUP, "HUP"}};
    const int sigs[] = {SIGINT, SIGTERM, SIGHUP};
    for (const auto& k : cases) {
        ovtest::TempDir dir, work;
        const std::string ready = work.file("ready"), lockFile = dir.file(holderFile(k.holder));
        Running holder({k.holder, dir.path(), "sh", "-c", "trap 'test -e \"" + lockFile + "\" && exit 3; exit 4' " +
                        k.name + "; touch '" + ready + "'; while :; do sleep 0.05; done"});
        ASSERT_TRUE(waitUntil([&] { return exists(ready); }));
        for (int i = 0; i < 9; ++i) {
            Running waiter({k.waiter, dir.path(), "touch", work.file("ran")});
            if (k.waiter == "-q")  // really standing in line
                ASSERT_TRUE(waitUntil([&] { return exists(dir.file(".deploy_lock.1")); }));
            else
                usleep(60000 + 37000 * i);
            waiter.signal(sigs[i % 3]);
            Outcome o = waiter.wait(20);
            EXPECT_EQ(128 + sigs[i % 3], o.status) << k.waiter << " " << i << o.err;
            EXPECT_FALSE(exists(work.file("ran")));
            EXPECT_TRUE(waitUntil([&] { return listDir(dir.path()) == Names{holderFile(k.holder)}; }, 5))
                << k.waiter << " " << i;
        }
        holder.signal(k.sig);
        EXPECT_EQ(3, holder.wait(20).status) << k.holder << " " << k.name;
        EXPECT_EQ(Names{}, listDir(dir.path()));
    }
}

TEST(ToolLocking, VerboseTracesAndNoRefreshLeavesTheFileAlone) {
    ovtest::TempDir dir;
    EXPECT_NE(std::string::npos,
              runTool({"-v", "-q", dir.path(), "true"}).out.find("Queuing for lock acquire in directory " + dir.path()));
    EXPECT_EQ("", runTool({"-q", dir.path(), "true"}).out);
    for (bool refresh : {true, false}) {  // refreshed every second, or never
        Running holder(refresh ? Names{"-q", dir.path(), "sleep", "2.6"}
                               : Names{"-q", "--no-refresh", dir.path(), "sleep", "2.6"});
        const std::string file = dir.file(kQueueHolder);
        struct stat first, later;
        ASSERT_TRUE(waitUntil([&] { return stat(file.c_str(), &first) == 0; }));
        usleep(2200000);
        ASSERT_EQ(0, stat(file.c_str(), &later));
        EXPECT_EQ(refresh, later.st_mtim.tv_sec * 1000000000LL + later.st_mtim.tv_nsec >
                               first.st_mtim.tv_sec * 1000000000LL + first.st_mtim.tv_nsec);
        EXPECT_EQ(0, holder.wait(20).status);
    }
    EXPECT_EQ(Names{}, listDir(dir.path()));
}

}  // namespace
