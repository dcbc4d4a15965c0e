#include <errno.h>

#include "fs/error_messages.h"
#include "fs/lock_file_errors.h"
#include "fs/posix_io.h"
#include "fs/sleep.h"
#include "orvane/fs.h"

namespace {

// A refresh rewrites only the first 4 bytes, so a change always shows within
// this much; the cap keeps a stray huge file from being read whole each poll.
constexpr size_t kMaxLockFileContent = 64 * 1024;

}  // namespace

ovAbstractFS::~ovAbstractFS() {}

bool ovAbstractFS::refreshLockFile(const std::string& name) {
    // The form the lock file's timer binds: one second to get it done.
    return refreshLockFile(name, detail::steadyNow() + boost::posix_time::seconds(1));
}

bool ovAbstractFS::readLockFileContent(const std::string& name, std::string& content) {
    // A fresh open each time: clients that cache attributes (and so report
    // modification times late) still see every rewrite of the content.
    const int err = detail::readFileHead(name.c_str(), content, kMaxLockFileContent);
    if (err == ENOENT) return false;
    if (err != 0)
        detail::throwFileAccess(detail::kReadFailed + name + detail::kReasonOpen + detail::errorText(err) +
                                detail::kReasonClose);
    return true;
}

ovOwnedRefreshResult ovAbstractFS::refreshOwnedLockFile(const std::string& name,
                                                        const boost::posix_time::ptime& deadline,
                                                        const std::string& expected,
                                                        const std::string& content) {
    std::string current;
    bool present;
    try {
        present = readLockFileContent(name, current);
    } catch (const ovFileAccessError&) {
        return ovRefreshFailed;  // unreadable for now: like a refresh that gave up
    }
    if (present && !expected.empty() && current.compare(0, expected.size(), expected) != 0)
        return ovRefreshFoundRewritten;
    // The slot's own touch first: wrappers and test file systems that count,
    // track or fail refreshes see this one too.
    if (!refreshLockFile(name, deadline)) return ovRefreshFailed;
    // The slots can only write a counter; the holder's content follows.
    detail::ScopedFd fd;
    if (detail::openExistingForUpdate(name.c_str(), fd) != 0 || detail::writeAllAt0(fd, content) != 0)
        return ovRefreshFailed;
    return present ? ovRefreshedOwned : ovRefreshFoundMissing;
}
