#ifndef ORVANE_FS_POSIX_IO_H
#define ORVANE_FS_POSIX_IO_H

// Thin named wrappers over the system calls of the file layer. Each returns 0
// on success or the errno it failed with (EINTR already retried), so that the
// callers decide what an error means in one place.

#include <stdint.h>
#include <time.h>

#include <string>

namespace detail {

// Returned, like an errno, for an open that found something other than a
// regular file at a lock name: a link, a FIFO, a directory, a device.
constexpr int kNotRegularFile = -1;

// Every open below uses O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC and accepts only a
// regular file.

// Owns one descriptor; closes it when it goes.
class ScopedFd {
public:
    ScopedFd() = default;
    ~ScopedFd() { reset(); }
    ScopedFd(const ScopedFd&) = delete;
    ScopedFd& operator=(const ScopedFd&) = delete;

    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }
    void reset(int fd = -1);

private:
    int fd_ = -1;
};

// open(O_WRONLY | O_CREAT | O_EXCL, 0777): the file did not exist and now
// belongs to us. EEXIST also stands for an EPERM about a name that exists;
// an EPERM about a missing name is tried again a few times first, and so is
// an EEXIST about a name the file server no longer has.
int openExclusiveCreate(const char* path, ScopedFd& fd);
// open(O_WRONLY) of the existing file, or exclusive create of a missing one:
// no truncation, so a refresh never leaves an empty lock file behind.
int openForRewrite(const char* path, ScopedFd& fd);
// open(O_RDWR): an owned lock file is checked and rewritten in one open, and
// only if it is still there (a missing one is recreated by openExclusiveCreate).
int openExistingForUpdate(const char* path, ScopedFd& fd);
// open(O_RDWR | O_CREAT | O_EXCL): recreates a lock file found missing; EPERM
// is read as for openExclusiveCreate.
int openExclusiveCreateForUpdate(const char* path, ScopedFd& fd);
// Reads at most maxBytes from offset 0 of an open file.
int readHeadAt0(const ScopedFd& fd, std::string& content, size_t maxBytes);
// Writes all of bytes at offset 0; EIO for a short write that set no errno.
int writeAllAt0(const ScopedFd& fd, const std::string& bytes);
// Writes the 4 bytes of value at the current position; EIO for a short write
// that set no errno.
int writeUint32(const ScopedFd& fd, uint32_t value);
// Reads at most maxBytes of the file through a fresh open.
int readFileHead(const char* path, std::string& content, size_t maxBytes);
int removePath(const char* path);
// The modification time of the entry itself (lstat: a link is not followed).
int modificationTime(const char* path, time_t& seconds);
// Whether anything, even a dangling link, is at path: 0, ENOENT, or the errno
// that made it impossible to tell. A name found in the client's caches is
// checked with the file server (one more call), so a name that another
// network client removed reads as gone at once.
int entryPresent(const char* path);
// The owner of the entry at path (lstat), as a user name or "uid N".
std::string entryOwner(const char* path);

// The system's text for an error number.
std::string errorText(int err);

// Whether the text before the last "/" of path names a directory. A bare
// name, or a name directly under "/", has no usable parent: false.
bool parentIsDirectory(const std::string& path);

}  // namespace detail

#endif
