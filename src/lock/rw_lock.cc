// The read/write lock object: a directory and a file system from which
// reader and writer handles are handed out. It holds no lock itself.

#include "orvane/rw_lock.h"

ovDirectoryReadWriteLock::ovDirectoryReadWriteLock(const std::string& dir,
                                                   const boost::shared_ptr<ovAbstractFS>& fs_)
    : directory(dir), fs(fs_) {}

// Handles outlive the object: they hold their own copies of both members.
ovDirectoryReadWriteLock::~ovDirectoryReadWriteLock() {}

ovDirectoryReadWriteLock::ReadLock ovDirectoryReadWriteLock::getReadLock() {
    return ReadLock(directory, fs);
}

ovDirectoryReadWriteLock::WriteLock ovDirectoryReadWriteLock::getWriteLock() {
    return WriteLock(directory, fs);
}
