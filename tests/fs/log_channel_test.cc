// The diagnostic channels, switched once at load by the presence of their
// variables; checked in fresh processes.
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "orvane/log_channel.h"
#include "probe.h"

TEST(LogChannels, VariablesPresentAtLoadSwitchTheChannels) {
    struct Case {
        std::vector<std::string> args, env;
        std::string out, err;  // out starts with the verbose, warning, stale_log flags
    } cases[] = {
        {{"channels"}, {}, "flags 000\n", ""},
        // The value is never parsed: "0" and "no" count as set.
        {{"channels"}, {"ORVANE_FSLOCK_WARNING=0"}, "flags 010\n", "warning-line 2\n"},
        {{"channels"}, {"ORVANE_FSLOCK_STALE_LOG=no"}, "flags 001\nstale-line 3\n", ""},
        {{"channels"}, {"ORVANE_FSLOCK_VERBOSE="}, "flags 110\nverbose-line 1\n", "warning-line 2\n"},
        {{"channels"}, {"ORVANE_FSLOCK_VERBOSE=1", "ORVANE_FSLOCK_STALE_LOG="},
         "flags 111\nverbose-line 1\nstale-line 3\n", "warning-line 2\n"},
        {{"channels", "late"}, {}, "flags 000\n", ""},  // set after load: no effect
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.env.empty() ? c.args.back() : c.env[0]);
        const fstest::Run r = fstest::runProbe(c.args, c.env);
        EXPECT_EQ(0, r.status);
        EXPECT_EQ(c.out, r.out);
        EXPECT_EQ(c.err, r.err);
    }
}

TEST(LogChannels, EachInsertionTestsTheSwitch) {
    std::ostringstream sink;
    ovLogChannel ch = {true, &sink};
    ch << "a" << 1;
    ch.enabled = false;  // a host switching it off mid-line drops the rest
    ch << "b" << std::endl;
    ch.enabled = true;
    ch << std::string("c") << std::endl;
    EXPECT_EQ("a1c\n", sink.str());
}
