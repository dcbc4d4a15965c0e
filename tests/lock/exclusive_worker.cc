// A contender for a directory's exclusive lock, for multi-process tests and
// stress runs: exclusive_worker --dir DIR [options]
//   --iterations N     acquisitions (1)      --hold-ms M / --pause-ms M  held / between (0)
//   --timeout-ms T     per acquisition: -1 no limit (default), 0 tryAcquire
//   --marker PATH      created O_EXCL right after acquiring, removed before release
//   --result PATH      appends "acquired|timeout|overlap PID I" per acquisition
//   --ready PATH       created once the first acquisition is held
//   --hold-until PATH  after the first acquisition, hold until PATH exists
//   --crash            after the first acquisition, sleep until killed
//   --destroy-held     after the first acquisition, destroy the held lock object
//   --no-refresh  --skew S (server clock S s ahead)  --owner NAME (tracing label)
// Exit status: 0 all acquired, 1 a timeout, 2 overlap, 3 usage, 4 lock error.

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <iostream>
#include <map>
#include <memory>
#include <string>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <boost/make_shared.hpp>

#include "lock_test_fs.h"
#include "orvane/exclusive_lock.h"

namespace pt = boost::posix_time;

namespace {

struct Options {
    std::string dir, marker, result, ready, holdUntil, owner;
    long iterations = 1, holdMs = 0, pauseMs = 0, timeoutMs = -1, skew = 0;
    bool noRefresh = false, crash = false, destroyHeld = false;
};

bool parse(int argc, char** argv, Options& o) {
    const std::map<std::string, std::string*> texts{
        {"--dir", &o.dir},     {"--marker", &o.marker},         {"--result", &o.result},
        {"--ready", &o.ready}, {"--hold-until", &o.holdUntil}, {"--owner", &o.owner}};
    const std::map<std::string, long*> numbers{
        {"--iterations", &o.iterations}, {"--hold-ms", &o.holdMs}, {"--pause-ms", &o.pauseMs},
        {"--timeout-ms", &o.timeoutMs},  {"--skew", &o.skew}};
    const std::map<std::string, bool*> flags{
        {"--no-refresh", &o.noRefresh}, {"--crash", &o.crash}, {"--destroy-held", &o.destroyHeld}};
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        const bool hasValue = i + 1 < argc;
        bool ok = true;
        char* end = nullptr;
        if (flags.count(a)) {
            *flags.at(a) = true;
        } else if (texts.count(a) && hasValue) {
            *texts.at(a) = argv[++i];
        } else if (numbers.count(a) && hasValue) {
            errno = 0;
            *numbers.at(a) = std::strtol(argv[++i], &end, 10);
            ok = errno == 0 && end != argv[i] && *end == '\0';
        } else {
            ok = false;
        }
        if (!ok) {
            std::cerr << "exclusive_worker: bad argument " << a << "\n";
            return false;
        }
    }
    return !o.dir.empty() && o.iterations >= 0;
}

void sleepMs(long ms) {
    if (ms > 0) usleep(static_cast<useconds_t>(ms) * 1000);
}

void appendLine(const std::string& path, const std::string& line) {
    if (path.empty()) return;
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    if (fd < 0) return;
    const std::string l = line + "\n";
    (void)!::write(fd, l.data(), l.size());  // one write: lines never interleave
    ::close(fd);
}

int run(const Options& o) {
    boost::shared_ptr<ovAbstractFS> fs = ovGetDefaultFSImp();
    if (o.skew != 0) fs = boost::make_shared<ovtest::SkewedFS>(o.skew);
    const std::string pid = std::to_string(static_cast<long>(getpid()));
    std::unique_ptr<ovDirectoryExclusiveLock> lock(
        new ovDirectoryExclusiveLock(o.dir, o.owner.empty() ? "worker-" + pid : o.owner, fs));
    int status = 0;
    for (long i = 0; i < o.iterations; ++i) {
        bool held;
        if (o.timeoutMs < 0) held = lock->acquire(o.noRefresh);
        else if (o.timeoutMs == 0) held = lock->tryAcquire(o.noRefresh);
        else held = lock->acquire(pt::milliseconds(o.timeoutMs), o.noRefresh);
        if (!held) {
            appendLine(o.result, "timeout " + pid + " " + std::to_string(i));
            status = 1;
            sleepMs(o.pauseMs);
            continue;
        }
        if (!o.marker.empty()) {
            const int fd = ::open(o.marker.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0644);
            if (fd < 0) {
                appendLine(o.result, "overlap " + pid + " " + std::to_string(i));
                return 2;  // leave the other holder's marker alone
            }
            ::close(fd);
        }
        appendLine(o.result, "acquired " + pid + " " + std::to_string(i));
        if (i == 0) appendLine(o.ready, "held");
        if (i == 0 && o.crash)
            for (;;) pause();
        sleepMs(o.holdMs);
        if (i == 0 && !o.holdUntil.empty())
            while (::access(o.holdUntil.c_str(), F_OK) != 0) sleepMs(10);
        if (!o.marker.empty()) ::unlink(o.marker.c_str());
        if (i == 0 && o.destroyHeld) {
            lock.reset();
            return status;
        }
        lock->release();
        sleepMs(o.pauseMs);
    }
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    Options o;
    if (!parse(argc, argv, o)) {
        std::cerr << "usage: exclusive_worker --dir DIR [options listed in its source]\n";
        return 3;
    }
    try {
        return run(o);
    } catch (const std::exception& e) {
        std::cerr << "exclusive_worker: " << e.what() << "\n";
        return 4;
    }
}
