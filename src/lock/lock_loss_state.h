#ifndef ORVANE_LOCK_LOCK_LOSS_STATE_H
#define ORVANE_LOCK_LOCK_LOSS_STATE_H

// What a refreshing lock file knows about whether its holder still owns it.
// Shared between the ovLockFile and its refresh task, so that the task never
// touches the ovLockFile object itself.

#include <atomic>
#include <chrono>
#include <mutex>
#include <string>

#include "orvane/lock_file.h"

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
    // Refresh thread only: calls the callback once, after a loss was found.
    void reportIfDue();

private:
    std::atomic<int> reason_;
    std::atomic<Clock::rep> lastSuccess_;
    const std::string token_;
    mutable std::mutex mutex_;  // guards the three below
    std::string expected_;
    ovLockLostCallback callback_;
    bool reported_ = false;
};

// A per-holder token: process id and 8 random bytes.
std::string makeOwnerToken();

}  // namespace detail

#endif
