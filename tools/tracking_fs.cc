#include "tracking_fs.h"

#include <boost/date_time/posix_time/posix_time.hpp>

namespace orvane_tool {

TrackingFS::TrackingFS(const boost::shared_ptr<ovAbstractFS>& inner) : inner_(inner) {}

void TrackingFS::remember(const std::string& name) {
    std::lock_guard<std::mutex> guard(mutex_);
    if (!held_.count(name)) owned_.insert(name);
}

void TrackingFS::forget(const std::string& name) {
    std::lock_guard<std::mutex> guard(mutex_);
    owned_.erase(name);
    held_.erase(name);
}

void TrackingFS::keepHeld() {
    std::lock_guard<std::mutex> guard(mutex_);
    held_.insert(owned_.begin(), owned_.end());
    owned_.clear();
}

bool TrackingFS::isLevelZero(const std::string& name) {
    static const std::string suffix = "/.deploy_lock.0";
    return name.size() >= suffix.size() && name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0;
}

void TrackingFS::setWaiter(boost::thread::id waiter) {
    std::lock_guard<std::mutex> guard(mutex_);
    waiter_ = waiter;
}

void TrackingFS::cancel(boost::thread& waiter) {
    std::lock_guard<std::mutex> guard(mutex_);
    cancelled_ = true;
    // Under the mutex: the waiter cannot start holding level 0 in between
    // (refreshLockFile below takes the same mutex first).
    if (!holdsLevelZero_) {
        waiter.interrupt();
        interrupted_ = true;
    }
}

void TrackingFS::checkCancelled() const {
    std::lock_guard<std::mutex> guard(mutex_);
    if (cancelled_ && boost::this_thread::get_id() == waiter_) throw Cancelled();
}

bool TrackingFS::isDir(const char* path) { return inner_->isDir(path); }
bool TrackingFS::mkDir(const char* path) { return inner_->mkDir(path); }
int TrackingFS::rmDir(const char* path) { return inner_->rmDir(path); }
bool TrackingFS::rmSubFolderTree(const char* path) { return inner_->rmSubFolderTree(path); }
bool TrackingFS::fileExists(const char* path) { return inner_->fileExists(path); }

bool TrackingFS::createFile(const char* path) {
    const bool created = inner_->createFile(path);
    if (created) remember(path);
    return created;
}

bool TrackingFS::removeFile(const std::string& name, const boost::posix_time::ptime& deadline) {
    // Forgotten whatever the outcome: a file we asked to remove and that is
    // gone may be re-created by another process, and is then theirs.
    forget(name);
    if (isLevelZero(name)) {
        // ~ovLockFile removes the file only after joining its timer.
        std::lock_guard<std::mutex> guard(mutex_);
        if (boost::this_thread::get_id() == waiter_) holdsLevelZero_ = false;
    }
    return inner_->removeFile(name, deadline);
}

bool TrackingFS::refreshLockFile(const std::string& name,
                                 const boost::posix_time::ptime& deadline) {
    beforeRefresh(name);
    return inner_->refreshLockFile(name, deadline);
}

ovOwnedRefreshResult TrackingFS::refreshOwnedLockFile(const std::string& name,
                                                      const boost::posix_time::ptime& deadline,
                                                      const std::string& expected,
                                                      const std::string& content) {
    // The inner file system's own check-and-write (one open, exclusive
    // re-create), not the interface's default made of two other slots.
    beforeRefresh(name);
    const ovOwnedRefreshResult result = inner_->refreshOwnedLockFile(name, deadline, expected, content);
    if (result == ovRefreshFoundRewritten) {
        // Someone else's file (a take-over that lost to a rival's, or a held
        // file taken over): never ours to remove at clean-up.
        forget(name);
        std::lock_guard<std::mutex> guard(mutex_);
        if (isLevelZero(name) && boost::this_thread::get_id() == waiter_) holdsLevelZero_ = false;
    }
    return result;
}

void TrackingFS::beforeRefresh(const std::string& name) {
    // A rewrite is how a waiter takes over a stale level file: it is ours now.
    // Remember before the call, so an interruption inside it leaves no orphan.
    remember(name);
    if (isLevelZero(name)) {
        std::unique_lock<std::mutex> guard(mutex_);
        if (boost::this_thread::get_id() == waiter_) {
            // About to hold level 0 (an ovLockFile is being made for it). Once
            // an interruption was sent, refuse: the lock file's constructor
            // lets thread_interrupted out, and no timer exists yet to join.
            if (interrupted_) {
                guard.unlock();
                boost::this_thread::interruption_point();
                throw boost::thread_interrupted();
            }
            holdsLevelZero_ = true;
        }
    }
}

time_t TrackingFS::getFileLastModifiedTime(const char* path) {
    return inner_->getFileLastModifiedTime(path);
}
bool TrackingFS::matchingFileOrDirExists(const char* pattern) {
    checkCancelled();
    return inner_->matchingFileOrDirExists(pattern);
}
unsigned TrackingFS::findMatchingFilesAndDirs(const char* pattern, const ovStringProcedure& onFile,
                                              const ovStringProcedure& onDir, int depth,
                                              bool stopAtFirst) {
    checkCancelled();
    return inner_->findMatchingFilesAndDirs(pattern, onFile, onDir, depth, stopAtFirst);
}
uint16_t TrackingFS::disableWritePermission(const char* path) {
    return inner_->disableWritePermission(path);
}
uint16_t TrackingFS::enableWritePermission(const char* path) {
    return inner_->enableWritePermission(path);
}
bool TrackingFS::readLockFileContent(const std::string& name, std::string& content) {
    return inner_->readLockFileContent(name, content);
}

std::vector<std::string> TrackingFS::owned() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return std::vector<std::string>(owned_.begin(), owned_.end());
}

std::vector<std::string> TrackingFS::removeOwned() {
    std::vector<std::string> left;
    for (const std::string& name : owned()) {
        const boost::posix_time::ptime deadline =
            ovSteadyNow() + boost::posix_time::seconds(1);
        try {
            inner_->removeFile(name, deadline);
        } catch (...) {
        }
        try {
            if (inner_->fileExists(name.c_str())) left.push_back(name);
        } catch (const ovFileBasedLockError&) {
            // The directory itself has gone: nothing of ours is left in it.
        }
        forget(name);
    }
    return left;
}

}  // namespace orvane_tool
