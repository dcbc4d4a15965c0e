// Judging and removing what the read/write lock finds at its files' names.

#include <errno.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "fs/posix_io.h"
#include "lock/rw_lock_internal.h"
#include "lock/stale_confirmation.h"
#include "orvane/log_channel.h"

namespace pt = boost::posix_time;

namespace detail {

namespace {

const long kStaleSeconds = 30;

}  // namespace

EntryVerdict judgeLockEntry(RwHandleState& state, const std::string& name, const pt::ptime& deadline) {
    // A link or other junk is judged by its own date (the judge reads it with
    // lstat), then by a watch that can read nothing in it: unchanged.
    bool stale;
    try {
        stale = state.staleTest(name.c_str(), kStaleSeconds, deadline);
    } catch (const ovFileNotFoundError&) {
        // Holders release without the exclusive lock: the file went between
        // our look and the judge's. An ordinary race.
        return EntryVerdict::Gone;
    }
    if (!stale) {
        keepRecentRead(*state.fs, name);
        return EntryVerdict::Live;
    }
    // An attribute-caching client can see a live holder's file tens of
    // seconds old; its content still changes with every refresh.
    switch (confirmStale(*state.fs, name, deadline)) {
        case StaleCheck::Live:
            return EntryVerdict::Live;
        case StaleCheck::Gone:
            return EntryVerdict::Gone;
        case StaleCheck::Stale:
            break;
    }
    return EntryVerdict::Stale;
}

bool removeStaleEntry(RwHandleState& state, const std::string& name, const pt::ptime& deadline) {
    try {
        if (state.fs->removeFile(name, deadline)) return true;
    } catch (const ovPermissionDenied&) {
        // No write permission on the directory: the entry stays, as below.
    }
    struct stat st;
    const bool seen = ::lstat(name.c_str(), &st) == 0;
    if (!seen && errno == ENOENT) return true;
    // Silently waiting on a file nobody here can remove looks like a hang:
    // say whose it is, so that its owner (or an administrator) can clear it.
    if (state.warnedKept.insert(name).second) {
        warning << "FS_LOCK: cannot remove stale lock file " << name << " owned by "
                << (seen ? entryOwner(name.c_str()) : std::string("an unknown user"))
                << "; waiting for it to go" << std::endl;
    }
    return false;
}

}  // namespace detail
