#ifndef ORVANE_FS_ERROR_MESSAGES_H
#define ORVANE_FS_ERROR_MESSAGES_H

// The fixed message prefixes of the lock-error family. Every throw site builds
// its message as one of these followed directly by the subject (a path or a
// detail text), so callers and tests can rely on the exact wording.

namespace detail {

constexpr const char kNoSuchDirectoryPrefix[] = "Tried to obtain a lock on a non-existent directory: ";
constexpr const char kPermissionDeniedPrefix[] =
    "Tried to obtain a lock on a directory without write permission: ";
constexpr const char kFileNotFoundPrefix[] = "File not found: ";
constexpr const char kFileAccessPrefix[] = "File system error occurred: ";

// Detail text of a failed exclusive create, appended to kFileAccessPrefix:
// kExclusiveCreateFailed + path + kReasonOpen + strerror(errno) + kReasonClose.
constexpr const char kExclusiveCreateFailed[] = "Exclusive create failed on ";
constexpr const char kReasonOpen[] = " (reason: ";
constexpr const char kReasonClose[] = ")";
// Likewise for a lock file whose content could not be read.
constexpr const char kReadFailed[] = "Reading failed on ";
constexpr const char kWriteFailed[] = "Writing failed on ";

}  // namespace detail

#endif
