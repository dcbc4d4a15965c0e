#ifndef ORVANE_TESTS_LOCK_RW_TEST_UTIL_H
#define ORVANE_TESTS_LOCK_RW_TEST_UTIL_H

// Helpers of the read/write lock tests: the worker program, lock files in a
// directory, worker results.

#include <dirent.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "log_capture.h"
#include "orvane/rw_lock.h"
#include "test_support.h"

namespace rwtest {

typedef ovDirectoryReadWriteLock::ReadLock ReadLock;
typedef ovDirectoryReadWriteLock::WriteLock WriteLock;

inline bool exists(const std::string& path) { return ::access(path.c_str(), F_OK) == 0; }

inline bool waitForFile(const std::string& path, double seconds = 60) {
    const double end = ovtest::monotonicSeconds() + seconds;
    while (!exists(path) && ovtest::monotonicSeconds() < end) ::usleep(2000);
    return exists(path);
}

inline std::vector<std::string> filesStartingWith(const std::string& dir, const std::string& prefix) {
    std::vector<std::string> names;
    if (DIR* d = ::opendir(dir.c_str())) {
        while (dirent* e = ::readdir(d))
            if (std::strncmp(e->d_name, prefix.c_str(), prefix.size()) == 0) names.push_back(e->d_name);
        ::closedir(d);
    }
    return names;
}

inline size_t readLockCount(const std::string& dir) { return filesStartingWith(dir, ".deploy_read_lock.").size(); }
inline bool writeLockExists(const std::string& dir) { return exists(dir + "/.deploy_write_lock"); }

// rw_worker with the given role and options.
inline ovtest::Child worker(const std::string& dir, const std::string& role, std::vector<std::string> args = {}) {
    args.insert(args.begin(), {std::string(ORVANE_WORKER_DIR) + "/rw_worker", "--dir", dir, "--role", role});
    return ovtest::spawn(args);
}

// A worker holding one lock of role until `go` exists, once it holds.
inline ovtest::Child holder(const std::string& dir, const std::string& role, const ovtest::TempDir& ctl) {
    ovtest::Child c = worker(dir, role, {"--ready", ctl.file("ready-" + role), "--hold-until", ctl.file("go")});
    waitForFile(ctl.file("ready-" + role));
    return c;
}

// A worker's "acquired=N failed=N overlaps=N" as a map.
inline std::map<std::string, long> readResult(const std::string& path) {
    std::map<std::string, long> r;
    std::istringstream in(ovtest::readFile(path));
    for (std::string item; in >> item;) {
        const std::string::size_type eq = item.find('=');
        if (eq != std::string::npos) r[item.substr(0, eq)] = std::atol(item.c_str() + eq + 1);
    }
    return r;
}

// Runs the workers started by start(i) for i < n; each must end normally
// having seen no overlap. Returns their acquisitions.
template <class Start>
std::vector<long> runAll(size_t n, Start start, const ovtest::TempDir& out, double timeout) {
    std::vector<ovtest::Child> workers;
    for (size_t i = 0; i < n; ++i) workers.push_back(start(i, out.file("r" + std::to_string(i))));
    std::vector<long> acquired;
    for (size_t i = 0; i < n; ++i) {
        EXPECT_EQ(0, workers[i].wait(timeout)) << "worker " << i;
        std::map<std::string, long> r = readResult(out.file("r" + std::to_string(i)));
        EXPECT_EQ(1u, r.count("overlaps")) << "worker " << i << " wrote no result";
        EXPECT_EQ(0, r["overlaps"]) << "worker " << i;
        acquired.push_back(r["acquired"]);
    }
    return acquired;
}

// One acquire by a reader or writer in a forked child, so that a hang, a
// crash or an escaping error shows as an outcome instead of taking the test
// process with it.
struct Attempt {
    bool writer = false;
    double seconds = 1.5;  // the acquire's time-out
    uid_t uid = 0;         // run as this uid (and gid) unless 0
    gid_t gid = 0;         // 0: same as uid
    std::function<boost::shared_ptr<ovAbstractFS>()> fs;  // null: the default
    std::string warningsTo;  // file to receive what the warning channel said
};
enum AttemptOutcome { kRefused = 0, kAcquired = 1, kAccessError = 2, kPermissionError = 3, kOtherError = 4 };
// Starts the attempt; its wait(a.seconds + 30) gives the outcome, or -1: no
// end within that time; 98: could not change user; 128 + N: killed by signal N.
inline ovtest::Child startAttempt(const std::string& dir, const Attempt& a) {
    return ovtest::forkChild([&]() -> int {
        if (a.uid != 0 && !ovtest::becomeUser(a.uid, a.gid ? a.gid : a.uid)) return 98;
        ovtest::LogCapture warnings(warning);
        int outcome = kOtherError;
        try {
            ovDirectoryReadWriteLock rw(dir, a.fs ? a.fs() : ovGetDefaultFSImp());
            const boost::posix_time::time_duration t = boost::posix_time::milliseconds(long(a.seconds * 1000));
            if (a.writer) {
                WriteLock lock = rw.getWriteLock();
                outcome = lock.acquire(t, true) && lock.release() ? kAcquired : kRefused;
            } else {
                ReadLock lock = rw.getReadLock();
                outcome = lock.acquire(t, true) && lock.release() ? kAcquired : kRefused;
            }
        } catch (const ovPermissionDenied&) {
            outcome = kPermissionError;
        } catch (const ovFileAccessError&) {
            outcome = kAccessError;
        } catch (...) {
        }
        if (!a.warningsTo.empty()) std::ofstream(a.warningsTo) << warnings.text();
        return outcome;
    });
}

inline int attemptInChild(const std::string& dir, const Attempt& a) { return startAttempt(dir, a).wait(a.seconds + 30); }

}  // namespace rwtest

#endif
