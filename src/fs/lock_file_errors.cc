#include "fs/lock_file_errors.h"

#include <errno.h>

#include "fs/error_messages.h"
#include "fs/posix_io.h"
#include "orvane/fs.h"

namespace detail {

void throwNoSuchDirectory(const std::string& path) {
    throw ovNoSuchDirectory(kNoSuchDirectoryPrefix + path);
}

void throwPermissionDenied(const std::string& path) {
    throw ovPermissionDenied(kPermissionDeniedPrefix + path);
}

void throwFileNotFound(const std::string& path) { throw ovFileNotFoundError(kFileNotFoundPrefix + path); }

void throwFileAccess(const std::string& subject) { throw ovFileAccessError(kFileAccessPrefix + subject); }

void throwExclusiveCreateFailed(const std::string& path, int err) {
    throwFileAccess(kExclusiveCreateFailed + path + kReasonOpen + errorText(err) + kReasonClose);
}

void throwIfNoDirectoryOrNoPermission(const std::string& path, int err) {
    // The directory test comes first, for every error number (EEXIST too).
    if (!parentIsDirectory(path)) throwNoSuchDirectory(path);
    if (err == EACCES) throwPermissionDenied(path);
}

void throwIfOutOfSpace(const std::string& path, int err) {
    if (err == ENOSPC || err == EDQUOT)
        throwFileAccess(kWriteFailed + path + kReasonOpen + errorText(err) + kReasonClose);
}

}  // namespace detail
