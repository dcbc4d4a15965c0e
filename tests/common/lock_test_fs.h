#ifndef ORVANE_TESTS_LOCK_TEST_FS_H
#define ORVANE_TESTS_LOCK_TEST_FS_H

// The network file system with one thing changed; everything else is real.

#include <atomic>
#include <chrono>
#include <mutex>
#include <string>
#include <vector>

#include "orvane/fs.h"

namespace ovtest {

// A file server whose clock runs `skew` seconds off ours: every modification
// time it reports is shifted, probes included.
class SkewedFS : public ovNetworkFS {
public:
    using ovAbstractFS::refreshLockFile;
    explicit SkewedFS(long skew) : skew_(skew) {}
    time_t getFileLastModifiedTime(const char* path) override {
        return ovNetworkFS::getFileLastModifiedTime(path) + skew_;
    }

private:
    long skew_;
};

// An attribute-caching client: level files look `lag` seconds old although
// their content keeps changing; a fresh probe is seen as it is.
class CachedAttributesFS : public ovNetworkFS {
public:
    using ovAbstractFS::refreshLockFile;
    explicit CachedAttributesFS(long lag) : lag_(lag) {}
    time_t getFileLastModifiedTime(const char* path) override {
        const bool level = std::string(path).find("/.deploy_lock.") != std::string::npos;
        return ovNetworkFS::getFileLastModifiedTime(path) - (level ? lag_ : 0);
    }
    bool readLockFileContent(const std::string& name, std::string& content) override {
        ++contentReads;
        return ovNetworkFS::readLockFileContent(name, content);
    }
    std::atomic<int> contentReads{0};

private:
    long lag_;
};

// An attribute-caching client whose cached times catch up late: level files
// look as they are until `staleFrom` (steady clock), a minute old after it.
class CacheCatchesUpFS : public ovNetworkFS {
public:
    using ovAbstractFS::refreshLockFile;
    explicit CacheCatchesUpFS(std::chrono::steady_clock::time_point staleFrom, const char* marker = "/.deploy_lock.")
        : staleFrom_(staleFrom), marker_(marker) {}
    time_t getFileLastModifiedTime(const char* path) override {
        const bool lagging = std::string(path).find(marker_) != std::string::npos &&
                             std::chrono::steady_clock::now() >= staleFrom_;
        return ovNetworkFS::getFileLastModifiedTime(path) - (lagging ? 60 : 0);
    }

private:
    std::chrono::steady_clock::time_point staleFrom_;
    std::string marker_;
};

// Records exclusive creates; a test may refuse them or make the time query fail.
class RecordingFS : public ovNetworkFS {
public:
    using ovAbstractFS::refreshLockFile;
    bool createFile(const char* path) override {
        {
            std::lock_guard<std::mutex> g(m_);
            created_.push_back(path);
        }
        return !refuseCreates && ovNetworkFS::createFile(path);
    }
    time_t getFileLastModifiedTime(const char* path) override {
        if (failTimeQueries) throw ovFileAccessError("File system error occurred: injected");
        return ovNetworkFS::getFileLastModifiedTime(path);
    }
    std::vector<std::string> created() {
        std::lock_guard<std::mutex> g(m_);
        return created_;
    }
    std::atomic<bool> refuseCreates{false}, failTimeQueries{false};

private:
    std::mutex m_;
    std::vector<std::string> created_;
};

}  // namespace ovtest

#endif
