#include "lock/lock_loss_state.h"

#include <stdint.h>
#include <string.h>
#include <sys/random.h>
#include <unistd.h>

#include <boost/bind/bind.hpp>
#include <boost/weak_ptr.hpp>

#include "fs/refresh_counter.h"

namespace detail {

namespace {

void watchOnce(const boost::weak_ptr<LockLossState>& weak) {
    if (const boost::shared_ptr<LockLossState> state = weak.lock()) {
        state->evaluate();
        state->reportIfDue();
    }
}

}  // namespace

constexpr std::chrono::seconds LockLossState::kMaxSilence;
constexpr std::chrono::milliseconds LockLossState::kWatchPeriod;

LockLossState::LockLossState(const std::string& token)
    : reason_(ovLockNotLost), lastSuccess_(Clock::now().time_since_epoch().count()), token_(token) {}

void LockLossState::markLost(ovLockLossReason why) {
    int none = ovLockNotLost;
    reason_.compare_exchange_strong(none, why);
}

ovLockLossReason LockLossState::reason() const { return static_cast<ovLockLossReason>(reason_.load()); }

bool LockLossState::silentTooLong() const {
    return Clock::now().time_since_epoch() - Clock::duration(lastSuccess_.load()) > kMaxSilence;
}

ovLockLossReason LockLossState::evaluate() {
    if (silentTooLong()) markLost(ovLockRefreshFailing);
    return reason();
}

void LockLossState::markNotMine() {
    notMine_.store(true);
    markLost(ovLockFileRewritten);
}

std::string LockLossState::nextContent() const {
    // The counter first, as every refresh writes it: whoever watches the
    // content for a live holder sees it change.
    const uint32_t value = nextRefreshValue();
    std::string content(reinterpret_cast<const char*>(&value), sizeof value);
    return content + token_;
}

std::string LockLossState::expectedContent() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return expected_;
}

void LockLossState::refreshSucceeded(const std::string& written, Clock::time_point started) {
    // Never moved back: two refreshes may report out of order.
    Clock::rep last = lastSuccess_.load();
    const Clock::rep now = started.time_since_epoch().count();
    while (last < now && !lastSuccess_.compare_exchange_weak(last, now)) {
    }
    std::lock_guard<std::mutex> guard(mutex_);
    expected_ = written;
}

void LockLossState::setCallback(const ovLockLostCallback& callback) {
    std::lock_guard<std::mutex> guard(mutex_);
    callback_ = callback;
}

void LockLossState::reportIfDue() {
    const ovLockLossReason why = reason();
    if (why == ovLockNotLost) return;
    ovLockLostCallback call;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        if (reported_ || !callback_) return;
        reported_ = true;
        call = callback_;
    }
    // Outside the mutex: the callback may query the lock or replace itself.
    try {
        call(why);
    } catch (...) {
        // Documented: a callback's exception is dropped, the refresh goes on.
    }
}

void LockLossState::startWatchdog(const boost::shared_ptr<LockLossState>& self) {
    // The state does not keep itself alive through its own timer.
    const boost::function0<void> watch = boost::bind(&watchOnce, boost::weak_ptr<LockLossState>(self));
    const boost::shared_ptr<ovTimerTask> task =
        ovSetTimer(watch, boost::posix_time::milliseconds(kWatchPeriod.count()), true);
    std::lock_guard<std::mutex> guard(mutex_);
    watch_ = task;
}

void LockLossState::stopWatch() {
    boost::shared_ptr<ovTimerTask> task;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        task.swap(watch_);
    }
    if (task) task->cancel();
}

std::string makeOwnerToken() {
    const uint32_t pid = static_cast<uint32_t>(::getpid());
    unsigned char random[8];
    ssize_t got = ::getrandom(random, sizeof random, GRND_NONBLOCK);
    if (got != static_cast<ssize_t>(sizeof random)) {
        // No entropy yet (early boot): the clock and an address still make
        // two holders of one process differ.
        const uint64_t fallback = static_cast<uint64_t>(LockLossState::Clock::now().time_since_epoch().count()) ^
                                  reinterpret_cast<uintptr_t>(&got);
        ::memcpy(random, &fallback, sizeof random);
    }
    std::string token(reinterpret_cast<const char*>(&pid), sizeof pid);
    token.append(reinterpret_cast<const char*>(random), sizeof random);
    return token;
}

}  // namespace detail
