#include "tool_runner.h"

#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>

namespace tooltest {

Running::Running(const std::vector<std::string>& args, bool unprivileged) {
    std::vector<std::string> argv{ORVANE_LOCK_TOOL};
    argv.insert(argv.end(), args.begin(), args.end());
    const std::string out = outDir_.file("out"), err = outDir_.file("err");
    chmod(outDir_.path().c_str(), 0777);
    child_ = ovtest::forkChild([&]() -> int {
        const uid_t id = ovtest::kUnprivilegedId;
        if (unprivileged && (setgroups(0, nullptr) != 0 || setgid(id) != 0 || setuid(id) != 0)) return 95;
        const int o = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        const int e = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (o < 0 || e < 0 || dup2(o, 1) < 0 || dup2(e, 2) < 0) return 98;
        std::vector<char*> raw;
        for (const std::string& a : argv) raw.push_back(const_cast<char*>(a.c_str()));
        raw.push_back(nullptr);
        execv(raw[0], raw.data());
        return 98;
    });
}

Outcome Running::wait(double timeoutSeconds) {
    const int status = child_.wait(timeoutSeconds);
    return {status, ovtest::readFile(outDir_.file("out")), ovtest::readFile(outDir_.file("err"))};
}

bool waitUntil(const std::function<bool()>& pred, double timeoutSeconds) {
    const double end = ovtest::monotonicSeconds() + timeoutSeconds;
    while (!pred()) {
        if (ovtest::monotonicSeconds() > end) return false;
        usleep(10000);
    }
    return true;
}

std::vector<std::string> listDir(const std::string& dir) {
    std::vector<std::string> names;
    if (DIR* d = opendir(dir.c_str())) {
        while (struct dirent* e = readdir(d))
            if (std::string(".") != e->d_name && std::string("..") != e->d_name) names.push_back(e->d_name);
        closedir(d);
    }
    std::sort(names.begin(), names.end());
    return names;
}

bool exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

bool processAlive(pid_t pid) {
    if (kill(pid, 0) != 0) return false;
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    std::getline(stat, line);
    const size_t close = line.rfind(')');
    return close == std::string::npos || line.compare(close, 3, ") Z") != 0;
}

std::vector<std::string> withBackgroundJob(std::vector<std::string> options, const std::string& pidFile) {
    options.insert(options.end(), {"/bin/sh", "-c", "sleep 300 & echo $! > " + pidFile + "; wait"});
    return options;
}

bool backgroundJobGone(pid_t pid) {
    const bool gone = waitUntil([&] { return !processAlive(pid); }, 5);
    if (!gone) kill(pid, SIGKILL);
    return gone;
}

pid_t backgroundJob(const std::string& pidFile) {
    pid_t pid = 0;
    waitUntil([&] {
        std::ifstream in(pidFile);
        return static_cast<bool>(in >> pid);
    });
    return pid;
}

}  // namespace tooltest
