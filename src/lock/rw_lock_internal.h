#ifndef ORVANE_LOCK_RW_LOCK_INTERNAL_H
#define ORVANE_LOCK_RW_LOCK_INTERNAL_H

// Pieces shared by the reader and the writer: the closed exception list of
// their public operations, the in-process serialisation, one check-and-create
// pass under the directory's exclusive lock, and the polling sleep.

#include <stdint.h>

#include <set>
#include <string>
#include <vector>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <boost/thread/locks.hpp>
#include <boost/thread/thread.hpp>
#include <boost/thread/mutex.hpp>

#include "common/only_throws.h"
#include "fs/error_messages.h"
#include "lock/held_lock_file.h"
#include "orvane/exclusive_lock.h"
#include "orvane/fs.h"
#include "orvane/lock_file.h"
#include "orvane/path_string.h"
#include "orvane/rw_lock.h"
#include "timer/steady_clock.h"

namespace detail {

// The only exceptions a reader's or writer's public operation lets out.
template <class F>
decltype(auto) rwLockOnlyThrows(F&& body) {
    return onlyThrows<boost::thread_interrupted, ovFileAccessError, ovPermissionDenied,
                      ovNoSuchDirectory>(std::forward<F>(body));
}

// One polling cycle; an interruption point like every wait of the library.
inline void sleepOnePollingCycle() { sleepFor(boost::posix_time::microseconds(5000)); }

// `dir` with `name` appended as one more component; an empty name still
// yields the directory with a trailing separator.
inline std::string joinLockName(const ovPathString& dir, const std::string& name) {
    ovPathString path(dir);
    path.append(ovPathString::bundle_type(name.c_str(), static_cast<unsigned long>(name.size())));
    return path.str();
}

// Readers and writers find each other's files only through pattern matching,
// which matches nothing for a pattern over 1024 bytes or with a "*" before
// its last part. In such a directory each side would exclude nobody, so the
// lock refuses it.
inline void requireMatchableLockNames(const ovPathString& dir) {
    const std::string::size_type longestPattern = 1024;
    const std::string readPattern = joinLockName(dir, READ_LOCK_BASE) + "*";
    const std::string writeLockPath = joinLockName(dir, WRITE_LOCK_BASE);
    const char* problem = 0;
    if (readPattern.size() > longestPattern || writeLockPath.size() > longestPattern)
        problem = "Directory name too long to find lock files in: ";
    else if (dir.str().find('*') != std::string::npos)
        problem = "Directory name with '*' cannot be searched for lock files: ";
    if (problem) throw ovFileAccessError(std::string(kFileAccessPrefix) + problem + dir.str());
}

// Wraps a lock file this process has just created exclusively in a held
// ovLockFile (refreshed every second unless noRefresh). Null when the lock
// file does not test true. If wrapping throws, the file is removed at once:
// nothing would refresh or remove it, and it would block others until stale.
inline boost::shared_ptr<ovLockFile> holdCreatedFile(const std::string& name, bool noRefresh,
                                                     const boost::shared_ptr<ovAbstractFS>& fs) {
    boost::shared_ptr<ovLockFile> file;
    try {
        if (noRefresh) {
            file.reset(new ovLockFile(name, ovLockFile::NO_REFRESH, fs));
        } else {
            file.reset(new ovLockFile(name, boost::posix_time::seconds(1), fs));
        }
    } catch (...) {
        try {
            fs->removeFile(name, steadyNow() + boost::posix_time::seconds(1));
        } catch (...) {
        }
        throw;
    }
    if (!*file) file.reset();
    return file;
}

// Holds a handle's timed mutex, waited for at most `timeout` by the steady
// clock (no limit for an infinite timeout), and gives it back on every
// way out.
class HandleMutexGuard {
public:
    HandleMutexGuard(boost::timed_mutex& m, const boost::posix_time::time_duration& timeout)
        : lock_(m, boost::defer_lock) {
        if (timeout.is_pos_infinity()) {
            lock_.lock();
        } else if (timeout.is_special()) {
            // not-a-date-time or minus infinity: no time at all
            lock_.try_lock();
        } else {
            // Relative, on the monotonic clock; a wait that comes back early
            // (see sleepFor) is taken up again for what is left.
            const boost::posix_time::ptime until = steadyNow() + timeout;
            while (!lock_.timed_lock(until - steadyNow()) && steadyNow() < until) {
            }
        }
    }
    bool owns() const { return lock_.owns_lock(); }

private:
    boost::unique_lock<boost::timed_mutex> lock_;
};

// What a reader's and a writer's handle hold, in this order: the in-process
// timed mutex, the directory's exclusive lock (empty owner name), the acquire
// count (0 or 1: a second acquire on a held handle fails), the directory, the
// held lock file, the staleness judge and the file system. Releasing and the
// held-state query are the same for both.
struct RwHandleState {
    RwHandleState(const ovPathString& dir, const boost::shared_ptr<ovAbstractFS>& fs_,
                  const boost::shared_ptr<ovLockFile>& held = boost::shared_ptr<ovLockFile>())
        : exclusive(dir.str(), std::string(), fs_),
          count(held ? 1 : 0),
          directory(dir),
          lockFile(held),
          staleTest(dir, fs_),
          fs(fs_) {}

    bool release(const boost::posix_time::time_duration& timeout) {
        HandleMutexGuard guard(mutex, timeout);
        if (!guard.owns() || count == 0) return false;
        count -= 1;
        // The last reference to the lock file stops its refresh and removes it.
        if (count == 0) lockFile.reset();
        return true;
    }

    bool isAcquired() {
        boost::unique_lock<boost::timed_mutex> lock(mutex);
        return count > 0;
    }

    // Called as an acquire starts: what one acquire learnt is not kept.
    void startAcquire() {
        warnedKept.clear();
    }

    boost::timed_mutex mutex;
    ovDirectoryExclusiveLock exclusive;
    int32_t count;
    ovPathString directory;
    HeldLockFile lockFile;  // its own mutex: see held_lock_file.h
    ovLockFileIsStale staleTest;
    boost::shared_ptr<ovAbstractFS> fs;
    // Stale files already reported as not removable during this acquire.
    std::set<std::string> warnedKept;
};

// What sits at a lock file's name, judged as the lock acts on it.
enum class EntryVerdict {
    Gone,  // nothing there (any more)
    Live,  // a holder's file, or anything too young to be called dead
    Stale  // older than 30 s by the file server's clock, and confirmed so
};

// Regular files (and whatever else a lock file's name can hold: a FIFO, a
// directory, a file we may not read) go through the handle's staleness judge
// and the content watch of confirmStale. A symbolic link is judged by its own
// modification time: following it would judge its target, or nothing at all
// for a dangling link or a loop, and no holder ever made it, so there is no
// content to watch.
EntryVerdict judgeLockEntry(RwHandleState& state, const std::string& name,
                            const boost::posix_time::ptime& deadline);

// judgeLockEntry for every entry one pass found, verdicts in the order of
// `names`: each is judged by its date first, then all that look stale are
// watched together in one window (confirmStaleAll).
std::vector<EntryVerdict> judgeLockEntries(RwHandleState& state, const std::vector<std::string>& names,
                                           const boost::posix_time::ptime& deadline);

// Removes a stale entry; true when it went (or had gone already). One that
// stays (another user's file in a sticky directory, no write permission) is
// reported on the warning channel with its owner, once per acquire.
bool removeStaleEntry(RwHandleState& state, const std::string& name,
                      const boost::posix_time::ptime& deadline);

// One check-and-create pass: the directory's exclusive lock is asked for with
// the time remaining before the deadline and is given back when the pass ends,
// however it ends.
class ExclusivePass {
public:
    ExclusivePass(ovDirectoryExclusiveLock& lock, const boost::posix_time::ptime& deadline)
        : lock_(lock), held_(lock.acquire(deadline - steadyNow(), false)) {}
    ~ExclusivePass() {
        if (!held_) return;
        try {
            lock_.release();
        } catch (...) {
            // Only reached while another exception is leaving the pass: that
            // one is the one to report.
        }
    }
    void release() {
        if (!held_) return;
        held_ = false;
        lock_.release();
    }

private:
    ExclusivePass(const ExclusivePass&);
    ExclusivePass& operator=(const ExclusivePass&);
    ovDirectoryExclusiveLock& lock_;
    bool held_;
};

}  // namespace detail

#endif
