#ifndef ORVANE_RW_LOCK_H
#define ORVANE_RW_LOCK_H

// Shared (reader) and exclusive (writer) access to a directory. Each reader
// holds a ".deploy_read_lock.<n>" file, the writer ".deploy_write_lock"; the
// check-and-create step runs under the directory's exclusive lock.

#include <chrono>
#include <string>
#include <utility>

#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <boost/shared_ptr.hpp>

#include "orvane/chrono_bridge.h"
#include "orvane/exclusive_lock.h"
#include "orvane/export.h"
#include "orvane/fs.h"
#include "orvane/lock_file.h"
#include "orvane/path_string.h"

OV_API extern std::string READ_LOCK_BASE;   // ".deploy_read_lock."
OV_API extern std::string WRITE_LOCK_BASE;  // ".deploy_write_lock"

// Creates a read-lock file named by this process's number sequence (pid,
// 2*pid, ... modulo 2038074743). Returns {created, last name tried}.
OV_API std::pair<bool, std::string> createReadLock(const ovPathString& dir,
                                                   const boost::shared_ptr<ovAbstractFS>& fs);

// Runs a cleanup callable when it goes out of scope, unless disarmed.
class OV_API ovCleanupFunctionGuard {
public:
    struct Function {
        virtual ~Function() {}
        virtual void operator()() = 0;
    };
    template <class F>
    struct FunctionAdapter : Function {
        explicit FunctionAdapter(const F& f) : f_(f) {}
        void operator()() override { f_(); }
        F f_;
    };

    explicit ovCleanupFunctionGuard(Function* f = 0) : f_(f) {}
    template <class F>
    static Function* make(const F& f) { return new FunctionAdapter<F>(f); }
    ~ovCleanupFunctionGuard() {
        if (f_) {
            (*f_)();
            delete f_;
        }
    }
    void disarm() {
        delete f_;
        f_ = 0;
    }

private:
    ovCleanupFunctionGuard(const ovCleanupFunctionGuard&);
    ovCleanupFunctionGuard& operator=(const ovCleanupFunctionGuard&);
    Function* f_;
};

class OV_API ovDirectoryReadWriteLock {
public:
    class WriteLock;

    // A reader's handle; copies share one state.
    class OV_API ReadLock {
    public:
        struct Impl;

        ReadLock(const ovPathString& dir, const boost::shared_ptr<ovAbstractFS>& fs);
        // Adopts an existing, held read-lock file (used by downgrade).
        ReadLock(const boost::shared_ptr<ovLockFile>& lockFile,
                 const boost::shared_ptr<ovAbstractFS>& fs);
        ~ReadLock();

        bool isAcquired() const;
        // Loss of a held lock (see ovLockFile::isLost): false when not held
        // or taken with noRefresh. The callback is kept by the handle and
        // installed on every lock file it holds, at once on a held one; it
        // runs on the refresh thread, may call isLost()/getLossReason(), and
        // must not release the lock or destroy the handle's last copy.
        // Releasing a lock lost to another holder returns true and leaves
        // their file alone.
        bool isLost() const;
        ovLockLossReason getLossReason() const;
        void setLostCallback(const ovLockLostCallback& callback);
        bool acquire(const boost::posix_time::time_duration& timeout, bool noRefresh = false);
        bool tryAcquire(bool noRefresh = false);
        bool acquire(bool noRefresh = false);
        bool release(const boost::posix_time::time_duration& timeout);
        bool release();

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
        bool timedLock_(const boost::posix_time::time_duration& timeout);

        boost::shared_ptr<Impl> impl;
        boost::shared_ptr<ovAbstractFS> fs;
    };

    // A writer's handle; copies share one state.
    class OV_API WriteLock {
    public:
        struct Impl;

        WriteLock(const ovPathString& dir, const boost::shared_ptr<ovAbstractFS>& fs);
        ~WriteLock();

        bool isAcquired() const;
        // Loss of a held lock (see ovLockFile::isLost): false when not held
        // or taken with noRefresh. The callback is kept by the handle and
        // installed on every lock file it holds, at once on a held one; it
        // runs on the refresh thread, may call isLost()/getLossReason(), and
        // must not release the lock or destroy the handle's last copy.
        // Releasing a lock lost to another holder returns true and leaves
        // their file alone.
        bool isLost() const;
        ovLockLossReason getLossReason() const;
        void setLostCallback(const ovLockLostCallback& callback);
        bool acquire(const boost::posix_time::time_duration& timeout, bool noRefresh = false);
        bool tryAcquire(bool noRefresh = false);
        bool acquire(bool noRefresh = false);
        bool release(const boost::posix_time::time_duration& timeout);
        bool release();

        // Turns the held write lock into a read lock with no gap in between.
        ReadLock downgrade(const boost::posix_time::time_duration& timeout);
        ReadLock tryDowngrade();
        ReadLock downgrade();

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
        bool timedLock_(const boost::posix_time::time_duration& timeout);

        boost::shared_ptr<Impl> impl;
        boost::shared_ptr<ovAbstractFS> fs;
    };

    // Checks nothing and touches no file.
    ovDirectoryReadWriteLock(const std::string& dir,
                             const boost::shared_ptr<ovAbstractFS>& fs = ovGetDefaultFSImp());
    ~ovDirectoryReadWriteLock();

    ReadLock getReadLock();   // a fresh, unheld handle
    WriteLock getWriteLock(); // a fresh, unheld handle

private:
    ovPathString directory;
    boost::shared_ptr<ovAbstractFS> fs;
};

#endif
