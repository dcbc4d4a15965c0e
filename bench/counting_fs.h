#ifndef ORVANE_BENCH_COUNTING_FS_H
#define ORVANE_BENCH_COUNTING_FS_H

// A file system that forwards every call to another one and counts the calls
// by kind: where a lock's round trips to the file server go.

#include <atomic>
#include <string>

#include <boost/shared_ptr.hpp>

#include "orvane/fs.h"

namespace benchutil {

class CountingFS : public ovAbstractFS {
public:
    enum Call {
        IsDir, MkDir, RmDir, RmSubFolderTree, FileExists, CreateFile, RemoveFile, RefreshLockFile,
        GetFileLastModifiedTime, MatchingFileOrDirExists, FindMatchingFilesAndDirs,
        DisableWritePermission, EnableWritePermission, ReadLockFileContent, RefreshOwnedLockFile,
        kCalls
    };
    static const char* name(int call) {
        static const char* const names[kCalls] = {
            "isDir", "mkDir", "rmDir", "rmSubFolderTree", "fileExists", "createFile", "removeFile",
            "refreshLockFile", "getFileLastModifiedTime", "matchingFileOrDirExists",
            "findMatchingFilesAndDirs", "disableWritePermission", "enableWritePermission",
            "readLockFileContent", "refreshOwnedLockFile"};
        return names[call];
    }

    using ovAbstractFS::refreshLockFile;

    explicit CountingFS(const boost::shared_ptr<ovAbstractFS>& inner) : inner_(inner) {
        for (auto& c : counts_) c = 0;
    }

    long count(int call) const { return counts_[call].load(); }
    long total() const {
        long sum = 0;
        for (const auto& c : counts_) sum += c.load();
        return sum;
    }

    bool isDir(const char* path) override { return hit(IsDir), inner_->isDir(path); }
    bool mkDir(const char* path) override { return hit(MkDir), inner_->mkDir(path); }
    int rmDir(const char* path) override { return hit(RmDir), inner_->rmDir(path); }
    bool rmSubFolderTree(const char* path) override {
        return hit(RmSubFolderTree), inner_->rmSubFolderTree(path);
    }
    bool fileExists(const char* path) override { return hit(FileExists), inner_->fileExists(path); }
    bool createFile(const char* path) override { return hit(CreateFile), inner_->createFile(path); }
    bool removeFile(const std::string& name, const boost::posix_time::ptime& deadline) override {
        return hit(RemoveFile), inner_->removeFile(name, deadline);
    }
    bool refreshLockFile(const std::string& name, const boost::posix_time::ptime& deadline) override {
        return hit(RefreshLockFile), inner_->refreshLockFile(name, deadline);
    }
    time_t getFileLastModifiedTime(const char* path) override {
        return hit(GetFileLastModifiedTime), inner_->getFileLastModifiedTime(path);
    }
    bool matchingFileOrDirExists(const char* pattern) override {
        return hit(MatchingFileOrDirExists), inner_->matchingFileOrDirExists(pattern);
    }
    unsigned findMatchingFilesAndDirs(const char* pattern, const ovStringProcedure& onFile,
                                      const ovStringProcedure& onDir, int depth,
                                      bool stopAtFirst) override {
        return hit(FindMatchingFilesAndDirs),
               inner_->findMatchingFilesAndDirs(pattern, onFile, onDir, depth, stopAtFirst);
    }
    uint16_t disableWritePermission(const char* path) override {
        return hit(DisableWritePermission), inner_->disableWritePermission(path);
    }
    uint16_t enableWritePermission(const char* path) override {
        return hit(EnableWritePermission), inner_->enableWritePermission(path);
    }
    bool readLockFileContent(const std::string& name, std::string& content) override {
        return hit(ReadLockFileContent), inner_->readLockFileContent(name, content);
    }
    ovOwnedRefreshResult refreshOwnedLockFile(const std::string& name,
                                              const boost::posix_time::ptime& deadline,
                                              const std::string& expected,
                                              const std::string& content) override {
        return hit(RefreshOwnedLockFile), inner_->refreshOwnedLockFile(name, deadline, expected, content);
    }

private:
    void hit(Call c) { counts_[c].fetch_add(1, std::memory_order_relaxed); }

    boost::shared_ptr<ovAbstractFS> inner_;
    std::atomic<long> counts_[kCalls];
};

}  // namespace benchutil

#endif
