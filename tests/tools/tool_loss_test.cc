// orvane-lock when the lock is lost while COMMAND runs, and `status` telling
// holders that still refresh their files from silent ones.

#include <signal.h>
#include <unistd.h>

#include <string>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include "test_support.h"
#include "tool_runner.h"
#include "tracking_fs.h"

using namespace tooltest;

namespace {

// A COMMAND that notes its start and a SIGTERM, and otherwise ends (status
// 3, noted in `ended`) when `go` appears or after 60 s.
std::vector<std::string> command(const std::string& work) {
    const std::string script = "trap 'echo > " + work + "/term; exit 0' TERM; echo > " + work +
                               "/started; i=0; while [ $i -lt 600 ] && [ ! -e " + work +
                               "/go ]; do sleep 0.1; i=$((i+1)); done; echo > " + work + "/ended; exit 3";
    return {"/bin/sh", "-c", script};
}

// Counts the owned refreshes that reach it.
class CountingFS : public ovNetworkFS {
public:
    using ovAbstractFS::refreshLockFile;
    int ownedRefreshes = 0, plainRefreshes = 0;
    ovOwnedRefreshResult refreshOwnedLockFile(const std::string& name, const boost::posix_time::ptime& deadline,
                                              const std::string& expected, const std::string& content) override {
        ++ownedRefreshes;
        return ovNetworkFS::refreshOwnedLockFile(name, deadline, expected, content);
    }
    bool refreshLockFile(const std::string& name, const boost::posix_time::ptime& deadline) override {
        ++plainRefreshes;
        return ovNetworkFS::refreshLockFile(name, deadline);
    }
};

}  // namespace

TEST(ToolLoss, LostLockIsReportedCommandHandledAndExitCodeDistinct) {
    const struct {
        const char* kind;
        const char* file;
        const char* onLost;  // null: the default
        bool termSeen;
        int commandEnd;  // after the loss: 0 by SIGTERM, -1 killed, 1 runs on until `go`
    } cases[] = {
        {"-q", ".deploy_lock.0", nullptr, true, 0},
        {"-x", ".deploy_write_lock", "--on-lost=term", true, 0},
        {"-s", "", "--on-lost=kill", false, -1},
        {"-q", ".deploy_lock.0", "--on-lost=ignore", false, 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.kind) + " " + (c.onLost ? c.onLost : "default"));
        ovtest::TempDir dir, work;
        std::vector<std::string> args = {c.kind};
        if (c.onLost) args.push_back(c.onLost);
        args.push_back(dir.path());
        for (const std::string& a : command(work.path())) args.push_back(a);
        Running tool(args);
        ASSERT_TRUE(waitUntil([&] { return exists(work.file("started")); }));
        std::string file = c.file;
        if (file.empty()) {  // the reader's numbered file
            for (const std::string& n : listDir(dir.path()))
                if (n.compare(0, 18, ".deploy_read_lock.") == 0) file = n;
        }
        ASSERT_FALSE(file.empty());
        // Another holder took the lock over: its content is not ours any more.
        ovtest::writeFile(dir.file(file), "another holder");
        if (c.commandEnd == 1) {
            // Ignored: COMMAND runs on, unsignalled, until it ends by itself.
            usleep(2000 * 1000);  // the loss is found within about a second
            EXPECT_FALSE(exists(work.file("ended"))) << "COMMAND was stopped";
            EXPECT_FALSE(exists(work.file("term")));
            ovtest::writeFile(work.file("go"));
        }
        const Outcome o = tool.wait(20);
        EXPECT_EQ(75, o.status) << o.err;
        EXPECT_NE(std::string::npos,
                  o.err.find("orvane-lock: lock on " + dir.path() + " lost (rewritten by another holder)"))
            << o.err;
        EXPECT_EQ(c.termSeen, exists(work.file("term")));
        EXPECT_EQ(c.commandEnd == 1, exists(work.file("ended")));
        // The new holder's file is left as it is.
        EXPECT_EQ("another holder", ovtest::readFile(dir.file(file)));
    }
}

// What COMMAND started in the background goes with it.
TEST(ToolLoss, LostLockStopsTheCommandsWholeProcessGroup) {
    ovtest::TempDir dir, work;
    Running tool(withBackgroundJob({"-q", dir.path()}, work.file("pid")));
    const pid_t grandchild = backgroundJob(work.file("pid"));
    ASSERT_GT(grandchild, 1);
    ovtest::writeFile(dir.file(".deploy_lock.0"), "another holder");
    const Outcome o = tool.wait(20);
    EXPECT_EQ(75, o.status) << o.err;
    EXPECT_TRUE(backgroundJobGone(grandchild)) << "COMMAND's background job runs on";
    EXPECT_EQ("another holder", ovtest::readFile(dir.file(".deploy_lock.0")));
}

// The tool's file system hands the owned refresh to the one it wraps, whose
// own check-and-write it is, and the held file is left to the lock.
TEST(ToolLoss, TrackingFileSystemForwardsTheOwnedRefreshAndSparesTheHeldFile) {
    ovtest::TempDir dir;
    const auto inner = boost::make_shared<CountingFS>();
    orvane_tool::TrackingFS fs(inner);
    const std::string held = dir.file("held"), queued = dir.file("queued");
    const auto in1s = ovSteadyNow() + boost::posix_time::seconds(1);
    EXPECT_EQ(ovRefreshFoundMissing, fs.refreshOwnedLockFile(held, in1s, "", "AAAAmine"));
    EXPECT_EQ(1, inner->ownedRefreshes);
    EXPECT_EQ(0, inner->plainRefreshes) << "the interface's two-call default ran";
    EXPECT_EQ(std::vector<std::string>{held}, fs.owned());

    fs.keepHeld();
    EXPECT_EQ(ovRefreshedOwned, fs.refreshOwnedLockFile(held, in1s, "AAAAmine", "BBBBmine"));
    ASSERT_TRUE(fs.createFile(queued.c_str()));
    EXPECT_EQ(std::vector<std::string>{queued}, fs.owned());
    // A take-over that finds a rival's content leaves the file theirs.
    const std::string rivals = dir.file("rivals");
    ovtest::writeFile(rivals, "RIVAL");
    EXPECT_EQ(ovRefreshFoundRewritten, fs.refreshOwnedLockFile(rivals, in1s, "dead", "CCCCmine"));
    EXPECT_TRUE(fs.removeOwned().empty());
    EXPECT_TRUE(exists(held)) << "the clean-up removed the held file";
    EXPECT_FALSE(exists(queued));
    EXPECT_EQ(ovtest::readFile(rivals), "RIVAL") << "the clean-up removed a rival's file";
}

TEST(ToolLoss, OnLostTakesOnlyItsThreeWords) {
    ovtest::TempDir dir;
    const Outcome o = runTool({"--on-lost=stop", dir.path(), "true"});
    EXPECT_EQ(64, o.status);
    EXPECT_NE(std::string::npos, o.err.find("invalid --on-lost 'stop'")) << o.err;
    EXPECT_EQ(0, runTool({"--on-lost=ignore", dir.path(), "true"}).status);
}

TEST(ToolLoss, StatusTellsARefreshingHolderFromASilentFile) {
    ovtest::TempDir dir;
    Running holder({"-q", dir.path(), "sleep", "60"});
    ASSERT_TRUE(waitUntil([&] { return exists(dir.file(".deploy_lock.0")); }));
    ovtest::writeFile(dir.file(".deploy_read_lock.9"), "left behind");  // nobody refreshes it

    const Outcome o = runTool({"status", dir.path()});
    ASSERT_EQ(0, o.status) << o.err;
    auto row = [&](const std::string& name) {
        const size_t at = o.out.find(name);
        return at == std::string::npos ? std::string() : o.out.substr(at, o.out.find('\n', at) - at);
    };
    EXPECT_NE(std::string::npos, row(".deploy_lock.0").find(" refreshing")) << o.out;
    EXPECT_NE(std::string::npos, row(".deploy_read_lock.9").find(" silent")) << o.out;

    const Outcome j = runTool({"status", "--json", dir.path()});
    EXPECT_NE(std::string::npos, j.out.find("\"live\", \"refreshing\": true}")) << j.out;
    EXPECT_NE(std::string::npos, j.out.find("\"refreshing\": false}")) << j.out;
    holder.signal(SIGTERM);
    holder.wait(20);
}
