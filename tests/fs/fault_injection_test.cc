// Retry counts and errno mapping, with the system calls really failing:
// fs_probe runs under the fault shim, whose log counts failed and passed calls.
#include <errno.h>
#include <unistd.h>

#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "probe.h"
#include "test_support.h"

namespace {

int logCount(const std::string& log, const std::string& wanted) {
    std::istringstream in(ovtest::readFile(log));
    int n = 0;
    for (std::string line; std::getline(in, line);) n += line.compare(0, wanted.size(), wanted) == 0;
    return n;
}

std::string withPath(std::string s, const std::string& path) {
    const std::string::size_type at = s.find('$');
    return at == std::string::npos ? s : s.replace(at, 1, path);
}

}  // namespace

TEST(FaultInjection, RetryCountsAndErrorsOfEachOperation) {
    const std::string noPerm = "throw ovPermissionDenied|Tried to obtain a lock on a directory without write permission: $";
    const struct {
        std::vector<std::string> args;  // the path goes after the first; remove/refresh: deadline in ms;
                                        // create with a second word: the file exists
        int error;
        long count;    // failing calls; -1: all
        std::string env, out, err;  // "$" stands for the path; out: its start
        int injected;  // -1: more than two (retried until the deadline)
        int passed;
        long minMs;
        bool fileRemains;
    } cases[] = {
        {{"create"}, EACCES, -1, "", noPerm, "", 51, 0, 450, false},  // 50 retries of 10 ms
        {{"create"}, EACCES, 1, "", "result 1", "", 1, 1, 0, true},
        {{"create"}, EIO, -1, "", "throw ovFileAccessError|File system error occurred: Exclusive create failed on $"
                                  " (reason: " + std::string(std::strerror(EIO)) + ")", "", 1, 0, 0, false},
        // An sftp mount's answer to a lost exclusive-create race: EPERM about
        // a name that exists is "already there"; about a name gone again by
        // the time we look, a reason to try once more; only one that keeps
        // coming (9 tries) about a missing name is a fault.
        {{"create", "existing"}, EPERM, -1, "", "result 0", "", 1, 0, 0, true},
        {{"create"}, EPERM, 1, "", "result 1", "", 1, 1, 0, true},
        {{"create"}, EPERM, -1, "", "throw ovFileAccessError|File system error occurred: Exclusive create failed on $"
                                   " (reason: " + std::string(std::strerror(EPERM)) + ")", "", 9, 0, 0, false},
        {{"remove", "300"}, EBUSY, -1, "", "result 0", "", -1, 0, 290, true},
        {{"remove", "30000"}, EBUSY, 3, "", "result 1", "", 3, 1, 0, false},
        {{"remove", "30000"}, EACCES, -1, "", noPerm, "", 1, 0, 0, true},  // only EBUSY is retried
        {{"remove", "30000"}, EIO, -1, "", "result 0", "", 1, 0, 0, true},
        {{"remove-interrupted"}, EBUSY, -1, "", "throw boost::thread_interrupted|", "", -1, 0, 0, true},
        {{"refresh", "30000"}, EACCES, -1, "", noPerm, "", 51, 0, 450, true},
        {{"refresh", "200"}, EIO, -1, "ORVANE_FSLOCK_WARNING=1", "result 0",
         "FS_LOCK: failed to refresh lock file: $\n", -1, 0, 190, true},
        {{"refresh", "30000"}, EIO, 2, "ORVANE_FSLOCK_VERBOSE=",
         "Touching lock file...\nLock successfully refreshed\nresult 1", "", 2, 1, 0, true},
    };
    for (const auto& c : cases) {
        ovtest::TempDir tmp;
        const std::string f = tmp.file("lock"), log = tmp.file("fault.log");
        SCOPED_TRACE(c.args[0] + " " + std::strerror(c.error) + " x" + std::to_string(c.count));
        if (c.args[0] != "create" || c.args.size() > 1) ovtest::writeFile(f, "held");
        std::vector<std::string> args = c.args;
        args.insert(args.begin() + 1, f);
        const fstest::Run r = fstest::runProbe(
            args, {std::string("LD_PRELOAD=") + ORVANE_FAULT_SHIM, "ORVANE_FAULT_PATH=" + f,
                   "ORVANE_FAULT_ERRNO=" + std::to_string(c.error), "ORVANE_FAULT_COUNT=" + std::to_string(c.count),
                   "ORVANE_FAULT_LOG=" + log, c.env.empty() ? "ORVANE_NONE=" : c.env});
        EXPECT_EQ(0, r.status) << r.err;
        EXPECT_EQ(0u, r.out.find(withPath(c.out, f) + "\nelapsed_ms ")) << r.out;
        EXPECT_EQ(withPath(c.err, f), r.err);
        if (c.injected < 0) {
            EXPECT_GT(logCount(log, "inject "), 2);
        } else {
            EXPECT_EQ(c.injected, logCount(log, "inject "));
        }
        EXPECT_EQ(c.passed, logCount(log, "pass "));
        EXPECT_GE(r.elapsedMs, c.minMs);
        EXPECT_EQ(c.fileRemains, ::access(f.c_str(), F_OK) == 0);
    }
}
