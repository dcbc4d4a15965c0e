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
    return judgeLockEntries(state, std::vector<std::string>(1, name), deadline)[0];
}

std::vector<EntryVerdict> judgeLockEntries(RwHandleState& state, const std::vector<std::string>& names,
                                           const pt::ptime& deadline) {
    std::vector<EntryVerdict> verdicts(names.size(), EntryVerdict::Live);
    std::vector<std::string> watched;
    std::vector<size_t> at;
    for (size_t i = 0; i < names.size(); ++i) {
        // A link or other junk is judged by its own date (the judge reads it
        // with lstat), then by a watch that can read nothing in it: unchanged.
        bool stale;
        try {
            stale = state.staleTest(names[i].c_str(), kStaleSeconds, deadline);
        } catch (const ovFileNotFoundError&) {
            // Holders release without the exclusive lock: the file went
            // between our look and the judge's. An ordinary race.
            verdicts[i] = EntryVerdict::Gone;
            continue;
        }
        if (!stale) {
            keepRecentRead(*state.fs, names[i]);
            continue;
        }
        watched.push_back(names[i]);
        at.push_back(i);
    }
    // An attribute-caching client can see a live holder's file tens of
    // seconds old; its content still changes with every refresh. All that
    // look stale are watched together: ten dead readers cost one watch.
    const std::vector<StaleCheck> checks = confirmStaleAll(*state.fs, watched, deadline);
    for (size_t k = 0; k < checks.size(); ++k) {
        switch (checks[k]) {
            case StaleCheck::Live: verdicts[at[k]] = EntryVerdict::Live; break;
            case StaleCheck::Gone: verdicts[at[k]] = EntryVerdict::Gone; break;
            case StaleCheck::Stale: verdicts[at[k]] = EntryVerdict::Stale; break;
        }
    }
    return verdicts;
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
