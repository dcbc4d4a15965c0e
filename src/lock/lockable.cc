// The standard lockable forms (lock, try_lock, unlock, try_lock_for/until)
// of the directory locks, so std::lock_guard, std::unique_lock and
// std::scoped_lock work on them. They add nothing to the protocol: each one
// calls the lock's own acquire/release and reports what a mutex would report
// as std::system_error. Thread interruption still passes through unchanged.

#include <string>
#include <system_error>

#include <boost/thread/exceptions.hpp>

#include "common/only_throws.h"
#include "orvane/exclusive_lock.h"
#include "orvane/rw_lock.h"

namespace {

using boost::posix_time::time_duration;

[[noreturn]] void fail(std::errc code, const std::string& what) {
    throw std::system_error(std::make_error_code(code), what);
}

// Runs one acquire/release and turns the file layer's errors into the error
// codes a caller of a mutex looks for, keeping the library's own message.
template <class F>
bool mapped(F&& body) {
    return detail::onlyThrows<std::system_error, boost::thread_interrupted>([&]() -> bool {
        try {
            return body();
        } catch (const ovNoSuchDirectory& e) {
            fail(std::errc::no_such_file_or_directory, e.what());
        } catch (const ovPermissionDenied& e) {
            fail(std::errc::permission_denied, e.what());
        } catch (const ovFileBasedLockError& e) {
            fail(std::errc::io_error, e.what());
        }
    });
}

// An acquire without time limit only gives up when the lock cannot be had at
// all (the waiting line is full, or the lock file vanished as it was made).
void lockOrThrow(bool acquired, const char* what) {
    if (!acquired) fail(std::errc::device_or_resource_busy, std::string("cannot take the ") + what);
}

void unlockOrThrow(bool released, const char* what) {
    if (!released) fail(std::errc::operation_not_permitted, std::string("unlock of a ") + what + " that is not held");
}

}  // namespace

// ---- ovDirectoryExclusiveLock ---------------------------------------------
// Acquisitions nest per object, so lock() on a held object succeeds and needs
// a matching unlock(), like a recursive mutex.

void ovDirectoryExclusiveLock::lock() {
    lockOrThrow(mapped([&] { return acquire(false); }), "directory exclusive lock");
}

bool ovDirectoryExclusiveLock::try_lock() {
    return mapped([&] { return tryAcquire(false); });
}

void ovDirectoryExclusiveLock::unlock() {
    unlockOrThrow(mapped([&] { return release(); }), "directory exclusive lock");
}

bool ovDirectoryExclusiveLock::timedLock_(const time_duration& timeout) {
    return mapped([&] { return acquire(timeout, false); });
}

// ---- ReadLock / WriteLock --------------------------------------------------
// A handle refuses a second acquire; lock() says so the way std::mutex may
// (resource_deadlock_would_occur) instead of blocking for ever.

namespace {

template <class Handle>
void lockHandle(Handle& h, const char* what) {
    if (h.isAcquired())
        fail(std::errc::resource_deadlock_would_occur, std::string("the ") + what + " is already held by this handle");
    lockOrThrow(mapped([&] { return h.acquire(false); }), what);
}

}  // namespace

void ovDirectoryReadWriteLock::ReadLock::lock() { lockHandle(*this, "read lock"); }

bool ovDirectoryReadWriteLock::ReadLock::try_lock() {
    return mapped([&] { return tryAcquire(false); });
}

void ovDirectoryReadWriteLock::ReadLock::unlock() {
    unlockOrThrow(mapped([&] { return release(); }), "read lock");
}

bool ovDirectoryReadWriteLock::ReadLock::timedLock_(const time_duration& timeout) {
    return mapped([&] { return acquire(timeout, false); });
}

void ovDirectoryReadWriteLock::WriteLock::lock() { lockHandle(*this, "write lock"); }

bool ovDirectoryReadWriteLock::WriteLock::try_lock() {
    return mapped([&] { return tryAcquire(false); });
}

void ovDirectoryReadWriteLock::WriteLock::unlock() {
    unlockOrThrow(mapped([&] { return release(); }), "write lock");
}

bool ovDirectoryReadWriteLock::WriteLock::timedLock_(const time_duration& timeout) {
    return mapped([&] { return acquire(timeout, false); });
}
