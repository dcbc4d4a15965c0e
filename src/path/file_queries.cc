// Single questions about one path, each one status call. Failures answer
// false or 0 and leave errno as the system set it.

#include <sys/stat.h>
#include <sys/statvfs.h>

#include "orvane/path.h"

bool ovFileOrDirExists(const char* path) {
    struct stat st;
    return path && ::stat(path, &st) == 0;  // follows links: a dangling one does not exist
}

bool ovFileExists(const char* path) {
    struct stat st;
    return path && ::stat(path, &st) == 0 && !S_ISDIR(st.st_mode);
}

bool ovIsDirectory(const char* path) {
    if (!path || !*path) return false;
    struct stat st;
    return ::stat(path, &st) == 0 && S_ISDIR(st.st_mode);
}

uint64_t ovGetFileSize(const char* path) {
    struct stat st;
    if (!path || ::stat(path, &st) != 0) return 0;
    return static_cast<uint64_t>(st.st_size);
}

bool ovGetFileSystemAvailableSpace(const char* path, uint64_t* bytes) {
    if (!bytes) return false;
    *bytes = ~static_cast<uint64_t>(0);
    struct statvfs vfs;
    if (!path || ::statvfs(path, &vfs) != 0 || vfs.f_bsize == 0) return false;
    // All free blocks, the superuser's reserve included, times the preferred
    // block size: what callers of this function have always been told.
    *bytes = static_cast<uint64_t>(vfs.f_bsize) * static_cast<uint64_t>(vfs.f_bfree);
    return true;
}
