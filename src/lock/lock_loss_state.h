#ifndef ORVANE_LOCK_LOCK_LOSS_STATE_H
#define ORVANE_LOCK_LOCK_LOSS_STATE_H

// What a refreshing lock file knows about whether its holder still owns it.
// Shared between the ovLockFile and its refresh task, so that the task never
// touches the ovLockFile object itself.

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

    // The next refresh's content: a new counter value, then the token.
    std::string nextContent() const;
    // What the file must still start with (empty before the first write).
    std::string expectedContent() const;
    void refreshSucceeded(const std::string& written);

    void setCallback(const ovLockLostCallback& callback);
    // Calls the callback once, after a loss was found. From the refresh
    // thread, or from the silence watch once that thread has ended.
    void reportIfDue();

    // The refresh task is ending by an error: nothing refreshes the file or
    // looks at it any more. A one-shot timer of its own reports the silence
    // once it passes kMaxSilence. `self` is this state.
    void watchSilence(const boost::shared_ptr<LockLossState>& self);
    // Cancels that timer (joins a report in progress); for the ovLockFile's
    // destructor, after the refresh task was cancelled.
    void stopWatch();

private:
    std::atomic<int> reason_;
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
