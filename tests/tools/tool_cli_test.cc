// orvane-lock's command line (parsing, usage errors, exit codes) and its
// status report (roles, ages by the file server's clock, JSON).

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <regex>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include "lock_status.h"
#include "options.h"
#include "orvane/export.h"
#include "tool_runner.h"

using namespace tooltest;

namespace {

TEST(ToolOptions, NumbersAreStrictPlainDecimals) {
    double s = -1;
    for (const char* good : {"0", "2.5", ".5", "5.", "007"}) EXPECT_TRUE(orvane_tool::parseSeconds(good, s)) << good;
    for (const char* bad : {"", ".", "-1", "+1", "1e3", "0x10", "nan", "inf", "1.2.3", " 1", "1s", "1,5"})
        EXPECT_FALSE(orvane_tool::parseSeconds(bad, s)) << bad;
    EXPECT_FALSE(orvane_tool::parseSeconds(std::string(400, '9'), s));  // not finite
    int code = -1;
    EXPECT_TRUE(orvane_tool::parseExitCode("255", code));
    EXPECT_EQ(255, code);
    for (const char* bad : {"256", "-1", "", "1x", "0255", "99999999999"})
        EXPECT_FALSE(orvane_tool::parseExitCode(bad, code)) << bad;

}

TEST(ToolCommandLine, HelpVersionAndBadUsage) {
    Outcome help = runTool({"--help"});
    EXPECT_EQ(0, help.status);
    EXPECT_NE(std::string::npos, help.out.find("Usage: orvane-lock"));
    EXPECT_EQ(std::string("orvane-lock ") + liborvane_version + "\n", runTool({"--version"}).out);

    // Bad usage exits 64 with a reason and the usage, and runs nothing.
    ovtest::TempDir dir;
    const std::string d = dir.path(), marker = dir.file("ran");
    const std::vector<std::vector<std::string>> cases = {
        {}, {d}, {"-w"}, {"-w", "-1", d, "touch", marker}, {"--timeout=", d, "touch", marker},
        {"-E", "256", d, "touch", marker}, {"--bogus", d, "touch", marker}, {"", "touch", marker},
        {"status"}, {"status", d, d}, {"status", "--yaml", d},
    };
    for (const auto& args : cases) {
        Outcome o = runTool(args);
        EXPECT_EQ(64, o.status) << args.size();
        EXPECT_EQ(0u, o.err.find("orvane-lock: ")) << o.err;
        EXPECT_NE(std::string::npos, o.err.find("Usage: orvane-lock")) << o.err;
    }
    EXPECT_EQ(std::vector<std::string>{}, listDir(d));
}

TEST(ToolCommandLine, ExitCodesOfCommandsAndDirectories) {
    // As uid 65534, for whom permission bits count (root ignores them).
    ovtest::TempDir dir, work;
    chmod(dir.path().c_str(), 0777);
    chmod(work.path().c_str(), 0755);
    const std::string script = work.file("script"), missing = work.file("missing"), file = work.file("plain");
    ovtest::writeFile(script, "#!/bin/sh\n");
    ovtest::writeFile(file);
    const struct {
        std::vector<std::string> args;
        int status;
        std::string stderrHas;
    } cases[] = {
        {{dir.path(), "true"}, 0, ""},
        {{dir.path(), "sh", "-c", "exit $#", "sh", "-x", "-w", "9"}, 3, ""},  // COMMAND keeps its options
        {{dir.path(), "sh", "-c", "kill -KILL $$"}, 128 + SIGKILL, ""},
        {{dir.path(), "no-such-command-zz"}, 127, "no-such-command-zz"},
        {{dir.path(), script}, 126, "script"},  // not executable
        {{missing, "true"}, 66, missing + ": no such directory"},
        {{file, "true"}, 66, "not a directory"},
        {{work.path(), "true"}, 77, work.path() + ": no write permission"},
    };
    for (const auto& c : cases) {
        for (const char* kind : {"-x", "-s", "-q"}) {
            std::vector<std::string> args{kind, "-w", "5"};
            args.insert(args.end(), c.args.begin(), c.args.end());
            Outcome o = runTool(args, true);
            EXPECT_EQ(c.status, o.status) << c.args[1] << " " << kind << o.err;
            EXPECT_NE(std::string::npos, o.err.find(c.stderrHas)) << o.err;
        }
    }
    EXPECT_EQ(std::vector<std::string>{}, listDir(dir.path()));
    EXPECT_EQ((std::vector<std::string>{"plain", "script"}), listDir(work.path()));
    EXPECT_EQ(66, runTool({"status", missing}).status);
}

TEST(ToolStatus, TableListsLockFilesInOrderWithAgesAndVerdicts) {
    ovtest::TempDir dir;
    EXPECT_EQ("No lock files in " + dir.path() + "\n", runTool({"status", dir.path()}).out);
    const struct {
        const char* name;
        const char* role;
        double age;
        const char* state;
    } files[] = {  // in the order listed: queue levels, the writer, readers by number
        {".deploy_lock.0", "queue holder", 0, "live"},  {".deploy_lock.2", "queue waiter", 100, "stale"},
        {".deploy_write_lock", "writer", 45, "stale"}, {".deploy_read_lock.77", "reader", 25, "live"},
        {".deploy_read_lock.1234", "reader", 3, "live"},
    };
    for (const auto& f : files) {
        ovtest::writeFile(dir.file(f.name));
        ovtest::ageFile(dir.file(f.name), f.age);
    }
    for (const char* other : {"notes.txt", ".deploy_lock.x", ".deploy_read_lock."}) ovtest::writeFile(dir.file(other));

    Outcome o = runTool({"status", dir.path()});
    ASSERT_EQ(0, o.status) << o.err;
    size_t from = 0;
    for (const auto& f : files) {
        const std::regex row(std::string("(^|\n)") + std::regex_replace(f.name, std::regex("\\."), "\\.") +
                             " +" + f.role + "( [0-9]+)? +(-?[0-9]+)s +" + f.state + " +silent\n");
        std::smatch m;
        const std::string rest = o.out.substr(from);
        ASSERT_TRUE(std::regex_search(rest, m, row)) << f.name << "\n" << o.out;
        EXPECT_NEAR(f.age, std::stol(m[3]), 2) << f.name;
        from += m.position(0) + m.length(0);
    }
    EXPECT_EQ(std::string::npos, o.out.find("notes.txt"));
    EXPECT_EQ(std::string::npos, o.out.find(".deploy_lock.x"));
    EXPECT_EQ(8u, listDir(dir.path()).size());  // measuring the clock left no probe behind
}

TEST(ToolStatus, JsonIsEscapedAndComplete) {
    EXPECT_EQ("\"a\\\"b\\\\c\\n\\t\\u0001\\u007f\xc3\xa9\"",
              orvane_tool::jsonString(std::string("a\"b\\c\n\t\x01\x7f\xc3\xa9")));
    ovtest::TempDir base;
    const std::string dir = base.file("we\"ird\\dir");
    ASSERT_EQ(0, mkdir(dir.c_str(), 0755));
    EXPECT_EQ("{\"directory\": " + orvane_tool::jsonString(dir) + ", \"stale_after_seconds\": 30, \"locks\": []}\n",
              runTool({"status", "--json", dir}).out);
    ovtest::writeFile(dir + "/.deploy_lock.3");
    ovtest::ageFile(dir + "/.deploy_lock.3", 60);
    const std::string one = runTool({"status", dir, "--json"}).out;
    EXPECT_TRUE(std::regex_search(one, std::regex("\"locks\": \\[\\{\"file\": \"\\.deploy_lock\\.3\", \"role\": "
                                                  "\"queue waiter\", \"level\": 3, \"age_seconds\": (5[89]|6[012]), "
                                                  "\"state\": \"stale\", \"refreshing\": false\\}\\]\\}\n$"))) << one;
}

// A file server whose clock runs ten minutes ahead of ours.
class FastClockFS : public ovNetworkFS {
public:
    time_t getFileLastModifiedTime(const char* path) override {
        return ovNetworkFS::getFileLastModifiedTime(path) + 600;
    }
};

TEST(ToolStatus, AgesFollowTheFileServersClockNotOurs) {
    // Read against our own clock, this file would look nine minutes young.
    ovtest::TempDir dir;
    ovtest::writeFile(dir.file(".deploy_read_lock.5"));
    ovtest::ageFile(dir.file(".deploy_read_lock.5"), 40);
    const auto files = orvane_tool::collectLockFiles(dir.path(), boost::make_shared<FastClockFS>());
    ASSERT_EQ(1u, files.size());
    EXPECT_NEAR(40, files[0].ageSeconds, 2);
    EXPECT_TRUE(files[0].stale);
}

}  // namespace
