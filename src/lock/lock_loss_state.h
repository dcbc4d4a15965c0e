#ifndef ORVANE_LOCK_LOCK_LOSS_STATE_H
#define ORVANE_LOCK_LOCK_LOSS_STATE_H

// What a refreshing lock file knows about whether its holder still owns it.
// Shared between the ovLockFile, its refresh task and its watchdog, so that
// neither thread ever touches the ovLockFile object itself.

#include <atomic>
#include <chrono>
#include <mutex>
#include <string>

#include <boost/shared_ptr.hpp>

#include "orvane/lock_file.h"
#include "orvane/timer.h"

namespace detail {

struct LockLossState {
    using Clock = std::chrono::steady_clock;
    // A holder that could not refresh for this long may have been taken over
    // (others take over after 30 s by the file server's clock).
    static constexpr std::chrono::seconds kMaxSilence{20};

    // `token` tells this holder's content from every other holder's.
    explicit LockLossState(const std::string& token);
    LockLossState(const LockLossState&) = delete;
    LockLossState& operator=(const LockLossState&) = delete;

    // The first reason found is kept.
    void markLost(ovLockLossReason why);
    ovLockLossReason reason() const;
    // reason(), after noting a refresh silence longer than kMaxSilence; any thread.
    ovLockLossReason evaluate();
    // True while no refresh has succeeded for longer than kMaxSilence.
    bool silentTooLong() const;

    // The file was seen holding someone else's content: it is theirs, and
    // this holder never writes, touches or removes it again. Kept apart from
    // the reason, which stays the first one found (a holder resumed after a
    // pause records the silence before it sees the rewrite).
    void markNotMine();
    bool notMine() const { return notMine_.load(); }

    // The next refresh's content: a new counter value, then the token.
    std::string nextContent() const;
    // What the file must still start with (empty before the first write).
    std::string expectedContent() const;
    // `started`: when the successful refresh began, so that the silence is
    // never measured from later than the file's own modification.
    void refreshSucceeded(const std::string& written, Clock::time_point started);

    void setCallback(const ovLockLostCallback& callback);
    // Calls the callback once, after a loss was found, whichever thread
    // (refresh or watchdog) gets there first.
    void reportIfDue();

    // Starts the watchdog: a repeating timer of its own that measures the
    // silence and reports it, touching no file. The refresh thread cannot do
    // that itself when it hangs inside the file system (a frozen mount) or
    // has ended by an error. `self` is this state.
    void startWatchdog(const boost::shared_ptr<LockLossState>& self);
    // Cancels the watchdog (joins a report in progress); for the ovLockFile's
    // destructor.
    void stopWatch();

    // Period of the watchdog: a loss by silence is reported at most this
    // long after it passes kMaxSilence.
    static constexpr std::chrono::milliseconds kWatchPeriod{250};

private:
    std::atomic<int> reason_;
    std::atomic<bool> notMine_{false};
    std::atomic<Clock::rep> lastSuccess_;
    const std::string token_;
    mutable std::mutex mutex_;  // guards the four below
    std::string expected_;
    ovLockLostCallback callback_;
    bool reported_ = false;
    boost::shared_ptr<ovTimerTask> watch_;
};

// A per-holder token: process id and 8 random bytes.
std::string makeOwnerToken();

}  // namespace detail

#endif
