// The reader's side of the directory read/write lock. A reader is present
// while its own ".deploy_read_lock.<n>" file exists and is refreshed; it may
// create that file only while no live ".deploy_write_lock" exists, and it
// tests and creates under the directory's exclusive lock so that a writer
// cannot test and create in between. A pass that did not get the exclusive
// lock in time still tests and creates, so a reader also looks for a writer
// once more after its own file exists (see acquire).

#include "lock/rw_lock_internal.h"
#include "lock/stale_confirmation.h"
#include "orvane/rw_lock.h"

using boost::posix_time::ptime;
using boost::posix_time::time_duration;

struct ovDirectoryReadWriteLock::ReadLock::Impl : detail::RwHandleState {
    using RwHandleState::RwHandleState;

    bool acquire(const time_duration& timeout, bool noRefresh);

    // What the pass found at the write-lock path. DeadWriterKept: a stale
    // file that could not be removed; the reader goes on beside it.
    enum WriterState { NoWriter, LiveWriter, DeadWriterKept };
    WriterState judgeWriteLock(const std::string& writeLockPath, const ptime& deadline);
    bool createOwnFile(bool noRefresh);
    bool writerCameMeanwhile(const std::string& writeLockPath);
};

namespace {

// The directory of an adopted lock file: its name up to the last separator,
// empty when there is none.
ovPathString directoryOf(const std::string& name) {
    for (std::string::size_type i = name.size(); i > 0; --i) {
        if (ovIsPathSep(static_cast<unsigned char>(name[i - 1]))) return ovPathString(name.substr(0, i - 1));
    }
    return ovPathString();
}

}  // namespace

// A write-lock file was seen. Is a writer really there?
ovDirectoryReadWriteLock::ReadLock::Impl::WriterState
ovDirectoryReadWriteLock::ReadLock::Impl::judgeWriteLock(const std::string& writeLockPath,
                                                         const ptime& deadline) {
    switch (detail::judgeLockEntry(*this, writeLockPath, deadline)) {
        case detail::EntryVerdict::Gone:
            return NoWriter;
        case detail::EntryVerdict::Live:
            return LiveWriter;
        case detail::EntryVerdict::Stale:
            break;
    }
    // A failed removal is not looked at again: the writer is dead either way.
    const bool removed =
        detail::removeStaleEntry(*this, writeLockPath, detail::steadyNow() + boost::posix_time::seconds(1));
    return removed ? NoWriter : DeadWriterKept;
}

bool ovDirectoryReadWriteLock::ReadLock::Impl::createOwnFile(bool noRefresh) {
    const std::pair<bool, std::string> created = createReadLock(directory, fs);
    if (!created.first) return false;
    lockFile.reset(detail::holdCreatedFile(created.second, noRefresh, fs));
    return static_cast<bool>(lockFile);
}

// Our read-lock file exists now. A write-lock file that exists as well was
// created by a writer that tested before our file came: only one of us may
// stay, and the writer looks for readers after creating its file just as we
// look for it after creating ours, so at least one of the two sees the other.
// We give way: our file goes.
bool ovDirectoryReadWriteLock::ReadLock::Impl::writerCameMeanwhile(const std::string& writeLockPath) {
    if (!fs->matchingFileOrDirExists(writeLockPath.c_str())) return false;
    lockFile.reset();
    return true;
}

bool ovDirectoryReadWriteLock::ReadLock::Impl::acquire(const time_duration& timeout,
                                                       bool noRefresh) {
    const ptime deadline = detail::steadyNow() + timeout - boost::posix_time::microseconds(5000);
    detail::HandleMutexGuard guard(mutex, timeout);
    if (!guard.owns()) return false;
    const std::string writeLockPath = detail::joinLockName(directory, WRITE_LOCK_BASE);
    detail::requireMatchableLockNames(directory);
    if (count != 0) return false;
    startAcquire();

    bool acquired = false;
    for (;;) {
        // The pass goes on whether or not the exclusive lock came within the
        // time left: its result is ignored by design. It fails only once the
        // deadline has passed while another contender is inside its own pass,
        // so a try form or a very short time-out tests and creates in step
        // with that contender; the look after creating keeps a writer and us
        // from both winning then.
        detail::ExclusivePass pass(exclusive, deadline);
        WriterState writer = NoWriter;
        if (fs->matchingFileOrDirExists(writeLockPath.c_str())) writer = judgeWriteLock(writeLockPath, deadline);
        if (writer != LiveWriter) {
            acquired = createOwnFile(noRefresh);
            // Beside a dead writer's file that would not go, that file is
            // all there is to see; as before, the reader does not look again.
            if (!acquired || writer == DeadWriterKept || !writerCameMeanwhile(writeLockPath)) break;
            acquired = false;
        }
        if (detail::steadyNow() > deadline) break;
        // Sleeping with the exclusive lock still held is how the protocol
        // paces itself; the pass gives it back right after.
        detail::sleepOnePollingCycle();
    }
    if (acquired) count += 1;
    return acquired;
}

// ---- The handle ------------------------------------------------------------

ovDirectoryReadWriteLock::ReadLock::ReadLock(const ovPathString& dir,
                                             const boost::shared_ptr<ovAbstractFS>& fs_)
    : impl(new Impl(dir, fs_)), fs(fs_) {}

ovDirectoryReadWriteLock::ReadLock::ReadLock(const boost::shared_ptr<ovLockFile>& lockFile,
                                             const boost::shared_ptr<ovAbstractFS>& fs_)
    : impl(new Impl(directoryOf(lockFile->getName()), fs_, lockFile)), fs(fs_) {}

// Members go in reverse order: the file-system reference, then the Impl. No
// release step runs; the held lock file's last owner removes it.
ovDirectoryReadWriteLock::ReadLock::~ReadLock() {}

bool ovDirectoryReadWriteLock::ReadLock::isAcquired() const {
    return detail::rwLockOnlyThrows([&] { return impl->isAcquired(); });
}

bool ovDirectoryReadWriteLock::ReadLock::acquire(const time_duration& timeout, bool noRefresh) {
    return detail::rwLockOnlyThrows([&] { return impl->acquire(timeout, noRefresh); });
}

bool ovDirectoryReadWriteLock::ReadLock::tryAcquire(bool noRefresh) {
    return acquire(time_duration(0, 0, 0, 0), noRefresh);
}

bool ovDirectoryReadWriteLock::ReadLock::acquire(bool noRefresh) {
    return acquire(time_duration(boost::posix_time::pos_infin), noRefresh);
}

bool ovDirectoryReadWriteLock::ReadLock::release(const time_duration& timeout) {
    return detail::rwLockOnlyThrows([&] { return impl->release(timeout); });
}

bool ovDirectoryReadWriteLock::ReadLock::release() {
    return release(time_duration(boost::posix_time::pos_infin));
}

bool ovDirectoryReadWriteLock::ReadLock::isLost() const { return getLossReason() != ovLockNotLost; }

ovLockLossReason ovDirectoryReadWriteLock::ReadLock::getLossReason() const {
    // Not under the handle's mutex: a loss callback may ask this while a
    // release holds that mutex and joins the callback's thread.
    return impl->lockFile.lossReason();
}

void ovDirectoryReadWriteLock::ReadLock::setLostCallback(const ovLockLostCallback& callback) {
    impl->lockFile.setCallback(callback);
}
