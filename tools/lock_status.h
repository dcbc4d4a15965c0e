#ifndef ORVANE_TOOLS_LOCK_STATUS_H
#define ORVANE_TOOLS_LOCK_STATUS_H

// `orvane-lock status DIR`: the lock files in a directory, their roles, and
// their ages by the file server's clock.

#include <ostream>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>

#include "orvane/fs.h"

namespace orvane_tool {

struct LockFileInfo {
    std::string name;  // file name inside the directory
    std::string role;  // "queue holder", "queue waiter", "writer", "reader"
    long level = -1;       // queue level, or -1 for the read/write lock's files
    long ageSeconds = 0;   // by the file server's clock
    bool stale = false;    // not refreshed for more than kStaleSeconds
    bool refreshing = false;  // content changed while watched: a holder is at work
};

constexpr long kStaleSeconds = 30;
// How long the content of the lock files is watched for a refresh (holders
// refresh every second).
constexpr double kRefreshWatchSeconds = 1.5;

// Lists DIR and judges every lock file found, watching their content for a
// refresh for up to kRefreshWatchSeconds. Files that vanish meanwhile
// are left out. Throws the ovFileBasedLockError family (the clock is measured
// with a probe file, so DIR must be writable).
std::vector<LockFileInfo> collectLockFiles(const std::string& dir,
                                           const boost::shared_ptr<ovAbstractFS>& fs);

void printTable(std::ostream& out, const std::string& dir, const std::vector<LockFileInfo>& files);
void printJson(std::ostream& out, const std::string& dir, const std::vector<LockFileInfo>& files);

// JSON string literal for arbitrary bytes (control characters escaped).
std::string jsonString(const std::string& text);

}  // namespace orvane_tool

#endif
