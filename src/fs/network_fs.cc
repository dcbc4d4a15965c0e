// ovNetworkFS: lock-file primitives for directories shared between machines.
// The exclusive open is the whole locking mechanism; the rest is about telling
// a missing directory and a missing permission apart from transient failures.

#include <errno.h>
#include <string.h>

#include <atomic>

#include <boost/make_shared.hpp>
#include <boost/thread/exceptions.hpp>

#include "common/only_throws.h"
#include "fs/lock_dir_listing.h"
#include "fs/lock_file_errors.h"
#include "fs/posix_io.h"
#include "fs/refresh_counter.h"
#include "fs/sleep.h"
#include "orvane/fs.h"
#include "orvane/log_channel.h"
#include "orvane/path_string.h"

namespace pt = boost::posix_time;

namespace {

// EACCES on open can be transient on network file systems (attribute caches
// catching up after a permission change on the server): absorb up to this
// many retries, this far apart, before calling it a missing permission.
constexpr int kAccessRetries = 50;
const pt::time_duration kAccessRetryPause = pt::microseconds(10000);
// Pause between attempts of the deadline-bound loops (busy file, refresh).
const pt::time_duration kDeadlinePause = pt::microseconds(1000);

// The value the next refresh writes, shared by every lock file and instance.
// Not an atomic increment on purpose: two refreshes at once may write the
// same value, which is fine. Relaxed atomic loads and stores only keep the
// unsynchronised update well-defined.
std::atomic<uint32_t> refreshCounter(0);

std::string text(const char* path) { return path ? std::string(path) : std::string(); }

// Opens a lock file its holder owns for check and rewrite; a missing one is
// recreated exclusively, so `recreated` is exact even when two refreshes race.
int openOwned(const std::string& name, detail::ScopedFd& fd, bool& recreated) {
    recreated = false;
    int err = detail::openExistingForUpdate(name.c_str(), fd);
    if (err != ENOENT) return err;
    err = detail::openExclusiveCreateForUpdate(name.c_str(), fd);
    recreated = err == 0;
    return err;
}

}  // namespace

namespace detail {

uint32_t nextRefreshValue() {
    const uint32_t value = refreshCounter.load(std::memory_order_relaxed) + 1;
    refreshCounter.store(value, std::memory_order_relaxed);
    return value;
}

}  // namespace detail

ovNetworkFS::~ovNetworkFS() {}

bool ovNetworkFS::isDir(const char* path) {
    if (!path) return false;
    ovPathString normalized;
    normalized.setNormalizer(boost::make_shared<ovWellFormedPathNormalizer<ovPathString> >());
    normalized.assign(path, static_cast<unsigned long>(::strlen(path)));
    return ovIsDirectory(normalized.c_str());
}

bool ovNetworkFS::mkDir(const char* path) { return ovMkdirP(path); }

int ovNetworkFS::rmDir(const char* path) {
    if (!path) {
        errno = EFAULT;
        return -1;
    }
    return ::remove(path);
}

bool ovNetworkFS::rmSubFolderTree(const char* path) { return ovRemoveRF(path); }

bool ovNetworkFS::fileExists(const char* path) {
    return detail::onlyThrows<ovNoSuchDirectory>([&] {
        // Anything at the name counts, a dangling link included: junk there
        // blocks an exclusive create just as a lock file does.
        if (detail::entryPresent(path) == 0) return true;
        // A lock file is reported missing only while its directory is there.
        const std::string name = text(path);
        if (detail::parentIsDirectory(name)) return false;
        detail::throwNoSuchDirectory(name);
    });
}

bool ovNetworkFS::createFile(const char* path) {
    // An interruption during the retry pauses is deliberately not admitted:
    // it ends the process.
    return detail::onlyThrows<ovFileAccessError, ovNoSuchDirectory, ovPermissionDenied>([&] {
        detail::ScopedFd fd;
        int err = detail::openExclusiveCreate(path, fd);
        for (int retries = 0; err == EACCES && retries < kAccessRetries; ++retries) {
            detail::sleepRelative(kAccessRetryPause);
            err = detail::openExclusiveCreate(path, fd);
        }
        if (err == 0) return true;  // the descriptor closes here; the file stays empty

        const std::string name = text(path);
        detail::throwIfNoDirectoryOrNoPermission(name, err);
        if (err == EEXIST) return false;
        detail::throwExclusiveCreateFailed(name, err);
    });
}

bool ovNetworkFS::removeFile(const std::string& name, const pt::ptime& deadline) {
    return detail::onlyThrows<boost::thread_interrupted, ovPermissionDenied>([&] {
        for (;;) {
            const int err = detail::removePath(name.c_str());
            if (err == 0) return true;
            if (err == EACCES) detail::throwPermissionDenied(name);
            // Only a busy file is worth waiting for; a missing file (or a
            // missing directory) is simply not removed.
            if (err != EBUSY) return false;
            if (!(deadline > detail::steadyNow())) return false;
            detail::sleepFromNow(kDeadlinePause);
        }
    });
}

bool ovNetworkFS::refreshLockFile(const std::string& name, const pt::ptime& deadline) {
    verbose << "Touching lock file..." << std::endl;
    for (;;) {
        detail::ScopedFd fd;
        int err = detail::openForRewrite(name.c_str(), fd);
        for (int retries = 0; err == EACCES && retries < kAccessRetries; ++retries) {
            detail::sleepFromNow(kAccessRetryPause);
            err = detail::openForRewrite(name.c_str(), fd);
        }
        if (err == 0) {
            // New content and, on the server, a new modification time. The
            // file was opened without truncation, so these 4 bytes land at its
            // start and a failed write never leaves it empty.
            err = detail::writeUint32(fd, detail::nextRefreshValue());
            fd.reset();
            if (err == 0) {
                verbose << "Lock successfully refreshed" << std::endl;
                return true;
            }
        }
        detail::throwIfNoDirectoryOrNoPermission(name, err);
        detail::throwIfOutOfSpace(name, err);
        // Not a lock file (a link, a FIFO, a directory), or created by
        // someone else just now: nothing of ours to touch, and waiting
        // will not change that.
        if (err == detail::kNotRegularFile || err == EEXIST) {
            warning << "FS_LOCK: failed to refresh lock file: " << name << std::endl;
            return false;
        }
        // Anything else may pass (a stale handle, a server hiccup): keep
        // trying until the deadline.
        detail::sleepFromNow(kDeadlinePause);
        if (!(deadline > detail::steadyNow())) {
            warning << "FS_LOCK: failed to refresh lock file: " << name << std::endl;
            return false;
        }
    }
}

ovOwnedRefreshResult ovNetworkFS::refreshOwnedLockFile(const std::string& name, const pt::ptime& deadline,
                                                       const std::string& expected,
                                                       const std::string& content) {
    verbose << "Touching lock file..." << std::endl;
    for (;;) {
        detail::ScopedFd fd;
        bool recreated = false;
        int err = openOwned(name, fd, recreated);
        for (int retries = 0; err == EACCES && retries < kAccessRetries; ++retries) {
            detail::sleepFromNow(kAccessRetryPause);
            err = openOwned(name, fd, recreated);
        }
        // Something else at the name now (a link, a FIFO, a directory): not
        // our file, and never to be written through.
        if (err == detail::kNotRegularFile) return ovRefreshFoundRewritten;
        if (err == 0) {
            // Check and write through the same descriptor: what is checked is
            // the file that gets written, even if the name is replaced meanwhile.
            if (!recreated && !expected.empty()) {
                std::string head;
                err = detail::readHeadAt0(fd, head, expected.size());
                // Someone else's file now (a take-over touch changes the
                // counter, a new holder writes its own token): leave it be.
                if (err == 0 && head != expected) return ovRefreshFoundRewritten;
            }
            if (err == 0) err = detail::writeAllAt0(fd, content);
            fd.reset();
            if (err == 0) {
                verbose << "Lock successfully refreshed" << std::endl;
                return recreated ? ovRefreshFoundMissing : ovRefreshedOwned;
            }
            // A file we just made but cannot fill is no lock: take it away.
            if (recreated && (err == ENOSPC || err == EDQUOT)) (void)detail::removePath(name.c_str());
        }
        detail::throwIfNoDirectoryOrNoPermission(name, err);
        detail::throwIfOutOfSpace(name, err);
        // EEXIST (recreated by someone else between our two opens) and any
        // transient failure: try again until the deadline.
        detail::sleepFromNow(kDeadlinePause);
        if (!(deadline > detail::steadyNow())) {
            warning << "FS_LOCK: failed to refresh lock file: " << name << std::endl;
            return ovRefreshFailed;
        }
    }
}

time_t ovNetworkFS::getFileLastModifiedTime(const char* path) {
    return detail::onlyThrows<ovFileAccessError, ovFileNotFoundError>([&] {
        time_t seconds = 0;
        const int err = detail::modificationTime(path, seconds);
        if (err == 0) return seconds;
        if (err == ENOENT) detail::throwFileNotFound(text(path));
        detail::throwFileAccess(text(path));
    });
}

bool ovNetworkFS::matchingFileOrDirExists(const char* pattern) {
    ovIgnoreString ignore;
    return detail::findInLockDirectory(pattern, ignore, ignore, 0, true) == 1;
}

unsigned ovNetworkFS::findMatchingFilesAndDirs(const char* pattern, const ovStringProcedure& onFile,
                                               const ovStringProcedure& onDir, int depth,
                                               bool stopAtFirst) {
    // Lock files are looked for here: a directory that cannot be read is an
    // error, not an empty one (see lock_dir_listing.h).
    return detail::findInLockDirectory(pattern, onFile, onDir, depth, stopAtFirst);
}

uint16_t ovNetworkFS::disableWritePermission(const char* path) { return ovDisableWritePermission(path); }

uint16_t ovNetworkFS::enableWritePermission(const char* path) { return ovEnableWritePermission(path); }
