// The exclusive lock's protocol. A contender takes the first free level of a
// waiting line of files (queue), then climbs: each exclusive create of the
// level below moves it one place forward and frees its old place. Level 0 is
// the lock. Only exclusive create, refresh, removal and the staleness test
// are used, so no server is needed; a file that stops being refreshed is
// taken over by the contender directly above it.

#include <stdint.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <time.h>

#include <algorithm>
#include <map>
#include <set>
#include <typeinfo>
#include <string>
#include <vector>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <boost/thread/exceptions.hpp>
#include <boost/thread/thread.hpp>

#include "common/only_throws.h"
#include "fs/posix_io.h"
#include "fs/refresh_counter.h"
#include "lock/stale_confirmation.h"
#include "orvane/exclusive_lock.h"
#include "orvane/path.h"
#include "timer/steady_clock.h"

namespace pt = boost::posix_time;

namespace {

// Every sleep of queueing and climbing. One create attempt and at most one
// file-time query per pass keep the load on the file server small.
const pt::time_duration kPollingCycle = pt::microseconds(5000);
const int kHighestQueueLevel = 1023;
// One's own queue file is refreshed at most once a second, so that its place
// never looks stale to the contender above.
const long kOwnFileRefreshMicros = 999999;
const long kStaleAgeSeconds = 30;
const pt::time_duration kHolderRefresh = pt::seconds(1);
// The tidy step after a release: room for one full content watch (about
// 3.5 s, all candidates together), and a short removal retry.
const pt::time_duration kTidyJudgeRoom = pt::seconds(4);
const pt::time_duration kTidyRemoveRoom = pt::seconds(1);
// Time given to one operation on a single file (a touch of one's own place, a
// removal, a take-over), whatever the acquisition's own deadline: a file that
// keeps failing must not hold a waiter past one polling round.
const pt::time_duration kOwnFileRoom = pt::seconds(1);

// Every wait is an interruption point of the thread library.
void sleepPollingCycle() { detail::sleepFor(kPollingCycle); }

// not-a-date-time has no meaning as a limit; it is taken as "do not wait".
pt::time_duration sanitize(const pt::time_duration& timeout) {
    return timeout.is_not_a_date_time() ? pt::time_duration(0, 0, 0, 0) : timeout;
}

// Serialises the acquire and release calls of one object by its busy flag.
// The mutex is held only around the flag, never during file work, so a call
// waiting here does not block another one's release for longer than that
// call's own file work.
class BusyScope {
public:
    BusyScope(boost::mutex& mutex, boost::condition_variable& condition, bool& busy)
        : mutex_(mutex), condition_(condition), busy_(busy) {}
    BusyScope(const BusyScope&) = delete;
    BusyScope& operator=(const BusyScope&) = delete;

    // False when the flag stayed set until the timeout; nothing else happens then.
    bool enter(const pt::time_duration& timeout) {
        const pt::ptime wakeUp = detail::steadyNow() + timeout;
        boost::unique_lock<boost::mutex> lock(mutex_);
        while (busy_) {
            if (timeout.is_pos_infinity()) {
                condition_.wait(lock);
            } else {
                const pt::time_duration left = wakeUp - detail::steadyNow();
                if (left <= pt::time_duration(0, 0, 0, 0)) return false;
                condition_.timed_wait(lock, left);  // relative: on the monotonic clock
            }
        }
        busy_ = true;
        entered_ = true;
        return true;
    }

    // Clears the flag whatever the call's outcome, exceptions included.
    ~BusyScope() {
        if (!entered_) return;
        {
            boost::lock_guard<boost::mutex> lock(mutex_);
            busy_ = false;
        }
        condition_.notify_one();
    }

private:
    boost::mutex& mutex_;
    boost::condition_variable& condition_;
    bool& busy_;
    bool entered_ = false;
};

// The level of a level-file path found by listing the directory, or -1 when
// the name is not exactly the prefix and a plain decimal level from 2 to the
// highest queue level (no sign, no leading zero, nothing after it). Anything
// else there is not ours to judge.
int tidyCandidateLevel(const std::string& path, const std::string& prefix) {
    const std::string::size_type slash = path.rfind('/');
    const std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
    if (name.compare(0, prefix.size(), prefix) != 0) return -1;
    const std::string digits = name.substr(prefix.size());
    if (digits.empty() || digits.size() > 4 || digits[0] == '0') return -1;
    int level = 0;
    for (char c : digits) {
        if (c < '0' || c > '9') return -1;
        level = level * 10 + (c - '0');
    }
    return level >= 2 && level <= kHighestQueueLevel ? level : -1;
}

// What a tidy sweep judged stale but could not remove (another user's file
// in a sticky directory, a directory we may not write to), by path and
// identity: device, inode and change time. Later sweeps in this process leave
// exactly that entry alone, so a release does not watch the same junk again
// and again and it is reported once; anything new at the name (another
// inode, or the same one rewritten, re-dated or emptied) is judged afresh.
// Process-wide: objects on one directory come and go, and the read/write
// lock releases one on every pass. Skipping removes nothing, so it can never
// cost a live waiter its place.
class KeptJunk {
public:
    struct Identity {
        dev_t dev;
        ino_t ino;
        struct timespec ctime;
    };
    // False when nothing is at path (or it cannot be looked at).
    static bool identify(const std::string& path, Identity& id) {
        struct stat st;
        if (::lstat(path.c_str(), &st) != 0) return false;
        id = Identity{st.st_dev, st.st_ino, st.st_ctim};
        return true;
    }
    bool contains(const std::string& path, const Identity& id) {
        boost::lock_guard<boost::mutex> g(m_);
        const auto it = kept_.find(path);
        return it != kept_.end() && same(it->second, id);
    }
    void add(const std::string& path, const Identity& id) {
        boost::lock_guard<boost::mutex> g(m_);
        if (kept_.size() >= kMaxKept) kept_.clear();  // forgetting only costs another watch
        kept_[path] = id;
    }

private:
    static bool same(const Identity& a, const Identity& b) {
        return a.dev == b.dev && a.ino == b.ino && a.ctime.tv_sec == b.ctime.tv_sec &&
               a.ctime.tv_nsec == b.ctime.tv_nsec;
    }
    static const size_t kMaxKept = 4096;
    boost::mutex m_;
    std::map<std::string, Identity> kept_;
};

KeptJunk& keptJunk() {
    static KeptJunk* k = new KeptJunk;  // never destroyed: a release may run during exit
    return *k;
}

// A waiter killed while queued leaves its file behind. Normally the one above
// it takes it over after 30 s; but a file with nobody behind it is never
// looked at again (newcomers take level 0 directly), so it would stay for ever.
// The holder that lets go is the one contender that knows the line in front
// is empty, so it sweeps the files above then.
//
// Only when level 1 is missing: a waiter there will move down and handle the
// line itself, and the ordinary hand-over then costs this one existence test.
// A missing level 1 with files above is not proof of death either (the waiter
// at 1 may just have moved to 0, or one at 2 is between its steps), so every
// candidate goes through the same staleness judge and content watch as a
// take-over: a live waiter refreshes its file every second and is never
// removed. All candidates are watched in one window, so the release pays one
// watch (about 3.5 s) however many there are, and none for junk it already
// failed to remove (KeptJunk). The release has already happened, so nothing
// here may undo or fail it: errors become warnings, an interruption ends the
// sweep.
void tidyAfterRelease(const ovDirectoryExclusiveLock& lock, ovLockFileIsStale& staleTest,
                      ovAbstractFS& fs) {
    std::string current = lock.getLockFileName(1);
    try {
        if (lock.lockFileExists(1)) return;

        const std::string level0 = lock.getLockFileName(0);
        const std::string dirPrefix = level0.substr(0, level0.size() - 1);
        const std::string namePrefix = dirPrefix.substr(dirPrefix.rfind('/') + 1);
        std::vector<int> levels;
        const auto keepLevel = [&](const char* path) {
            const int n = tidyCandidateLevel(path, namePrefix);
            if (n > 0) levels.push_back(n);
        };
        const ovStringProcedureAdapter<decltype(keepLevel)> collect(keepLevel);
        const ovIgnoreString ignore;
        current = dirPrefix + "*";
        fs.findMatchingFilesAndDirs(current.c_str(), collect, ignore, 0, false);
        std::sort(levels.begin(), levels.end());

        std::vector<int> stale;
        std::vector<std::string> names;
        std::vector<KeptJunk::Identity> ids;
        std::vector<bool> identified;
        for (int n : levels) {
            current = lock.getLockFileName(n);
            // A name we cannot look at directly (a file system that is not
            // the host's) is judged every time, as before.
            KeptJunk::Identity id{};
            const bool known = KeptJunk::identify(current, id);
            if (known && keptJunk().contains(current, id)) continue;
            try {
                if (!staleTest(current.c_str(), kStaleAgeSeconds, detail::steadyNow() + kTidyJudgeRoom))
                    continue;
            } catch (const ovFileNotFoundError&) {
                continue;  // its waiter moved on or gave up meanwhile
            }
            stale.push_back(n);
            names.push_back(current);
            ids.push_back(id);
            identified.push_back(known);
        }
        if (names.empty()) return;
        // A fresh deadline after the judge (whose first use calibrates): a
        // watch cut short could pass a live file on a caching client as
        // stale. Live and Gone leave the file to its owner.
        const std::vector<detail::StaleCheck> verdicts =
            detail::confirmStaleAll(fs, names, detail::steadyNow() + kTidyJudgeRoom);

        for (size_t i = 0; i < names.size(); ++i) {
            if (verdicts[i] != detail::StaleCheck::Stale) continue;
            current = names[i];
            stale_log << "FS_LOCK: removing stale lock " << current << std::endl;
            bool removed = false;
            try {
                removed = lock.removeLockFileWithTenacity(stale[i], detail::steadyNow() + kTidyRemoveRoom);
            } catch (const ovPermissionDenied&) {
                // A directory we may not write to: as for any file that stays.
            }
            if (removed) {
                stale_log << "FS_LOCK: removed stale lock " << current << std::endl;
            } else {
                // Site 390: a file left by a dead waiter that the releasing
                // holder could not remove.
                warning << "FS_LOCK: failed to remove " << current << "(390)" << std::endl;
                if (identified[i]) keptJunk().add(current, ids[i]);
            }
        }
    } catch (const boost::thread_interrupted&) {
        // Stop sweeping; the rest is left for a later release.
    } catch (...) {
        // Missing directory, unreadable file, anything: the sweep is a
        // courtesy, so it is reported, never passed on.
        warning << "FS_LOCK: failed to remove " << current << "(390)" << std::endl;
    }
}


// ---- Climbing the line -----------------------------------------------------
//
// A waiter at level L tries, once per polling cycle, to create level L-1
// exclusively; success moves it one place forward and frees its old place.
// Failure means someone is at L-1: a live contender (wait), or a dead one
// whose file stopped being refreshed, or junk (a link, a FIFO, a directory
// put there by anyone). The states of one pass:
//
//   create L-1 --ok--> step down (remove own L) --> next pass at once
//       | EEXIST
//   judge L-1 by its own date (lstat, server clock)
//       |-- gone meanwhile ---------> try again (at once, once in a row)
//       |-- fresh ------------------> sleep one cycle
//       |-- stale --> watch its content (stale_confirmation)
//                        |-- changed / gone --> sleep / try again
//                        |-- unchanged -----> take over:
//          regular file we read: rewrite it only if it still holds exactly
//            what we watched (one open: compare, then write); a rival's
//            take-over in between makes it theirs, and we wait
//          junk, another user's file, an empty file: judge its date once
//            more, remove it, and compete for the name by exclusive create;
//            where the directory forbids the removal, say so once and wait
//
// Every pass that makes no progress sleeps one polling cycle, so nothing at a
// lock name can make a waiter spin, and every wait ends at its deadline.
class Climb {
public:
    Climb(const ovDirectoryExclusiveLock& lock, ovAbstractFS& fs, ovLockFileIsStale& staleTest,
          const std::string& owner, const pt::ptime& deadline)
        : lock_(lock), fs_(fs), staleTest_(staleTest), owner_(owner), deadline_(deadline) {}

    // Climbs from level L; returns the level reached: 0 is the lock.
    int run(int L) {
        pt::ptime lastTouch = detail::steadyNow();
        sleepPollingCycle();
        bool retriedAtOnce = false;
        while (L > 0) {
            if ((detail::steadyNow() - lastTouch).total_microseconds() > kOwnFileRefreshMicros) {
                (void)lock_.touchLockFile(L, detail::steadyNow() + kOwnFileRoom);
                lastTouch = detail::steadyNow();
            }
            verbose << owner_ << ": Trying to acquire level " << (L - 1) << std::endl;
            if (lock_.createLockFileExclusive(L - 1)) {
                lastTouch = detail::steadyNow();
                verbose << owner_ << ": Success! removing level " << L << std::endl;
                stepDown(L, 310);
                --L;
                continue;
            }
            verbose << owner_ << ": Could not acquire; trying to detect stale lock at level " << (L - 1)
                    << std::endl;
            const Below below = judgeBelow(L - 1);
            if (below == Below::TakenOver) {
                lastTouch = detail::steadyNow();
                stepDown(L, 343);
                --L;
                continue;
            }
            if (detail::steadyNow() >= deadline_) break;
            // Released (or removed by us) just now: the create is worth
            // trying again at once, but not over and over.
            if (below == Below::Free && !retriedAtOnce) {
                retriedAtOnce = true;
                continue;
            }
            retriedAtOnce = false;
            verbose << owner_ << ": Sleeping" << std::endl;
            sleepPollingCycle();
        }
        return L;
    }

private:
    enum class Below { Busy, Free, TakenOver };

    void stepDown(int L, int site) {
        if (!lock_.removeLockFileWithTenacity(L, detail::steadyNow() + kOwnFileRoom))
            warning << "FS_LOCK: failed to remove " << lock_.getLockFileName(L) << "(" << site << ")" << std::endl;
    }

    bool staleByDate(const std::string& name) {
        try {
            return staleTest_(name.c_str(), kStaleAgeSeconds, deadline_);
        } catch (const ovFileNotFoundError&) {
            return false;  // gone: the caller sees that at its next create
        }
    }

    Below judgeBelow(int level) {
        const std::string below = lock_.getLockFileName(level);
        try {
            if (!staleTest_(below.c_str(), kStaleAgeSeconds, deadline_)) {
                detail::keepRecentRead(fs_, below);
                return Below::Busy;
            }
        } catch (const ovFileNotFoundError&) {
            return Below::Free;  // released between our create and the query
        }
        // A client that caches attributes sees a live holder's time tens of
        // seconds late; its content still changes with each refresh. Watch
        // it before acting.
        std::string seen;
        switch (detail::confirmStale(fs_, below, deadline_, &seen)) {
            case detail::StaleCheck::Gone: return Below::Free;
            case detail::StaleCheck::Live: return Below::Busy;
            case detail::StaleCheck::Stale: break;
        }
        stale_log << "FS_LOCK: stale lock detected: " << below << std::endl;
        return takeOver(level, below, seen);
    }

    Below takeOver(int level, const std::string& below, const std::string& seen) {
        if (!seen.empty()) {
            // Compare and write through one descriptor: only the dead
            // holder's file, exactly as watched, becomes ours.
            const uint32_t value = detail::nextRefreshValue();
            const std::string content(reinterpret_cast<const char*>(&value), sizeof value);
            try {
                switch (fs_.refreshOwnedLockFile(below, detail::steadyNow() + kOwnFileRoom, seen, content)) {
                    case ovRefreshedOwned:
                    case ovRefreshFoundMissing:  // gone, and created anew exclusively: ours too
                        return Below::TakenOver;
                    case ovRefreshFoundRewritten:
                        return Below::Busy;  // someone else's now: a rival's take-over, or a late refresh
                    case ovRefreshFailed:
                        break;
                }
            } catch (const ovPermissionDenied&) {
                // Another user's file, not writable by us: remove it instead.
            }
        }
        // Its date once more right before the removal: a rival that took the
        // name over meanwhile has a fresh file, which must stay.
        if (!staleByDate(below)) return Below::Busy;
        stale_log << "FS_LOCK: removing stale lock " << below << std::endl;
        if (lock_.removeLockFileWithTenacity(level, detail::steadyNow() + kOwnFileRoom)) {
            stale_log << "FS_LOCK: removed stale lock " << below << std::endl;
            return Below::Free;
        }
        // The message names our own level, not the stale one; kept as the
        // established wording of this site.
        warning << "FS_LOCK: failed to remove " << lock_.getLockFileName(level + 1) << "(334)" << std::endl;
        if (detail::entryPresent(below.c_str()) == 0 && warned_.insert(below).second)
            warning << "FS_LOCK: cannot take over stale lock " << below << ": owned by "
                    << detail::entryOwner(below.c_str())
                    << ", and this directory does not let us remove it; waiting" << std::endl;
        return Below::Busy;
    }

    const ovDirectoryExclusiveLock& lock_;
    ovAbstractFS& fs_;
    ovLockFileIsStale& staleTest_;
    const std::string& owner_;
    const pt::ptime deadline_;
    std::set<std::string> warned_;  // one "cannot take over" per file and acquisition
};

}  // namespace

int ovDirectoryExclusiveLock::queue(const pt::ptime& deadline) {
    verbose << "Queuing for lock acquire in directory " << directory << std::endl;
    for (int n = 0;; ++n) {
        if (lockFileExists(n)) {
            verbose << "Lock file exists at level " << n << ".  Going to next level..."
                    << std::endl;
        } else {
            // Level 0 is tried whatever the deadline; a place further back is
            // worth taking only if there is time to wait in it.
            if (n > 0 && deadline < detail::steadyNow() + kPollingCycle) return -1;
            verbose << "No lock found at level " << n << ".  Sleeping for one polling cycle..."
                    << std::endl;
            sleepPollingCycle();
            verbose << "Attempting to create queue file..." << std::endl;
            if (createLockFileExclusive(n)) {
                verbose << "queue file created at level " << n << std::endl;
                return n;
            }
            // Somebody else took it meanwhile: look further back.
        }
        if (n == kHighestQueueLevel) return -1;
    }
}

bool ovDirectoryExclusiveLock::acquire(const pt::time_duration& timeout_, bool noRefresh) {
    return detail::onlyThrows<boost::thread_interrupted, ovFileAccessError, ovNoSuchDirectory,
                              ovPermissionDenied>([&] {
        const pt::time_duration timeout = sanitize(timeout_);
        const pt::ptime deadline = detail::steadyNow() + timeout;
        BusyScope scope(mutex, condition, busy);
        if (!scope.enter(timeout)) return false;

        // Nesting is per object: any thread of the process shares the hold.
        if (holdCount > 0) {
            ++holdCount;
            return true;
        }

        int L = queue(deadline);
        try {
            if (L > 0 && detail::steadyNow() < deadline) L = Climb(*this, *fs, staleTest, ownerName, deadline).run(L);
            if (L == 0) {
                // Errors while making the lock file (no room to write it)
                // pass out, after our level-0 file went (below).
                boost::shared_ptr<ovLockFile> held(
                    noRefresh ? new ovLockFile(getLockFileName(0), ovLockFile::NO_REFRESH, fs)
                              : new ovLockFile(getLockFileName(0), kHolderRefresh, fs));
                // Judged before it is stored, so that an error here leaves the
                // object not held and the file is removed with `held`.
                if (*held) {
                    {
                        // Under the mutex: isLost() and setLostCallback() read
                        // lockFile without entering the busy flag.
                        boost::lock_guard<boost::mutex> guard(mutex);
                        if (lostCallback) held->setLostCallback(lostCallback);
                        lockFile = held;
                    }
                    holdCount = 1;
                    return true;
                }
                held.reset();  // removes level 0 again
            }
        } catch (...) {
            // Any error gives up our place before it passes out. A waiter that
            // cannot judge the line must not guess, but nothing about a file
            // may end the process either: the error keeps its own kind, and
            // only kinds the callers do not expect become a plain access error.
            try {
                (void)removeLockFileWithTenacity(L, detail::steadyNow() + kOwnFileRoom);
            } catch (...) {
            }
            try {
                throw;
            } catch (const ovFileNotFoundError& e) {
                throw ovFileAccessError(e.what());
            } catch (const ovFileBasedLockError& e) {
                if (typeid(e) == typeid(ovFileBasedLockError)) throw ovFileAccessError(e.what());
                throw;
            }
        }

        // Give up our place. With L = -1 from a failed queue this asks for a
        // name that never exists, and warns about it; harmless and kept.
        if (!removeLockFileWithTenacity(L, deadline))
            warning << "FS_LOCK: failed to remove " << getLockFileName(L) << "(380)" << std::endl;
        return false;
    });
}

bool ovDirectoryExclusiveLock::tryAcquire(bool noRefresh) {
    return acquire(pt::time_duration(0, 0, 0, 0), noRefresh);
}

bool ovDirectoryExclusiveLock::acquire(bool noRefresh) {
    return acquire(pt::time_duration(pt::pos_infin), noRefresh);
}

bool ovDirectoryExclusiveLock::release(const pt::time_duration& timeout) {
    return detail::onlyThrows<ovNoSuchDirectory>([&] {
        BusyScope scope(mutex, condition, busy);
        if (!scope.enter(sanitize(timeout))) return false;
        if (holdCount == 0) return false;
        if (holdCount == 1) {
            holdCount = 0;
            boost::shared_ptr<ovLockFile> last;
            {
                boost::lock_guard<boost::mutex> guard(mutex);
                last.swap(lockFile);
            }
            // The last reference: stops the refresh and removes level 0, so
            // the next in line gets it within one polling cycle (unless it was
            // lost to another holder: then their file stays).
            last.reset();
            tidyAfterRelease(*this, staleTest, *fs);
            return true;
        }
        --holdCount;
        return true;
    });
}

bool ovDirectoryExclusiveLock::release() { return release(pt::time_duration(pt::pos_infin)); }

bool ovDirectoryExclusiveLock::isLost() const { return getLossReason() != ovLockNotLost; }

ovLockLossReason ovDirectoryExclusiveLock::getLossReason() const {
    boost::shared_ptr<ovLockFile> held;
    {
        boost::lock_guard<boost::mutex> guard(mutex);
        held = lockFile;
    }
    return held ? held->getLossReason() : ovLockNotLost;
}

void ovDirectoryExclusiveLock::setLostCallback(const ovLockLostCallback& callback) {
    boost::lock_guard<boost::mutex> guard(mutex);
    lostCallback = callback;
    if (lockFile) lockFile->setLostCallback(callback);
}
