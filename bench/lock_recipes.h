#ifndef ORVANE_BENCH_LOCK_RECIPES_H
#define ORVANE_BENCH_LOCK_RECIPES_H

// The locks the benchmarks race against each other: ours, and the usual
// file-based recipes a program would otherwise use on a shared directory.
//   oexcl     exclusive create, retried every 5 ms; unlink releases; no stale rule
//   mkdir     mkdir; the holder touches the directory every second; retried
//             every 5 ms; one untouched for 30 s is stale and removed
//   hardlink  the recipe for file systems whose exclusive create is not to be
//             trusted: link a unique file to the lock name, believe the link
//             count rather than link()'s answer; a lock file 30 s old is stale
//   flock     flock(2) LOCK_EX on a lock file
// acquire() takes a deadline on benchutil::nowNs()'s time line and answers
// false when it came first; any other failure throws std::runtime_error.
// The polling recipes retry whatever their attempt failed with, as such locks
// usually do: a network client may answer a create that lost a race with
// another client by an error other than EEXIST (sshfs says EPERM). Only an
// error still there at the deadline is thrown, to say why it was missed.

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>

#include <boost/date_time/posix_time/posix_time.hpp>

#include "bench_clock.h"
#include "orvane/exclusive_lock.h"
#include "orvane/rw_lock.h"

namespace benchutil {

const long long kRecipeRetryNs = 5000000;  // 5 ms between attempts
const time_t kRecipeStaleSeconds = 30;

inline std::runtime_error sysError(const char* what, const std::string& path) {
    return std::runtime_error(std::string(what) + " " + path + ": " + strerror(errno));
}

class LockRecipe {
public:
    virtual ~LockRecipe() {}
    virtual bool acquire(long long deadlineNs) = 0;
    virtual void release() = 0;
};

class OrvaneRecipe : public LockRecipe {
public:
    OrvaneRecipe(const std::string& dir, const std::string& owner,
                 const boost::shared_ptr<ovAbstractFS>& fs = ovGetDefaultFSImp())
        : lock_(dir, owner, fs) {}
    bool acquire(long long deadlineNs) override {
        const long long left = deadlineNs - nowNs();
        return lock_.acquire(boost::posix_time::microseconds(left > 0 ? left / 1000 : 0));
    }
    void release() override {
        if (!lock_.release()) throw std::runtime_error("release of a lock not held");
    }

private:
    ovDirectoryExclusiveLock lock_;
};

// One side of our read/write lock: a reader or a writer.
class OrvaneRwRecipe : public LockRecipe {
public:
    OrvaneRwRecipe(const std::string& dir, bool writer,
                   const boost::shared_ptr<ovAbstractFS>& fs = ovGetDefaultFSImp())
        : rw_(dir, fs), reader_(rw_.getReadLock()), writer_(rw_.getWriteLock()), isWriter_(writer) {}
    bool acquire(long long deadlineNs) override {
        const long long left = deadlineNs - nowNs();
        const boost::posix_time::time_duration t = boost::posix_time::microseconds(left > 0 ? left / 1000 : 0);
        return isWriter_ ? writer_.acquire(t) : reader_.acquire(t);
    }
    void release() override {
        if (!(isWriter_ ? writer_.release() : reader_.release()))
            throw std::runtime_error("release of a lock not held");
    }

private:
    ovDirectoryReadWriteLock rw_;
    ovDirectoryReadWriteLock::ReadLock reader_;
    ovDirectoryReadWriteLock::WriteLock writer_;
    bool isWriter_;
};

class OExclRecipe : public LockRecipe {
public:
    explicit OExclRecipe(const std::string& file) : file_(file) {}
    bool acquire(long long deadlineNs) override {
        for (;;) {
            const int fd = open(file_.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0644);
            if (fd >= 0) {
                close(fd);
                return true;
            }
            if (nowNs() >= deadlineNs) {
                if (errno == EEXIST) return false;
                throw sysError("create", file_);
            }
            sleepNs(kRecipeRetryNs);
        }
    }
    void release() override {
        if (unlink(file_.c_str()) != 0) throw sysError("unlink", file_);
    }

private:
    std::string file_;
};

class MkdirRecipe : public LockRecipe {
public:
    explicit MkdirRecipe(const std::string& path) : path_(path) {}
    ~MkdirRecipe() override { stopToucher(); }
    bool acquire(long long deadlineNs) override {
        for (;;) {
            if (mkdir(path_.c_str(), 0755) == 0) {
                startToucher();
                return true;
            }
            const int err = errno;
            struct stat st;
            if (stat(path_.c_str(), &st) == 0 && time(nullptr) - st.st_mtime > kRecipeStaleSeconds) {
                rmdir(path_.c_str());  // its holder stopped touching it: stale
                continue;
            }
            if (nowNs() >= deadlineNs) {
                if (err == EEXIST) return false;
                errno = err;
                throw sysError("mkdir", path_);
            }
            sleepNs(kRecipeRetryNs);
        }
    }
    void release() override {
        stopToucher();
        if (rmdir(path_.c_str()) != 0) throw sysError("rmdir", path_);
    }

private:
    void startToucher() {
        stop_ = false;
        toucher_ = std::thread([this] {
            for (;;) {
                std::unique_lock<std::mutex> lock(mutex_);
                if (wake_.wait_for(lock, std::chrono::seconds(1), [this] { return stop_; })) return;
                lock.unlock();  // a slow server must not hold up the release
                utimes(path_.c_str(), nullptr);
            }
        });
    }
    void stopToucher() {
        if (!toucher_.joinable()) return;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            stop_ = true;
        }
        wake_.notify_all();
        toucher_.join();
    }

    std::string path_;
    std::thread toucher_;
    std::mutex mutex_;
    std::condition_variable wake_;
    bool stop_ = false;
};

class HardlinkRecipe : public LockRecipe {
public:
    // `unique` must differ between all contenders on all hosts.
    HardlinkRecipe(const std::string& file, const std::string& unique)
        : file_(file), temp_(file + "." + unique) {}
    bool acquire(long long deadlineNs) override {
        const int fd = open(temp_.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0644);
        if (fd < 0) throw sysError("create", temp_);
        const bool wrote = write(fd, temp_.data(), temp_.size()) == static_cast<ssize_t>(temp_.size());
        close(fd);
        if (!wrote) throw sysError("write", temp_);
        for (;;) {
            struct stat st;
            // link()'s answer can be lost on the way back; the link count cannot.
            if (link(temp_.c_str(), file_.c_str()) == 0 ||
                (stat(temp_.c_str(), &st) == 0 && st.st_nlink == 2)) {
                unlink(temp_.c_str());
                return true;
            }
            if (stat(file_.c_str(), &st) == 0 && time(nullptr) - st.st_mtime > kRecipeStaleSeconds) {
                unlink(file_.c_str());  // past its lifetime: stale
                continue;
            }
            if (nowNs() >= deadlineNs) {
                unlink(temp_.c_str());
                return false;
            }
            sleepNs(kRecipeRetryNs);
        }
    }
    void release() override {
        if (unlink(file_.c_str()) != 0) throw sysError("unlink", file_);
    }

private:
    std::string file_, temp_;
};

class FlockRecipe : public LockRecipe {
public:
    explicit FlockRecipe(const std::string& file, int mode = LOCK_EX) : file_(file), mode_(mode) {
        // The deadline interrupts a blocking flock() by SIGALRM, which must
        // therefore not restart the call.
        struct sigaction sa;
        memset(&sa, 0, sizeof sa);
        sa.sa_handler = [](int) {};
        sigaction(SIGALRM, &sa, nullptr);
    }
    ~FlockRecipe() override {
        if (fd_ >= 0) close(fd_);
    }
    bool acquire(long long deadlineNs) override {
        fd_ = open(file_.c_str(), O_RDWR | O_CREAT, 0644);
        if (fd_ < 0) throw sysError("open", file_);
        for (;;) {
            const long long left = deadlineNs - nowNs();
            if (left <= 0) break;
            itimerval t = {{0, 0}, {static_cast<time_t>(left / 1000000000LL),
                                    static_cast<suseconds_t>(left % 1000000000LL / 1000 + 1)}};
            setitimer(ITIMER_REAL, &t, nullptr);
            const int r = flock(fd_, mode_);
            const int err = errno;
            t = itimerval{{0, 0}, {0, 0}};
            setitimer(ITIMER_REAL, &t, nullptr);
            if (r == 0) return true;
            if (err != EINTR) {
                errno = err;
                throw sysError("flock", file_);
            }
        }
        close(fd_);
        fd_ = -1;
        return false;
    }
    void release() override {
        const int r = flock(fd_, LOCK_UN);
        const int err = errno;
        close(fd_);
        fd_ = -1;
        if (r != 0) {
            errno = err;
            throw sysError("unlock", file_);
        }
    }

private:
    std::string file_;
    int mode_;
    int fd_ = -1;
};

}  // namespace benchutil

#endif
