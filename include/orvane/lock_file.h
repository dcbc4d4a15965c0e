#ifndef ORVANE_LOCK_FILE_H
#define ORVANE_LOCK_FILE_H

// One lock file kept fresh by a timer task, and the test that judges a lock
// file stale by the file server's clock rather than the local one.

#include <string>

#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <boost/function.hpp>
#include <boost/noncopyable.hpp>
#include <boost/shared_ptr.hpp>

#include "orvane/export.h"
#include "orvane/fs.h"
#include "orvane/path_string.h"
#include "orvane/timer.h"

// Why a holder's lock counts as lost.
enum ovLockLossReason {
    ovLockNotLost = 0,
    ovLockFileMissing,     // the file was gone at a refresh (it was recreated)
    ovLockFileRewritten,   // another holder wrote the file: it is theirs now
    ovLockRefreshFailing   // no refresh succeeded for more than 20 s
};

// "missing", "rewritten by another holder", "refresh failing"; "not lost"
// for ovLockNotLost and "unknown" for any other value.
OV_API const char* ovLockLossReasonText(ovLockLossReason r);

// Called once, when a holder's loss is found, on a thread of the lock file:
// its refresh thread, or its watchdog, which reports a silence of 20 s even
// while a refresh hangs in the file system (a frozen mount) or after the
// refresh thread ended by an error. Exactly one of them makes the call.
//
// It runs on a thread of the lock file, so it must NOT release the lock or
// destroy the lock object (either joins that very thread: the process
// ends). It should do something small: set a flag, notify a condition, write
// to a pipe. It must not throw; an exception from it is caught and dropped.
typedef boost::function1<void, ovLockLossReason> ovLockLostCallback;

namespace detail {
struct LockLossState;
}

class OV_API ovLockFile : private boost::noncopyable {
public:
    struct no_refresh_tag {};
    static const no_refresh_tag NO_REFRESH;

    // Creates or touches the file, then refreshes it every refreshInterval on
    // a timer thread (no thread for a special interval such as pos_infin, nor
    // for a zero or negative one).
    ovLockFile(const std::string& name, boost::posix_time::time_duration refreshInterval,
               const boost::shared_ptr<ovAbstractFS>& fs);
    // Creates or touches the file once; never refreshes it.
    ovLockFile(const std::string& name, const no_refresh_tag&,
               const boost::shared_ptr<ovAbstractFS>& fs);
    // Stops the refresh, then removes the file if it is still this holder's.
    // A refresh hung in the file system is waited for a few seconds at most;
    // the file is then left to age out, as it is after a silence of more than
    // 20 s unless its content shows it is still ours.
    ~ovLockFile();

    boost::posix_time::time_duration getRefreshInterval() const;
    std::string getName() const;
    // True while the file exists; throws ovNoSuchDirectory once its directory has gone.
    explicit operator bool() const;

    // Loss detection, refreshing form only: a no-refresh lock file has no
    // refresh to notice with and is never reported lost. Each refresh checks,
    // before writing, that the file still holds what this holder last wrote;
    // isLost() also notices at once, on the caller's thread, that no refresh
    // has succeeded for 20 s (a holder resumed after a long pause). Once lost,
    // always lost, with the first reason found. Once the file was seen
    // rewritten by someone else, whatever reason was found first, it is
    // theirs: it is no longer refreshed, and destroying this object leaves it
    // alone.
    bool isLost() const;
    ovLockLossReason getLossReason() const;
    // Replaces the callback. A loss already found is still reported once,
    // within a quarter of a second.
    void setLostCallback(const ovLockLostCallback& callback);

private:
    std::string name;
    boost::shared_ptr<ovTimerTask> refreshTask;
    boost::posix_time::time_duration refreshInterval;
    boost::shared_ptr<ovAbstractFS> fs;
    boost::shared_ptr<detail::LockLossState> loss;  // null for a no-refresh file
};

// One measurement of the file server's clock against this host's universal
// time, made by creating a probe file in the directory; translates file times
// (64-bit seconds) to universal time. `deadline` is on the steady time line
// (ovSteadyNow). A file time some 500 years or more from the probe's
// translates to +/- infinity.
class OV_API FileTimeCalibration {
public:
    FileTimeCalibration(const ovPathString& dir, const boost::posix_time::ptime& deadline,
                        const boost::shared_ptr<ovAbstractFS>& fs);
    boost::posix_time::ptime operator()(long fileTime) const;

private:
    boost::posix_time::ptime utcReference;
    long fileReference;
    boost::shared_ptr<ovAbstractFS> fs;
};

// Is a lock file older than maxAgeSeconds by the file server's clock? Also
// true for a file dated more than maxAgeSeconds ahead of it (a server clock
// stepped back, a hostile date): its age says nothing, and the locks judge
// such a file by watching its content before they act on it.
// Calibrates lazily on first use (the deadline, on the steady time line,
// bounds that probing only), and again after this host's wall clock has been
// set (universal time no longer keeps pace with the steady clock).
// Not synchronised: callers serialise their own use.
class OV_API ovLockFileIsStale {
public:
    ovLockFileIsStale(const ovPathString& dir, const boost::shared_ptr<ovAbstractFS>& fs);
    bool operator()(const char* lockFileName, long maxAgeSeconds,
                    const boost::posix_time::ptime& deadline);

private:
    ovPathString dir;
    boost::shared_ptr<boost::function1<boost::posix_time::ptime, long> > calibration;
    boost::posix_time::time_duration utcMinusSteady;  // at calibration
    boost::shared_ptr<ovAbstractFS> fs;
};

#endif
