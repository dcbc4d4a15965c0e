// Permission bits of one path. The modes returned are the whole st_mode
// (type bits included), so that a caller can hand one back unchanged to
// ovSetFilePermissions to undo a change.

#include <sys/stat.h>

#include "orvane/path.h"

namespace {

constexpr mode_t kWriteBits = S_IWUSR | S_IWGRP | S_IWOTH;  // 0222

// The status call's failure is not reported: a path that cannot be queried
// reads as mode 0, which is no mode a caller could mistake for a real one.
uint16_t modeOf(const char* path) {
    struct stat st;
    if (!path || ::stat(path, &st) != 0) return 0;
    return static_cast<uint16_t>(st.st_mode);
}

}  // namespace

uint16_t ovGetFilePermissions(const char* path) { return modeOf(path); }

int ovSetFilePermissions(const char* path, int mode) {
    if (!path) return -1;
    return ::chmod(path, static_cast<mode_t>(mode));
}

// The chmod result is ignored on purpose: the caller learns the old mode and
// finds out soon enough whether the write that follows works. Nothing is
// changed for a path that could not be queried.
uint16_t ovEnableWritePermission(const char* path) {
    const uint16_t old = modeOf(path);
    if (old) ::chmod(path, (old | kWriteBits) & 07777);
    return old;
}

uint16_t ovDisableWritePermission(const char* path) {
    const uint16_t old = modeOf(path);
    if (old) ::chmod(path, (old & ~kWriteBits) & 07777);
    return old;
}
