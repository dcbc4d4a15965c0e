// The writer's side of the directory read/write lock. A writer may create
// ".deploy_write_lock" only while no read-lock file and no other write-lock
// file exists; it clears stale ones first and does all of it under the
// directory's exclusive lock. A pass that did not get the exclusive lock in
// time still tests and creates, so the write-lock file is created exclusively
// and the writer looks for readers once more after it exists (see acquire).
// Downgrade creates the writer's read-lock file before its write-lock file
// goes, so no other writer fits in between.

#include <string>
#include <vector>

#include "lock/rw_lock_internal.h"
#include "lock/stale_confirmation.h"
#include "orvane/rw_lock.h"

using boost::posix_time::ptime;
using boost::posix_time::time_duration;

struct ovDirectoryReadWriteLock::WriteLock::Impl : detail::RwHandleState {
    using RwHandleState::RwHandleState;

    bool acquire(const time_duration& timeout, bool noRefresh);
    ReadLock downgrade(const time_duration& timeout);
    void removeStaleOnes(const std::string& readPattern, const std::string& writeLockPath, const ptime& deadline);
    enum Outcome { Held, Busy, Failed };
    Outcome createOwnFile(const std::string& writeLockPath, const std::string& readPattern, bool noRefresh);
};

// Every read-lock file and the write-lock file that look stale are watched
// in one window. Directories count too: anything at a lock file's name keeps
// writers out, so anything there must be able to go once stale. A stale file
// that will not go is reported and waited on like a live one: the pass sleeps
// and looks again until the deadline.
void ovDirectoryReadWriteLock::WriteLock::Impl::removeStaleOnes(const std::string& readPattern,
                                                                const std::string& writeLockPath,
                                                                const ptime& deadline) {
    std::vector<std::string> found;
    const auto keep = [&found](const char* name) { found.push_back(name); };
    const ovStringProcedureAdapter<decltype(keep)> collect(keep);
    fs->findMatchingFilesAndDirs(readPattern.c_str(), collect, collect, 0, false);
    fs->findMatchingFilesAndDirs(writeLockPath.c_str(), collect, collect, 0, false);
    const std::vector<detail::EntryVerdict> verdicts = detail::judgeLockEntries(*this, found, deadline);
    for (size_t i = 0; i < found.size(); ++i)
        if (verdicts[i] == detail::EntryVerdict::Stale) detail::removeStaleEntry(*this, found[i], deadline);
}

// Creates and holds the write-lock file once the pass found none. A pass that
// ran without the exclusive lock can meet another pass here, so:
// - the file is created exclusively: of two writers only one gets it;
// - once it exists, readers are looked for again. A reader that tested before
//   our file came may have created its own since; it looks for us after
//   creating, as we look for it, so at least one of the two sees the other.
//   We give way: our file goes.
// Busy when another holder came first (the pass then waits as for any live
// holder); Failed when our own lock file did not test true.
ovDirectoryReadWriteLock::WriteLock::Impl::Outcome ovDirectoryReadWriteLock::WriteLock::Impl::createOwnFile(
    const std::string& writeLockPath, const std::string& readPattern, bool noRefresh) {
    if (!fs->createFile(writeLockPath.c_str())) return Busy;
    lockFile.reset(detail::holdCreatedFile(writeLockPath, noRefresh, fs));
    if (!lockFile) return Failed;
    if (!fs->matchingFileOrDirExists(readPattern.c_str())) return Held;
    lockFile.reset();
    return Busy;
}

bool ovDirectoryReadWriteLock::WriteLock::Impl::acquire(const time_duration& timeout,
                                                        bool noRefresh) {
    const ptime deadline = detail::steadyNow() + timeout - boost::posix_time::microseconds(5000);
    detail::HandleMutexGuard guard(mutex, timeout);
    if (!guard.owns()) return false;

    const std::string readPattern = detail::joinLockName(directory, READ_LOCK_BASE) + "*";
    const std::string writeLockPath = detail::joinLockName(directory, WRITE_LOCK_BASE);
    detail::requireMatchableLockNames(directory);
    if (count != 0) return false;
    startAcquire();

    bool acquired = false;
    for (;;) {
        // As for the reader, the exclusive lock's result is ignored by design:
        // without it (the deadline passed while another contender was inside
        // its pass) this pass still tests and creates; createOwnFile keeps
        // two such passes from both winning.
        detail::ExclusivePass pass(exclusive, deadline);
        // Every matched lock file goes through the stale test on every pass.
        removeStaleOnes(readPattern, writeLockPath, deadline);
        if (!fs->matchingFileOrDirExists(readPattern.c_str()) &&
            !fs->matchingFileOrDirExists(writeLockPath.c_str())) {
            const Outcome outcome = createOwnFile(writeLockPath, readPattern, noRefresh);
            acquired = outcome == Held;
            if (outcome != Busy) break;
        }
        if (detail::steadyNow() > deadline) break;
        detail::sleepOnePollingCycle();
    }
    if (acquired) count = 1;
    return acquired;
}

ovDirectoryReadWriteLock::ReadLock ovDirectoryReadWriteLock::WriteLock::Impl::downgrade(
    const time_duration& timeout) {
    detail::HandleMutexGuard guard(mutex, timeout);
    if (!guard.owns() || count == 0) return ReadLock(directory, fs);

    const std::pair<bool, std::string> created = createReadLock(directory, fs);
    // No read-lock file: keep the write lock rather than be left with nothing.
    if (!created.first) return ReadLock(directory, fs);
    boost::shared_ptr<ovLockFile> readFile;
    try {
        readFile.reset(new ovLockFile(created.second, lockFile->getRefreshInterval(), fs));
    } catch (...) {
        try {
            fs->removeFile(created.second, detail::steadyNow() + boost::posix_time::seconds(1));
        } catch (...) {
        }
        throw;
    }
    ReadLock reader(readFile, fs);
    // The holder registered for loss of this lock; the reader is the same hold.
    const ovLockLostCallback callback = lockFile.callback();
    if (callback) reader.setLostCallback(callback);
    // Only now, with the read-lock file in place, does the write-lock file go.
    lockFile.reset();
    count = 0;
    return reader;
}

// ---- The handle ------------------------------------------------------------

ovDirectoryReadWriteLock::WriteLock::WriteLock(const ovPathString& dir,
                                               const boost::shared_ptr<ovAbstractFS>& fs_)
    : impl(new Impl(dir, fs_)), fs(fs_) {}

ovDirectoryReadWriteLock::WriteLock::~WriteLock() {}

bool ovDirectoryReadWriteLock::WriteLock::isAcquired() const {
    return detail::rwLockOnlyThrows([&] { return impl->isAcquired(); });
}

bool ovDirectoryReadWriteLock::WriteLock::acquire(const time_duration& timeout, bool noRefresh) {
    return detail::rwLockOnlyThrows([&] { return impl->acquire(timeout, noRefresh); });
}

bool ovDirectoryReadWriteLock::WriteLock::tryAcquire(bool noRefresh) {
    return acquire(time_duration(0, 0, 0, 0), noRefresh);
}

bool ovDirectoryReadWriteLock::WriteLock::acquire(bool noRefresh) {
    return acquire(time_duration(boost::posix_time::pos_infin), noRefresh);
}

bool ovDirectoryReadWriteLock::WriteLock::release(const time_duration& timeout) {
    return detail::rwLockOnlyThrows([&] { return impl->release(timeout); });
}

bool ovDirectoryReadWriteLock::WriteLock::release() {
    return release(time_duration(boost::posix_time::pos_infin));
}

ovDirectoryReadWriteLock::ReadLock ovDirectoryReadWriteLock::WriteLock::downgrade(
    const time_duration& timeout) {
    return detail::rwLockOnlyThrows([&] { return impl->downgrade(timeout); });
}

ovDirectoryReadWriteLock::ReadLock ovDirectoryReadWriteLock::WriteLock::tryDowngrade() {
    return downgrade(time_duration(0, 0, 0, 0));
}

ovDirectoryReadWriteLock::ReadLock ovDirectoryReadWriteLock::WriteLock::downgrade() {
    return downgrade(time_duration(boost::posix_time::pos_infin));
}

bool ovDirectoryReadWriteLock::WriteLock::isLost() const { return getLossReason() != ovLockNotLost; }

ovLockLossReason ovDirectoryReadWriteLock::WriteLock::getLossReason() const {
    // Not under the handle's mutex: a loss callback may ask this while a
    // release holds that mutex and joins the callback's thread.
    return impl->lockFile.lossReason();
}

void ovDirectoryReadWriteLock::WriteLock::setLostCallback(const ovLockLostCallback& callback) {
    impl->lockFile.setCallback(callback);
}
