// Judging and removing what the read/write lock finds at its files' names.

#include <errno.h>
#include <pwd.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include <boost/make_shared.hpp>

#include "lock/rw_lock_internal.h"
#include "lock/stale_confirmation.h"
#include "orvane/log_channel.h"

namespace pt = boost::posix_time;

namespace detail {

namespace {

const long kStaleSeconds = 30;

// "alice (uid 1000)", or "uid 1000" for a uid without a name here.
std::string ownerText(uid_t uid) {
    struct passwd pw;
    struct passwd* found = nullptr;
    std::vector<char> buf(16384);
    const std::string id = "uid " + std::to_string(static_cast<unsigned long>(uid));
    if (::getpwuid_r(uid, &pw, buf.data(), buf.size(), &found) == 0 && found && found->pw_name)
        return std::string(found->pw_name) + " (" + id + ")";
    return id;
}

}  // namespace

EntryVerdict judgeLockEntry(RwHandleState& state, const std::string& name, const pt::ptime& deadline) {
    struct stat st;
    if (::lstat(name.c_str(), &st) == 0 && S_ISLNK(st.st_mode)) {
        if (!state.linkClock)
            state.linkClock = boost::make_shared<FileTimeCalibration>(state.directory, deadline, state.fs);
        const pt::time_duration age = utcNow() - (*state.linkClock)(static_cast<long>(st.st_mtime));
        const pt::time_duration maxAge = pt::seconds(kStaleSeconds);
        // Dated far ahead proves nothing either, as for any lock file.
        return age.is_special() || age > maxAge || age < -maxAge ? EntryVerdict::Stale : EntryVerdict::Live;
    }
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
                << (seen ? ownerText(st.st_uid) : std::string("an unknown user"))
                << "; waiting for it to go" << std::endl;
    }
    return false;
}

}  // namespace detail
