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

}  // namespace detail

#endif
