// The exclusive lock's object and the small operations on one level's file.
// Each operation makes exactly one call on the file system and admits only
// the errors listed next to it.

#include <string>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <boost/thread/exceptions.hpp>

#include "common/only_throws.h"
#include "orvane/exclusive_lock.h"
#include "timer/steady_clock.h"

namespace pt = boost::posix_time;

ovDirectoryExclusiveLock::ovDirectoryExclusiveLock(const std::string& directory_,
                                                   const std::string& ownerName_,
                                                   const boost::shared_ptr<ovAbstractFS>& fs_)
    : busy(false),
      directory(directory_),
      ownerName(ownerName_),
      holdCount(0),
      staleTest(ovPathString(directory_), fs_ ? fs_ : ovGetDefaultFSImp()),
      fs(fs_ ? fs_ : ovGetDefaultFSImp()) {}

// No release step of its own: the members go in reverse order, and a held
// level-0 ovLockFile removes its file as it goes, so the directory is free at
// once for other processes instead of after 30 seconds.
ovDirectoryExclusiveLock::~ovDirectoryExclusiveLock() {}

std::string ovDirectoryExclusiveLock::getLockFileName(int level) const {
    return detail::onlyThrows<>([&] {
        // The directory is used unchanged: a trailing separator gives "//".
        return directory + "/.deploy_lock." + std::to_string(level);
    });
}

bool ovDirectoryExclusiveLock::lockFileExists(int level) const {
    return detail::onlyThrows<ovNoSuchDirectory>(
        [&] { return fs->fileExists(getLockFileName(level).c_str()); });
}

bool ovDirectoryExclusiveLock::createLockFileExclusive(int level) const {
    return detail::onlyThrows<ovFileAccessError, ovPermissionDenied, ovNoSuchDirectory>(
        [&] { return fs->createFile(getLockFileName(level).c_str()); });
}

bool ovDirectoryExclusiveLock::touchLockFile(int level, const pt::ptime& deadline) const {
    // ovFileAccessError: no room left to write the file.
    return detail::onlyThrows<boost::thread_interrupted, ovPermissionDenied, ovNoSuchDirectory, ovFileAccessError>(
        [&] { return fs->refreshLockFile(getLockFileName(level), deadline); });
}

bool ovDirectoryExclusiveLock::removeLockFileWithTenacity(int level,
                                                          const pt::ptime& deadline) const {
    return detail::onlyThrows<boost::thread_interrupted, ovPermissionDenied>(
        [&] { return fs->removeFile(getLockFileName(level), deadline); });
}

bool ovDirectoryExclusiveLock::removeLockFileWithTenacity(int level) const {
    return detail::onlyThrows<boost::thread_interrupted, ovPermissionDenied>([&] {
        return fs->removeFile(getLockFileName(level),
                              detail::steadyNow() + pt::seconds(1));
    });
}

bool ovDirectoryExclusiveLock::removeLockFile(int level) const {
    // A deadline that has already come: one attempt only.
    return detail::onlyThrows<boost::thread_interrupted, ovPermissionDenied>([&] {
        return fs->removeFile(getLockFileName(level), detail::steadyNow());
    });
}
