#include "orvane/lock_file.h"

#include <boost/bind/bind.hpp>
#include <boost/make_shared.hpp>
#include <boost/date_time/posix_time/posix_time.hpp>
#include <boost/thread/exceptions.hpp>
#include <boost/thread/thread.hpp>

#include "common/only_throws.h"
#include "lock/lock_loss_state.h"
#include "timer/steady_clock.h"
#include "timer/timer_task_impl.h"

namespace pt = boost::posix_time;

const ovLockFile::no_refresh_tag ovLockFile::NO_REFRESH = {};

namespace {

// Each refresh, and the removal at the end, may take up to this long.
const pt::time_duration kFileDeadline = pt::seconds(1);

pt::ptime fileDeadline() { return detail::steadyNow() + kFileDeadline; }

// How long the destructor waits for a refresh in flight to end.
const pt::time_duration kStopWait = pt::seconds(3);

// One refresh of an owned file, checked first. Runs on the timer thread and
// touches only the shared state, the file system and the name.
void refreshOwned(const boost::shared_ptr<detail::LockLossState>& state,
                  const boost::shared_ptr<ovAbstractFS>& fs, const std::string& name) {
    state->evaluate();
    // Someone else's file now: writing it would take the lock back from
    // them. Only the report is still due.
    if (!state->notMine()) {
        const std::string expected = state->expectedContent();
        // Nothing to compare with (the first write gave up at its deadline)
        // and silent past the limit: the file may well be a new holder's.
        // Leave it to age out rather than write unchecked.
        if (expected.empty() && state->reason() != ovLockNotLost) {
            state->markNotMine();
            state->reportIfDue();
            return;
        }
        const std::string content = state->nextContent();
        const detail::LockLossState::Clock::time_point started = detail::LockLossState::Clock::now();
        try {
            switch (fs->refreshOwnedLockFile(name, fileDeadline(), expected, content)) {
                case ovRefreshedOwned:
                    state->refreshSucceeded(content, started);
                    break;
                case ovRefreshFoundMissing:
                    // Recreated, and ours to remove; but another contender may
                    // have held the lock meanwhile.
                    state->markLost(ovLockFileMissing);
                    state->refreshSucceeded(content, started);
                    break;
                case ovRefreshFoundRewritten:
                    state->markNotMine();
                    break;
                case ovRefreshFailed:
                    break;  // tried again next period; the watchdog measures the silence
            }
        } catch (const ovNoSuchDirectory&) {
            // The directory, and so the file, is gone. The refresh task ends
            // with the exception, so report now.
            state->markLost(ovLockFileMissing);
            state->reportIfDue();
            throw;
        }
        // Any other error ends the task too and the file ages from its last
        // refresh; the watchdog reports the silence when it passes the limit.
    }
    state->reportIfDue();
}

}  // namespace

const char* ovLockLossReasonText(ovLockLossReason r) {
    switch (r) {
        case ovLockNotLost:
            return "not lost";
        case ovLockFileMissing:
            return "missing";
        case ovLockFileRewritten:
            return "rewritten by another holder";
        case ovLockRefreshFailing:
            return "refresh failing";
    }
    return "unknown";
}

ovLockFile::ovLockFile(const std::string& name_, pt::time_duration refreshInterval_,
                       const boost::shared_ptr<ovAbstractFS>& fs_) {
    // ovFileAccessError: no room left to write the file (the acquisition fails).
    detail::onlyThrows<boost::thread_interrupted, ovNoSuchDirectory, ovPermissionDenied, ovFileAccessError>([&] {
        name = name_;
        refreshInterval = refreshInterval_;
        fs = fs_ ? fs_ : ovGetDefaultFSImp();  // no file system given: the default one
        // pos_infin, nadt: never refreshed. Nor is a non-positive period,
        // which would rewrite the file in a tight loop for the object's life.
        if (refreshInterval.is_special() || refreshInterval <= pt::time_duration(0, 0, 0, 0)) {
            // Creates the file if missing.
            (void)fs->refreshLockFile(name, fileDeadline());
            return;
        }
        // A refreshed file carries this holder's own content, so that a
        // rewrite by anyone else shows at the next refresh.
        const boost::shared_ptr<detail::LockLossState> state =
            boost::make_shared<detail::LockLossState>(detail::makeOwnerToken());
        // Creates the file if missing; nothing to compare with yet. A first
        // refresh that gave up at its deadline still leaves a usable object:
        // the timer tries again (and, having no expected content, writes).
        const std::string content = state->nextContent();
        const detail::LockLossState::Clock::time_point started = detail::LockLossState::Clock::now();
        if (fs->refreshOwnedLockFile(name, fileDeadline(), std::string(), content) != ovRefreshFailed)
            state->refreshSucceeded(content, started);
        loss = state;
        // The task holds its own copies of the state, the file system and
        // the name, so a refresh in flight never touches this object.
        const boost::function0<void> refresh = boost::bind(&refreshOwned, state, fs, name);
        refreshTask = ovSetTimer(refresh, refreshInterval, true);
        // Measures the silence even while a refresh hangs in the file system.
        state->startWatchdog(state);
    });
}

ovLockFile::ovLockFile(const std::string& name_, const no_refresh_tag&,
                       const boost::shared_ptr<ovAbstractFS>& fs_) {
    // ovFileAccessError: no room left to write the file (the acquisition fails).
    detail::onlyThrows<boost::thread_interrupted, ovNoSuchDirectory, ovPermissionDenied, ovFileAccessError>([&] {
        name = name_;
        refreshInterval = pt::pos_infin;
        fs = fs_ ? fs_ : ovGetDefaultFSImp();  // no file system given: the default one
        (void)fs->refreshLockFile(name, fileDeadline());
    });
}

// Destructors are noexcept: anything escaping below ends the process, which is
// the intended rule for any removal error other than the two ignored ones.
ovLockFile::~ovLockFile() {
    // Stop first, so that no refresh can recreate the file after its removal.
    // A refresh stuck in the file system (a frozen mount) is not waited for
    // beyond a few seconds; the file is then left alone, to age out like a
    // dead holder's, since any further call could hang as well.
    bool stopped = true;
    {
        // Both waits are bounded, so an interruption of this thread need not
        // cut them short (it would escape the destructor); it stays pending
        // for the file work below and the caller's next wait.
        boost::this_thread::disable_interruption bounded;
        if (loss) loss->stopWatch();
        if (refreshTask) stopped = detail::cancelWithin(*refreshTask, kStopWait);
    }
    if (!stopped) return;
    if (loss && !loss->notMine()) {
        // Silent past the limit: another holder may have taken over. Unless
        // the content shows the file is still ours, leave it to age out.
        bool confirmed = !loss->silentTooLong();
        // A holder resumed after a pause may release before its next refresh
        // has looked: check once more, or we would remove the new holder's
        // file. (What is rewritten between this read and the removal cannot
        // be told apart with plain files.)
        const std::string expected = loss->expectedContent();
        try {
            std::string current;
            if (!expected.empty() && fs->readLockFileContent(name, current)) {
                if (current.compare(0, expected.size(), expected) == 0)
                    confirmed = true;
                else
                    loss->markNotMine();
            }
        } catch (const ovFileBasedLockError&) {
            // Unreadable: removed as before, unless silent too long.
        } catch (const boost::thread_interrupted&) {
            // Interrupted: likewise.
        }
        if (!confirmed) return;
    }
    // Another holder's file now: leave it, and their lock, intact.
    if (loss && loss->notMine()) return;
    try {
        (void)fs->removeFile(name, fileDeadline());
    } catch (const ovPermissionDenied&) {
        // A directory turned read-only: the file stays and will age into staleness.
    } catch (const boost::thread_interrupted&) {
        // Interrupted during the retry sleep: give up the removal, finish destruction.
    }
}

pt::time_duration ovLockFile::getRefreshInterval() const { return refreshInterval; }

std::string ovLockFile::getName() const { return name; }

ovLockFile::operator bool() const { return fs->fileExists(name.c_str()); }

bool ovLockFile::isLost() const { return getLossReason() != ovLockNotLost; }

ovLockLossReason ovLockFile::getLossReason() const { return loss ? loss->evaluate() : ovLockNotLost; }

void ovLockFile::setLostCallback(const ovLockLostCallback& callback) {
    if (loss) loss->setCallback(callback);
}
