#ifndef ORVANE_TESTS_TOOLS_TOOL_RUNNER_H
#define ORVANE_TESTS_TOOLS_TOOL_RUNNER_H

// Runs the orvane-lock binary as a real process with its output in files.

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include "test_support.h"

namespace tooltest {

struct Outcome {
    int status;  // exit code, 128 + N for signal N, -1 on timeout
    std::string out, err;
};

// A running tool process, as root or as uid 65534; its output goes to fresh
// files until wait().
class Running {
public:
    explicit Running(const std::vector<std::string>& args, bool unprivileged = false);
    void signal(int sig) { child_.kill(sig); }
    Outcome wait(double timeoutSeconds = 60);

private:
    ovtest::TempDir outDir_;
    ovtest::Child child_;
};

inline Outcome runTool(const std::vector<std::string>& args, bool unprivileged = false) {
    return Running(args, unprivileged).wait();
}

// Polls pred every 10 ms until it holds or timeoutSeconds pass.
bool waitUntil(const std::function<bool()>& pred, double timeoutSeconds = 20);

// Names in a directory, sorted, without "." and "..".
std::vector<std::string> listDir(const std::string& dir);

bool exists(const std::string& path);

// Running, and not merely a zombie nobody reaped yet.
bool processAlive(pid_t pid);

// The tool's options followed by a COMMAND that starts `sleep 300` in the
// background, writes its pid to pidFile and waits for it; backgroundJob()
// reads that pid (0 if it never came).
std::vector<std::string> withBackgroundJob(std::vector<std::string> options, const std::string& pidFile);
pid_t backgroundJob(const std::string& pidFile);
// Whether the background job has gone within 5 s; it is killed either way.
bool backgroundJobGone(pid_t pid);

}  // namespace tooltest

#endif
