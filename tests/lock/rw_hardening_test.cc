// The read/write lock against a file system that does not behave: lock files
// that vanish under the staleness query, modification times that lag a
// minute behind while the content keeps changing, directories that cannot be
// listed or have odd names, other users' files that cannot be removed, and
// junk where lock files should be.
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <memory>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include "lock_test_fs.h"
#include "lock_test_util.h"
#include "rw_test_util.h"

using boost::posix_time::seconds;
using namespace rwtest;

namespace {

bool isLockFileName(const char* path) {
    return std::strstr(path, ".deploy_read_lock.") || std::strstr(path, ".deploy_write_lock");
}

// The holder releases between the listing and the staleness query.
class VanishingFS : public ovNetworkFS {
public:
    using ovAbstractFS::refreshLockFile;
    int vanished = 0;
    time_t getFileLastModifiedTime(const char* path) override {
        if (!isLockFileName(path)) return ovNetworkFS::getFileLastModifiedTime(path);
        ++vanished;
        ::unlink(path);
        throw ovFileNotFoundError(std::string("File not found: ") + path);
    }
};

// A client caching attributes: lock files look a minute older than they are,
// while reading their content still sees every rewrite.
class LaggingFS : public ovNetworkFS {
public:
    using ovAbstractFS::refreshLockFile;
    time_t getFileLastModifiedTime(const char* path) override {
        return ovNetworkFS::getFileLastModifiedTime(path) - (isLockFileName(path) ? 60 : 0);
    }
};

// Every search for lock files runs out of descriptors.
class NoDescriptorsFS : public ovNetworkFS {
public:
    using ovAbstractFS::refreshLockFile;
    bool matchingFileOrDirExists(const char* p) override {
        warmUp();
        Starved s;
        return ovNetworkFS::matchingFileOrDirExists(p);
    }
    unsigned findMatchingFilesAndDirs(const char* p, const ovStringProcedure& f, const ovStringProcedure& d,
                                      int depth, bool stop) override {
        warmUp();
        Starved s;
        return ovNetworkFS::findMatchingFilesAndDirs(p, f, d, depth, stop);
    }

private:
    // The undefined-behaviour sanitizer checks the type behind each member
    // call and needs descriptors of its own the first time (a pipe that
    // probes memory): one call before the starving one, which it then
    // remembers.
    void warmUp() { (void)ovNetworkFS::isDir("/"); }
    // The descriptor limit at the lowest free descriptor while it lives.
    struct Starved {
        struct rlimit saved;
        Starved() {
            ::getrlimit(RLIMIT_NOFILE, &saved);
            const int lowestFree = ::dup(0);
            ::close(lowestFree);
            struct rlimit low = saved;
            low.rlim_cur = static_cast<rlim_t>(lowestFree);
            ::setrlimit(RLIMIT_NOFILE, &low);
        }
        ~Starved() { ::setrlimit(RLIMIT_NOFILE, &saved); }
    };
};

// Removing a lock file is refused for want of permission.
class NoRemovalFS : public ovNetworkFS {
public:
    using ovAbstractFS::refreshLockFile;
    bool removeFile(const std::string& name, const boost::posix_time::ptime& deadline) override {
        if (isLockFileName(name.c_str())) throw ovPermissionDenied("Tried to obtain a lock: " + name);
        return ovNetworkFS::removeFile(name, deadline);
    }
};

boost::shared_ptr<ovAbstractFS> defaultFS() { return ovGetDefaultFSImp(); }
boost::shared_ptr<ovAbstractFS> noDescriptorsFS() { return boost::make_shared<NoDescriptorsFS>(); }
boost::shared_ptr<ovAbstractFS> noRemovalFS() { return boost::make_shared<NoRemovalFS>(); }

const uid_t kNobody = ovtest::kUnprivilegedId;
const uid_t kOther = ovtest::kUnprivilegedId - 1;

size_t occurrences(const std::string& text, const std::string& what) {
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
}

}  // namespace

// Wherever the lock can be taken at all, a reader and a writer exclude each
// other; where the readers cannot be found, a writer says so instead.
TEST(RwLockHardening, ReadersAndWritersSeeEachOtherInOddDirectories) {
    struct Case {
        const char* name;
        mode_t mode;
        uid_t owner, group, as;  // the waiting side runs as `as`
        boost::shared_ptr<ovAbstractFS> (*fs)();
        int readerBesideWriter, writerBesideReader;
    } cases[] = {
        {"back\\slash", 0777, 0, 0, 0, defaultFS, kRefused, kRefused},
        {"what?", 0777, 0, 0, 0, defaultFS, kRefused, kRefused},
        {"br[ack]et", 0777, 0, 0, 0, defaultFS, kRefused, kRefused},
        {"br[ack]et\\?", 0777, 0, 0, 0, defaultFS, kRefused, kRefused},
        // Write and search permission only: the write-lock file is looked up
        // by name, the readers cannot be listed.
        {"owner-wx", 0300, kNobody, kNobody, kNobody, defaultFS, kRefused, kAccessError},
        {"group-wx", 0730, 0, kNobody, kNobody, defaultFS, kRefused, kAccessError},
        {"no-descriptors", 0777, 0, 0, 0, noDescriptorsFS, kRefused, kAccessError},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        ovtest::TempDir top;
        const std::string dir = top.file(c.name);
        ASSERT_EQ(0, ::mkdir(dir.c_str(), 0700));
        ASSERT_EQ(0, ::chown(dir.c_str(), c.owner, c.group));
        ASSERT_EQ(0, ::chmod(dir.c_str(), c.mode));
        Attempt a;
        a.uid = c.as;
        a.fs = c.fs;
        a.seconds = 1;
        {
            WriteLock writer = ovDirectoryReadWriteLock(dir).getWriteLock();
            ASSERT_TRUE(writer.acquire(seconds(10), true));
            a.writer = false;
            EXPECT_EQ(c.readerBesideWriter, attemptInChild(dir, a)) << "reader beside a writer";
            EXPECT_EQ(0u, readLockCount(dir));
            EXPECT_TRUE(writer.release());
        }
        ReadLock reader = ovDirectoryReadWriteLock(dir).getReadLock();
        ASSERT_TRUE(reader.acquire(seconds(10), true));
        a.writer = true;
        EXPECT_EQ(c.writerBesideReader, attemptInChild(dir, a)) << "writer beside a reader";
        EXPECT_FALSE(writeLockExists(dir));
        EXPECT_TRUE(reader.release());
    }
}

// A dead holder's file that we may not remove keeps writers out until their
// time-out, and the warning channel says once whose file it is.
TEST(RwLockHardening, AStaleFileThatCannotBeRemovedIsReportedOnceAndWaitedOn) {
    struct Case {
        const char* what;
        mode_t dirMode;
        const char* file;
        uid_t fileOwner, as;
        boost::shared_ptr<ovAbstractFS> (*fs)();
        bool writer;
        int outcome;
    } cases[] = {
        {"sticky dir, other user's reader", 01777, ".deploy_read_lock.4242", kNobody, kOther, defaultFS, true, kRefused},
        {"removal denied", 0777, ".deploy_read_lock.4242", 0, 0, noRemovalFS, true, kRefused},
        // A reader goes on beside a dead writer's file that stays.
        {"sticky dir, other user's writer", 01777, ".deploy_write_lock", kNobody, kOther, defaultFS, false, kAcquired},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        ovtest::TempDir top, out;
        const std::string dir = top.file("d"), file = dir + "/" + c.file;
        ASSERT_EQ(0, ::mkdir(dir.c_str(), 0700));
        ASSERT_EQ(0, ::chmod(dir.c_str(), c.dirMode));
        ovtest::writeFile(file);
        ASSERT_EQ(0, ::chown(file.c_str(), c.fileOwner, c.fileOwner));
        ovtest::ageFile(file, 40);
        Attempt a;
        a.writer = c.writer;
        a.uid = c.as;
        a.fs = c.fs;
        a.seconds = 2.5;
        a.warningsTo = out.file("warnings");
        EXPECT_EQ(c.outcome, attemptInChild(dir, a));
        EXPECT_TRUE(exists(file));
        const std::string said = ovtest::readFile(a.warningsTo);
        EXPECT_EQ(1u, occurrences(said, file)) << said;
        EXPECT_EQ(1u, occurrences(said, "uid " + std::to_string(c.fileOwner))) << said;
    }
}

// Anything at a lock file's name counts as a holder while it is young and is
// cleared once 30 s old; none of it may hang, spin or end a waiter.
TEST(RwLockHardening, JunkAtLockFileNamesIsWaitedOnThenCleared) {
    struct Junk {
        const char* kind;
        void (*make)(const std::string& path);
        bool link;
    } junk[] = {
        {"fifo", [](const std::string& p) { ASSERT_EQ(0, ::mkfifo(p.c_str(), 0666)); }, false},
        {"dangling link", [](const std::string& p) { ASSERT_EQ(0, ::symlink("nowhere", p.c_str())); }, true},
        {"link loop", [](const std::string& p) { ASSERT_EQ(0, ::symlink(p.c_str(), p.c_str())); }, true},
        {"directory", [](const std::string& p) { ASSERT_EQ(0, ::mkdir(p.c_str(), 0755)); }, false},
        {"root-only file",
         [](const std::string& p) {
             ovtest::writeFile(p, "x");
             ASSERT_EQ(0, ::chmod(p.c_str(), 0600));
         },
         false},
    };
    struct Where {
        const char* name;
        bool blocksReaders;
    } places[] = {{".deploy_write_lock", true}, {".deploy_read_lock.4242", false}};
    struct Run {
        std::string what, path;
        bool aged, writer, clears;
        std::unique_ptr<ovtest::TempDir> dir;
        int outcome;
    };
    // All at once, each in its own directory: every attempt waits out its
    // time-out or clears an aged entry.
    std::vector<Run> runs;
    std::vector<ovtest::Child> children;
    for (const Junk& j : junk)
        for (const Where& w : places)
            for (bool aged : {false, true})
                for (bool writer : {false, true}) {
                    Run r;
                    r.dir.reset(new ovtest::TempDir);
                    r.path = r.dir->file(w.name);
                    r.what = std::string(j.kind) + " at " + w.name + (aged ? ", aged" : ", fresh") +
                             (writer ? ", writer" : ", reader");
                    j.make(r.path);
                    if (aged) ovtest::ageFile(r.path, 40, j.link);
                    r.aged = aged;
                    r.writer = writer;
                    r.clears = aged && (writer || w.blocksReaders);
                    r.outcome = aged || !(writer || w.blocksReaders) ? kAcquired : kRefused;
                    runs.push_back(std::move(r));
                }
    Attempt a;
    a.uid = kNobody;  // the root-only file really is unreadable
    for (Run& r : runs) {
        a.writer = r.writer;
        children.push_back(startAttempt(r.dir->path(), a));
    }
    for (size_t i = 0; i < runs.size(); ++i) {
        EXPECT_EQ(runs[i].outcome, children[i].wait(a.seconds + 30)) << runs[i].what;
        EXPECT_EQ(!runs[i].clears, ovtest::pathExists(runs[i].path)) << runs[i].what;
    }
}

TEST(RwLockHardening, AFileGoneBeforeItsStalenessQueryDoesNotBlock) {
    // In a child: were the error let through, the closed exception list would
    // end the process, and the status shows it.
    ovtest::TempDir dir;
    ovtest::Child child = ovtest::forkChild([&]() -> int {
        boost::shared_ptr<VanishingFS> fs(new VanishingFS);
        ovDirectoryReadWriteLock rw(dir.path(), fs);
        ovtest::writeFile(dir.file(".deploy_write_lock"));
        ReadLock reader = rw.getReadLock();
        if (!reader.acquire(seconds(10)) || fs->vanished != 1 || !reader.release()) return 10;
        ovtest::writeFile(dir.file(".deploy_read_lock.424242"));
        ovtest::writeFile(dir.file(".deploy_read_lock.434343"));
        WriteLock writer = rw.getWriteLock();
        if (!writer.acquire(seconds(10)) || fs->vanished != 3 || !writer.release()) return 20;
        return 0;
    });
    EXPECT_EQ(0, child.wait(60));
}

TEST(RwLockHardening, LaggingTimesNeverTakeOverALiveHolderButStillADeadOne) {
    boost::shared_ptr<ovAbstractFS> lagging(new LaggingFS);
    {
        ovtest::TempDir dir, ctl;
        ovtest::Child writer = holder(dir.path(), "writer", ctl);
        ReadLock reader = ovDirectoryReadWriteLock(dir.path(), lagging).getReadLock();
        EXPECT_FALSE(reader.acquire(seconds(6)));
        EXPECT_TRUE(writeLockExists(dir.path()));
        ovtest::writeFile(ctl.file("go"));
        EXPECT_EQ(0, writer.wait(60));
    }
    ovtest::TempDir dir, ctl;
    ovtest::Child reader = holder(dir.path(), "reader", ctl);
    WriteLock writer = ovDirectoryReadWriteLock(dir.path(), lagging).getWriteLock();
    EXPECT_FALSE(writer.acquire(seconds(6)));
    EXPECT_EQ(1u, readLockCount(dir.path()));
    EXPECT_FALSE(writeLockExists(dir.path()));
    reader.kill(SIGKILL);  // now nobody rewrites the file: it is stale
    EXPECT_EQ(128 + SIGKILL, reader.wait(30));
    // Seen changing moments ago: not stale until that sighting is 30 s old.
    const double t0 = ovtest::monotonicSeconds();
    ASSERT_TRUE(writer.acquire(seconds(60)));
    EXPECT_GT(ovtest::monotonicSeconds() - t0, 20.0);
    EXPECT_LT(ovtest::monotonicSeconds() - t0, 45.0);
    EXPECT_EQ(0u, readLockCount(dir.path()));
    EXPECT_TRUE(writer.release());
}

// The cached time first makes the live holder look stale when the waiter's
// deadline leaves no room to watch: the reads kept while the file looked
// fresh still show it at work, for a waiting reader and a waiting writer.
TEST(RwLockHardening, LiveHolderLookingStaleOnlyAtTheDeadlineIsKept) {
    for (const char* mode : {"writer", "reader"}) {
        SCOPED_TRACE(mode);
        ovtest::TempDir dir, ctl;
        ovtest::Child live = holder(dir.path(), mode, ctl);
        const auto staleFrom = std::chrono::steady_clock::now() + std::chrono::milliseconds(2400);
        ovDirectoryReadWriteLock lock(dir.path(), boost::make_shared<ovtest::CacheCatchesUpFS>(staleFrom, "/.deploy_"));
        if (std::string(mode) == "writer") {
            ReadLock reader = lock.getReadLock();
            EXPECT_FALSE(reader.acquire(seconds(3)));
            EXPECT_TRUE(writeLockExists(dir.path()));
        } else {
            WriteLock writer = lock.getWriteLock();
            EXPECT_FALSE(writer.acquire(seconds(3)));
            EXPECT_EQ(1u, readLockCount(dir.path()));
            EXPECT_FALSE(writeLockExists(dir.path()));
        }
        ovtest::writeFile(ctl.file("go"));
        EXPECT_EQ(0, live.wait(60));
    }
}
