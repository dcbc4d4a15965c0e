#ifndef ORVANE_EXCLUSIVE_LOCK_H
#define ORVANE_EXCLUSIVE_LOCK_H

// Mutual exclusion over a directory, across processes and hosts, built from
// numbered level files in the directory itself: level 0 is the lock, levels
// 1, 2, ... a waiting line. Dead holders are taken over after 30 seconds
// without refresh, judged by the file server's clock.

#include <chrono>
#include <string>

#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <boost/noncopyable.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/thread/condition_variable.hpp>
#include <boost/thread/mutex.hpp>

#include "orvane/chrono_bridge.h"
#include "orvane/export.h"
#include "orvane/fs.h"
#include "orvane/lock_file.h"
#include "orvane/log_channel.h"

class OV_API ovDirectoryExclusiveLock : private boost::noncopyable {
public:
    // Touches no file: a missing directory shows up at the first acquisition.
    // An empty fs means the default one.
    ovDirectoryExclusiveLock(const std::string& directory, const std::string& ownerName,
                             const boost::shared_ptr<ovAbstractFS>& fs = ovGetDefaultFSImp());
    // Runs no release step; a held level-0 file goes with its ovLockFile.
    ~ovDirectoryExclusiveLock();

    // ---- One level's file ----
    std::string getLockFileName(int level) const;
    bool lockFileExists(int level) const;
    bool createLockFileExclusive(int level) const;
    bool touchLockFile(int level, const boost::posix_time::ptime& deadline) const;
    bool removeLockFileWithTenacity(int level, const boost::posix_time::ptime& deadline) const;
    bool removeLockFileWithTenacity(int level) const;
    bool removeLockFile(int level) const;

    // ---- Acquisition and release; nesting is per object ----
    bool acquire(const boost::posix_time::time_duration& timeout, bool noRefresh = false);
    bool tryAcquire(bool noRefresh = false);
    bool acquire(bool noRefresh = false);
    bool release(const boost::posix_time::time_duration& timeout);
    bool release();

    // ---- Learning that a held lock was lost (see ovLockFile::isLost) ----
    // False when not held, and always for a lock taken with noRefresh.
    bool isLost() const;
    ovLockLossReason getLossReason() const;
    // Kept by the lock and installed on every level-0 file it takes; takes
    // effect at once on a held one. The callback's rules are those of
    // ovLockLostCallback: it runs on the refresh thread and must not release
    // or destroy this lock. Releasing a lock lost to another holder still
    // returns true, and leaves that holder's file alone.
    void setLostCallback(const ovLockLostCallback& callback);

    // ---- Standard lockable forms (std::lock_guard, std::unique_lock, ...) ----
    // Failures are reported as std::system_error, as a mutex would.
    void lock();
    bool try_lock();
    void unlock();
    template <class Rep, class Period>
    bool try_lock_for(const std::chrono::duration<Rep, Period>& d) {
        return timedLock_(ovToTimeDuration(d));
    }
    template <class Clock, class Duration>
    bool try_lock_until(const std::chrono::time_point<Clock, Duration>& t) {
        return timedLock_(ovTimeUntil(t));
    }

private:
    int queue(const boost::posix_time::ptime& deadline);
    bool timedLock_(const boost::posix_time::time_duration& timeout);

    mutable boost::mutex mutex;
    boost::condition_variable condition;
    bool busy;
    std::string directory;
    std::string ownerName;
    int holdCount;
    boost::shared_ptr<ovLockFile> lockFile;  // set and reset under `mutex` too
    ovLockFileIsStale staleTest;
    boost::shared_ptr<ovAbstractFS> fs;
    ovLockLostCallback lostCallback;  // under `mutex`
};

#endif
