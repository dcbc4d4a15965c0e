#include "fs/posix_io.h"

#include <errno.h>
#include <fcntl.h>
#include <pwd.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "orvane/path.h"

namespace detail {

namespace {

// Lock files are created readable and writable by everyone; the umask then
// decides, as for any file the caller creates.
constexpr mode_t kLockFileMode = 0777;

bool isRegularOrMissing(const char* path) {
    struct stat st;
    return ::lstat(path, &st) != 0 || S_ISREG(st.st_mode);
}

// Every open of a lock file: never through a symbolic link (another user may
// put one at a lock name, pointing anywhere root can write), never blocking
// (a FIFO or device in its place must not hang us), never inherited, and only
// ever of a regular file. Anything else at the name is kNotRegularFile,
// whatever error the open itself gave (ELOOP, EISDIR, ENXIO, ...).
int openLockFile(const char* path, int flags, mode_t mode, ScopedFd& fd) {
    if (!path) return EFAULT;
    for (;;) {
        const int r = ::open(path, flags | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY, mode);
        if (r < 0) {
            if (errno == EINTR) continue;
            const int err = errno;
            return err == EEXIST || isRegularOrMissing(path) ? err : kNotRegularFile;
        }
        fd.reset(r);
        struct stat st;
        if ((flags & O_EXCL) == 0 && (::fstat(r, &st) != 0 || !S_ISREG(st.st_mode))) {
            fd.reset();
            return kNotRegularFile;
        }
        return 0;
    }
}

// An sftp-based network mount reports a lost exclusive-create race as EPERM:
// its protocol has no "already exists" answer. Said of a name that exists,
// EPERM means just that, and lock contention must not read as a file-system
// fault. The name may also be gone again by the time we look (its holder
// released it in between): then the create is simply tried again. Only an
// EPERM that keeps coming about a missing name is a real refusal.
constexpr int kLostRaceRetries = 8;

//
// A network client can also answer EEXIST from its own cache for a name that
// another client removed (see entryPresent): the create is tried once more
// when the file server says the name is gone.
int exclusiveCreate(const char* path, int access, ScopedFd& fd) {
    int err = 0;
    bool askedServer = false;
    for (int attempt = 0; attempt <= kLostRaceRetries; ++attempt) {
        err = openLockFile(path, access | O_CREAT | O_EXCL, kLockFileMode, fd);
        if (err == EEXIST) {
            if (askedServer || entryPresent(path) != ENOENT) return EEXIST;
            askedServer = true;
            continue;
        }
        if (err != EPERM) return err;
        if (entryPresent(path) == 0) return EEXIST;
    }
    return err;
}

// Any attribute name will do: only whether the server knows the file matters.
const char kProbeAttribute[] = "user.orvane.probe";

// Network clients keep names that another client removed: an sshfs client
// for 20 s, a GlusterFS client about 1 s. lstat, and even a failed exclusive
// create, are answered from those caches, so a released lock would look held
// and a waiter on another client would stall. Two calls that change nothing
// do reach the server, and a "no such file" from either makes the client
// forget the name:
// - reading an extended attribute (GlusterFS asks the server by file identity;
//   a local file system answers at once);
// - where the client has no extended attributes (sshfs, NFSv3), opening the
//   file for reading, which the server resolves by name. Only a regular file
//   is opened: junk such as a FIFO could make the server's side block.
// The attribute asks about the file the client knew. That file may be gone
// while a new one has the name (a lock released and taken again through
// another client), so the name is looked up once more before it counts as
// free: a false "gone" would let a reader in beside a writer.
int askServer(const char* path, const struct stat& cached) {
    char value[1];
    if (::lgetxattr(path, kProbeAttribute, value, sizeof value) >= 0) return 0;
    const int err = errno;
    if (err == ENOENT || err == ESTALE) {
        struct stat st;
        return ::lstat(path, &st) == 0 ? 0 : errno;
    }
    if (err == ENODATA || err == ERANGE || !S_ISREG(cached.st_mode)) return 0;
    const int fd = ::open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
    if (fd >= 0) {
        ::close(fd);
        return 0;
    }
    return errno == ENOENT ? ENOENT : 0;
}

}  // namespace

void ScopedFd::reset(int fd) {
    // A close error cannot be acted on here: the descriptor is gone either way.
    if (fd_ >= 0) ::close(fd_);
    fd_ = fd;
}

int openExclusiveCreate(const char* path, ScopedFd& fd) {
    return exclusiveCreate(path, O_WRONLY, fd);
}

int openForRewrite(const char* path, ScopedFd& fd) {
    const int err = openLockFile(path, O_WRONLY, 0, fd);
    // A missing file is created exclusively: if another process created it
    // meanwhile, it is theirs, and EEXIST says so.
    return err == ENOENT ? exclusiveCreate(path, O_WRONLY, fd) : err;
}

int openExistingForUpdate(const char* path, ScopedFd& fd) { return openLockFile(path, O_RDWR, 0, fd); }

int openExclusiveCreateForUpdate(const char* path, ScopedFd& fd) {
    return exclusiveCreate(path, O_RDWR, fd);
}

int readHeadAt0(const ScopedFd& fd, std::string& content, size_t maxBytes) {
    content.assign(maxBytes, '\0');
    size_t got = 0;
    while (got < maxBytes) {
        const ssize_t n = ::pread(fd.get(), &content[got], maxBytes - got, static_cast<off_t>(got));
        if (n == 0) break;
        if (n < 0) {
            if (errno == EINTR) continue;
            content.clear();
            return errno;
        }
        got += static_cast<size_t>(n);
    }
    content.resize(got);
    return 0;
}

int writeAllAt0(const ScopedFd& fd, const std::string& bytes) {
    size_t done = 0;
    while (done < bytes.size()) {
        errno = 0;
        const ssize_t n = ::pwrite(fd.get(), bytes.data() + done, bytes.size() - done,
                                   static_cast<off_t>(done));
        if (n > 0) {
            done += static_cast<size_t>(n);
            continue;
        }
        if (n < 0 && errno == EINTR) continue;
        return n < 0 && errno != 0 ? errno : EIO;
    }
    return 0;
}

int writeUint32(const ScopedFd& fd, uint32_t value) {
    for (;;) {
        errno = 0;
        const ssize_t n = ::write(fd.get(), &value, sizeof value);
        if (n == static_cast<ssize_t>(sizeof value)) return 0;
        if (n < 0 && errno == EINTR) continue;
        return n < 0 && errno != 0 ? errno : EIO;
    }
}

int readFileHead(const char* path, std::string& content, size_t maxBytes) {
    ScopedFd fd;
    const int err = openLockFile(path, O_RDONLY, 0, fd);
    if (err != 0) return err;
    content.clear();
    char buf[4096];
    while (content.size() < maxBytes) {
        const size_t want = std::min(sizeof buf, maxBytes - content.size());
        const ssize_t n = ::read(fd.get(), buf, want);
        if (n == 0) break;
        if (n < 0) {
            if (errno == EINTR) continue;
            return errno;
        }
        content.append(buf, static_cast<size_t>(n));
    }
    return 0;
}

int removePath(const char* path) {
    if (!path) return EFAULT;
    return std::remove(path) == 0 ? 0 : errno;
}

int modificationTime(const char* path, time_t& seconds) {
    if (!path) return EFAULT;
    // The entry's own time: a link at a lock name is judged as junk by its
    // age, never by its target's.
    struct stat st;
    if (::lstat(path, &st) != 0) return errno;
    seconds = st.st_mtime;  // whole seconds: the sub-second part is dropped
    return 0;
}

int entryPresent(const char* path) {
    if (!path) return EFAULT;
    struct stat st;
    if (::lstat(path, &st) != 0) return errno;
    return askServer(path, st);
}

std::string entryOwner(const char* path) {
    struct stat st;
    if (!path || ::lstat(path, &st) != 0) return "an unknown user";
    char buf[1024];
    struct passwd pw, *found = nullptr;
    if (::getpwuid_r(st.st_uid, &pw, buf, sizeof buf, &found) == 0 && found)
        return std::string(found->pw_name) + " (uid " + std::to_string(st.st_uid) + ")";
    return "uid " + std::to_string(st.st_uid);
}

std::string errorText(int err) {
    if (err == kNotRegularFile) return "not a regular file";
    char buf[256];
    // GNU strerror_r: thread-safe, returns the text (maybe not in buf).
    return std::string(::strerror_r(err, buf, sizeof buf));
}

bool parentIsDirectory(const std::string& path) {
    const std::string::size_type slash = path.rfind('/');
    // No "/" at all, or only a leading one: the parent is the empty text,
    // which is never a directory. Kept on purpose: such a lock file has no
    // usable directory, and failures on it report a missing directory.
    if (slash == std::string::npos || slash == 0) return false;
    return ovIsDirectory(path.substr(0, slash).c_str());
}

}  // namespace detail
