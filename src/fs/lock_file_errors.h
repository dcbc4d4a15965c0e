#ifndef ORVANE_FS_LOCK_FILE_ERRORS_H
#define ORVANE_FS_LOCK_FILE_ERRORS_H

// The one place where failures on lock files become the error family: each
// builds its message as the fixed prefix followed directly by the subject.

#include <string>

namespace detail {

[[noreturn]] void throwNoSuchDirectory(const std::string& path);
[[noreturn]] void throwPermissionDenied(const std::string& path);
[[noreturn]] void throwFileNotFound(const std::string& path);
[[noreturn]] void throwFileAccess(const std::string& subject);
// "Exclusive create failed on <path> (reason: <error text>)".
[[noreturn]] void throwExclusiveCreateFailed(const std::string& path, int err);

// The rule shared by exclusive create and refresh, in this order: a path
// without a usable parent directory is a missing directory whatever err is;
// then EACCES is a missing permission. Returns for every other error.
void throwIfNoDirectoryOrNoPermission(const std::string& path, int err);

// A lock file that cannot be written for want of room (ENOSPC, EDQUOT) will
// not be writable a moment later either: "Writing failed on <path> (reason:
// <error text>)" at once, instead of retrying until a deadline and holding a
// lock whose file no refresh can renew. Returns for every other error.
void throwIfOutOfSpace(const std::string& path, int err);

}  // namespace detail

#endif
