#ifndef ORVANE_FS_H
#define ORVANE_FS_H

// The file-system interface through which every lock touches the disk, its
// implementation for directories shared over a network file system, and the
// exception family of the locking code.

#include <stdint.h>
#include <time.h>

#include <exception>
#include <string>

#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <boost/noncopyable.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/thread/once.hpp>

#include "orvane/export.h"
#include "orvane/path.h"
#include "orvane/timer.h"

// ---- Errors ----------------------------------------------------------------

// Root of the family. Derives from std::exception directly; the four kinds
// below are siblings that add no data, so a closed list can match each one.
class OV_API ovFileBasedLockError : public std::exception {
public:
    explicit ovFileBasedLockError(const std::string& message);
    ~ovFileBasedLockError() override;
    const char* what() const noexcept override;

private:
    std::string message_;
};

// The directory meant to hold a lock file does not exist.
class OV_API ovNoSuchDirectory : public ovFileBasedLockError {
public:
    explicit ovNoSuchDirectory(const std::string& message);
    ~ovNoSuchDirectory() override;
};

// The directory exists but files may not be created or removed in it.
class OV_API ovPermissionDenied : public ovFileBasedLockError {
public:
    explicit ovPermissionDenied(const std::string& message);
    ~ovPermissionDenied() override;
};

// A file whose attributes were asked for does not exist.
class OV_API ovFileNotFoundError : public ovFileBasedLockError {
public:
    explicit ovFileNotFoundError(const std::string& message);
    ~ovFileNotFoundError() override;
};

// Any other operating-system failure on a file.
class OV_API ovFileAccessError : public ovFileBasedLockError {
public:
    explicit ovFileAccessError(const std::string& message);
    ~ovFileAccessError() override;
};

// ---- The file-system interface ---------------------------------------------

// What refreshOwnedLockFile found before it wrote (or did not write).
enum ovOwnedRefreshResult {
    ovRefreshedOwned = 0,     // still this holder's content: rewritten
    ovRefreshFoundMissing,    // gone: recreated with the new content
    ovRefreshFoundRewritten,  // someone else's content now: left untouched
    ovRefreshFailed           // gave up at the deadline
};

// Every deadline given to a slot below is on the library's steady time line:
// compare it with ovSteadyNow() (orvane/timer.h), never with a calendar clock.
class OV_API ovAbstractFS : private boost::noncopyable {
public:
    virtual ~ovAbstractFS();

    virtual bool isDir(const char* path) = 0;
    virtual bool mkDir(const char* path) = 0;
    virtual int rmDir(const char* path) = 0;
    virtual bool rmSubFolderTree(const char* path) = 0;
    virtual bool fileExists(const char* path) = 0;
    // Exclusive create: true only if this call created the file.
    virtual bool createFile(const char* path) = 0;
    virtual bool removeFile(const std::string& name,
                            const boost::posix_time::ptime& deadline) = 0;
    // Rewrites the file (creating it if missing) so that its modification
    // time and content change; retries until the deadline.
    virtual bool refreshLockFile(const std::string& name,
                                 const boost::posix_time::ptime& deadline) = 0;
    virtual time_t getFileLastModifiedTime(const char* path) = 0;
    virtual bool matchingFileOrDirExists(const char* pattern) = 0;
    virtual unsigned findMatchingFilesAndDirs(const char* pattern, const ovStringProcedure& onFile,
                                              const ovStringProcedure& onDir, int depth,
                                              bool stopAtFirst) = 0;
    virtual uint16_t disableWritePermission(const char* path) = 0;
    virtual uint16_t enableWritePermission(const char* path) = 0;

    // Appended after the slots above, with a default, so that every existing
    // implementation stays valid. Reads a lock file's whole content through a
    // fresh open: clients that cache attributes still see each rewrite of the
    // content. False when the file does not exist; other failures throw
    // ovFileAccessError. Reads at most the first 64 KiB (a refresh rewrites
    // only the first 4 bytes).
    virtual bool readLockFileContent(const std::string& name, std::string& content);

    // Appended likewise. Checks, then rewrites, a lock file this holder owns:
    // the file's first bytes must still be `expected` (empty: no check); then
    // `content` is written at its start. A missing file is recreated with
    // `content` (ovRefreshFoundMissing); a file rewritten by someone else is
    // NOT written (ovRefreshFoundRewritten); giving up at the deadline is
    // ovRefreshFailed. Throws as refreshLockFile does. The default checks
    // through readLockFileContent and touches through refreshLockFile, so
    // overrides of those still see every refresh, then writes `content`.
    virtual ovOwnedRefreshResult refreshOwnedLockFile(const std::string& name,
                                                      const boost::posix_time::ptime& deadline,
                                                      const std::string& expected,
                                                      const std::string& content);

    // refreshLockFile(name, now + 1 second). Subclasses that override the
    // two-argument form should say `using ovAbstractFS::refreshLockFile;`.
    bool refreshLockFile(const std::string& name);
};

// For directories shared between machines: exclusive create, EACCES retried
// 50 times 10 ms apart, refresh by rewriting a 32-bit counter.
// Its pattern searches take the directory part literally and throw
// ovFileAccessError when the directory cannot be listed (a lock must not
// mistake that for "no lock files").
class OV_API ovNetworkFS : public ovAbstractFS {
public:
    using ovAbstractFS::refreshLockFile;

    ~ovNetworkFS() override;
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
    // One open for check and write; same retries and errors as refreshLockFile.
    ovOwnedRefreshResult refreshOwnedLockFile(const std::string& name,
                                              const boost::posix_time::ptime& deadline,
                                              const std::string& expected,
                                              const std::string& content) override;
};

// Guards the one-time creation of the default instance.
OV_API extern boost::once_flag once;

// The process-wide ovNetworkFS; created on first use, never destroyed.
OV_API boost::shared_ptr<ovAbstractFS> ovGetDefaultFSImp();

#endif
