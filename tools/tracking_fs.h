#ifndef ORVANE_TOOLS_TRACKING_FS_H
#define ORVANE_TOOLS_TRACKING_FS_H

// A file system that forwards every call to another one and remembers which
// files this process created (or took over by rewriting) and has not removed
// since. A lock call cut short by thread interruption leaves its queue file
// behind on purpose (another process takes it over once it is stale); the
// tool cannot wait 30 seconds for that, so it removes what it still owns.
//
// It also cancels a waiting acquire safely. The waiter is never interrupted
// while it holds the directory's level-0 file (the read/write locks take it
// for each check), so an interruption never lands between taking that file
// and giving it back; a read/write acquire that holds it is stopped instead
// by its next check, which throws Cancelled. (~ovLockFile itself waits for
// its threads without being interrupted.)

#include <mutex>
#include <set>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>
#include <boost/thread/thread.hpp>

#include "orvane/fs.h"

namespace orvane_tool {

// Thrown by the read/write locks' check once the wait is cancelled. An
// ovFileAccessError, so it leaves their acquire like any file error would,
// after the exclusive lock and the handle's mutex were given back.
class Cancelled : public ovFileAccessError {
public:
    Cancelled() : ovFileAccessError("cancelled") {}
};

class TrackingFS : public ovAbstractFS {
public:
    using ovAbstractFS::refreshLockFile;

    explicit TrackingFS(const boost::shared_ptr<ovAbstractFS>& inner);

    bool isDir(const char* path) override;
    bool mkDir(const char* path) override;
    int rmDir(const char* path) override;
    bool rmSubFolderTree(const char* path) override;
    bool fileExists(const char* path) override;
    bool createFile(const char* path) override;
    bool removeFile(const std::string& name, const boost::posix_time::ptime& deadline) override;
    bool refreshLockFile(const std::string& name,
                         const boost::posix_time::ptime& deadline) override;
    time_t getFileLastModifiedTime(const char* path) override;
    bool matchingFileOrDirExists(const char* pattern) override;
    unsigned findMatchingFilesAndDirs(const char* pattern, const ovStringProcedure& onFile,
                                      const ovStringProcedure& onDir, int depth,
                                      bool stopAtFirst) override;
    uint16_t disableWritePermission(const char* path) override;
    uint16_t enableWritePermission(const char* path) override;
    bool readLockFileContent(const std::string& name, std::string& content) override;
    ovOwnedRefreshResult refreshOwnedLockFile(const std::string& name,
                                              const boost::posix_time::ptime& deadline,
                                              const std::string& expected,
                                              const std::string& content) override;

    // The thread that waits for the lock; call from that thread first.
    void setWaiter(boost::thread::id waiter);
    // From another thread: make the waiter give up as soon as it safely can.
    // Call again until the waiter has finished (an interruption is only sent
    // while it holds no level-0 file).
    void cancel(boost::thread& waiter);

    // The lock is held: the files owned now are its held file, which is the
    // lock's to release (or to leave to its new holder after a loss), never
    // removeOwned()'s. They are no longer tracked until removed.
    void keepHeld();

    // Files created or rewritten here and not removed since.
    std::vector<std::string> owned() const;
    // Removes them (no retries beyond the inner removeFile's own); returns
    // the names that could not be removed.
    std::vector<std::string> removeOwned();

private:
    void remember(const std::string& name);
    void forget(const std::string& name);
    // What every refresh does before the inner call.
    void beforeRefresh(const std::string& name);
    static bool isLevelZero(const std::string& name);
    void checkCancelled() const;

    boost::shared_ptr<ovAbstractFS> inner_;
    mutable std::mutex mutex_;  // refresh timers call in from their own threads
    std::set<std::string> owned_;
    std::set<std::string> held_;  // see keepHeld()
    boost::thread::id waiter_;
    bool holdsLevelZero_ = false;  // the waiter's level-0 file, with its timer
    bool cancelled_ = false;
    bool interrupted_ = false;
};

}  // namespace orvane_tool

#endif
