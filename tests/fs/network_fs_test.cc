// The lock-error family and ovNetworkFS on real directories: results, exact
// messages, thrown types; permission cases as an unprivileged uid.
#include <errno.h>
#include <stdint.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <boost/thread/thread.hpp>
#include <gtest/gtest.h>

#include "orvane/fs.h"
#include "outcome.h"
#include "probe.h"
#include "test_support.h"

namespace pt = boost::posix_time;
using ovtest::TempDir;

namespace {

const std::string kNoDir = "throw ovNoSuchDirectory|Tried to obtain a lock on a non-existent directory: ";
const std::string kNoPerm = "throw ovPermissionDenied|Tried to obtain a lock on a directory without write permission: ";

pt::ptime in(double seconds) { return ovSteadyNow() + pt::milliseconds(long(seconds * 1000)); }

uint32_t counterIn(const std::string& path) {
    const std::string content = ovtest::readFile(path);
    uint32_t v = 0;
    if (content.size() >= sizeof v) std::memcpy(&v, content.data(), sizeof v);
    return v;
}

}  // namespace

TEST(LockErrors, KindsAreDistinctStdExceptionsKeepingTheirMessage) {
    EXPECT_EQ("throw ovNoSuchDirectory|a", fstest::outcome([]() -> int { throw ovNoSuchDirectory("a"); }));
    EXPECT_EQ("throw ovPermissionDenied|b\n", fstest::outcome([]() -> int { throw ovPermissionDenied("b\n"); }));
    EXPECT_EQ("throw ovFileNotFoundError|c", fstest::outcome([]() -> int { throw ovFileNotFoundError("c"); }));
    EXPECT_EQ("throw ovFileAccessError|", fstest::outcome([]() -> int { throw ovFileAccessError(""); }));
    EXPECT_EQ("throw ovFileBasedLockError|r", fstest::outcome([]() -> int { throw ovFileBasedLockError("r"); }));
    ovFileBasedLockError root("r");
    EXPECT_EQ(nullptr, dynamic_cast<std::runtime_error*>(static_cast<std::exception*>(&root)));
}

TEST(NetworkFS, CreateExistsRemoveAndModificationTime) {
    TempDir tmp;
    ovNetworkFS fs;
    const std::string f = tmp.file("lock");
    const mode_t mask = ::umask(0);
    ::umask(mask);
    const int fdsBefore = ovtest::countOpenFds();
    EXPECT_TRUE(fs.createFile(f.c_str()));
    struct stat st;
    ASSERT_EQ(0, ::stat(f.c_str(), &st));
    EXPECT_EQ(0, st.st_size);
    EXPECT_EQ(0777u & ~mask, st.st_mode & 07777u);
    EXPECT_FALSE(fs.createFile(f.c_str()));
    EXPECT_FALSE(fs.createFile(tmp.path().c_str()));  // a directory is an existing name too
    EXPECT_EQ(fdsBefore, ovtest::countOpenFds()) << "a descriptor was left open";

    EXPECT_TRUE(fs.fileExists(f.c_str()));
    EXPECT_FALSE(fs.fileExists(tmp.file("nothing").c_str()));
    // Anything at a lock name blocks its exclusive create, so it exists: a
    // directory, a dangling link.
    EXPECT_TRUE(fs.fileExists(tmp.path().c_str()));
    ASSERT_EQ(0, ::symlink(tmp.file("nowhere").c_str(), tmp.file("link").c_str()));
    EXPECT_TRUE(fs.fileExists(tmp.file("link").c_str()));

    struct timeval times[2] = {{1000000000, 900000}, {1000000000, 900000}};
    ASSERT_EQ(0, ::utimes(f.c_str(), times));
    EXPECT_EQ(1000000000, fs.getFileLastModifiedTime(f.c_str()));  // whole seconds

    EXPECT_TRUE(fs.removeFile(f, in(30)));
    EXPECT_NE(0, ::access(f.c_str(), F_OK));
    const double t0 = ovtest::monotonicSeconds();  // missing file or directory: false at once
    EXPECT_FALSE(fs.removeFile(f, in(30)));
    EXPECT_FALSE(fs.removeFile(tmp.file("gone/f"), pt::ptime(pt::pos_infin)));
    EXPECT_LT(ovtest::monotonicSeconds() - t0, 10.0);
}

TEST(NetworkFS, ErrorTypesAndMessages) {
    TempDir tmp;
    ovNetworkFS fs;
    const std::string gone = tmp.file("gone/lock"), file = tmp.file("f"), longName = tmp.file(std::string(300, 'n'));
    ovtest::writeFile(file);
    std::string content;
    const struct {
        std::function<long long()> op;
        std::string expected;
    } cases[] = {
        {[&] { return fs.createFile(gone.c_str()); }, kNoDir + gone},
        {[&] { return fs.createFile("/etc"); }, kNoDir + "/etc"},  // exists, yet has no usable parent
        {[&] { return fs.createFile(nullptr); }, kNoDir},
        {[&] { return fs.fileExists(gone.c_str()); }, kNoDir + gone},
        {[&] { return fs.fileExists("/orvane-no-such-entry"); }, kNoDir + "/orvane-no-such-entry"},
        {[&] { return fs.refreshLockFile(gone); }, kNoDir + gone},
        {[&] { return fs.createFile(longName.c_str()); },
         "throw ovFileAccessError|File system error occurred: Exclusive create failed on " + longName + " (reason: " +
             std::strerror(ENAMETOOLONG) + ")"},
        {[&] { return fs.getFileLastModifiedTime(gone.c_str()); }, "throw ovFileNotFoundError|File not found: " + gone},
        {[&] { return fs.getFileLastModifiedTime((file + "/x").c_str()); },
         "throw ovFileAccessError|File system error occurred: " + file + "/x"},  // ENOTDIR
        {[&] { return fs.readLockFileContent(tmp.path(), content); },
         "throw ovFileAccessError|File system error occurred: Reading failed on " + tmp.path() + " (reason: " +
             "not a regular file)"},
    };
    for (const auto& c : cases) EXPECT_EQ(c.expected, fstest::outcome(c.op));

    // A bare name that exists in the working directory has no usable parent either.
    ovtest::Child child = ovtest::forkChild([&]() -> int {
        if (::chdir(tmp.path().c_str()) != 0) return 2;
        ovNetworkFS childFs;
        return fstest::outcome([&] { return childFs.createFile("f"); }) == kNoDir + "f" ? 0 : 1;
    });
    EXPECT_EQ(0, child.wait());
}

TEST(NetworkFS, WithoutWritePermission) {
    // Creating or removing needs write permission (denied after 50 retries of
    // 10 ms, for create and refresh); reading and missing names do not.
    TempDir tmp;
    const std::string dir = tmp.file("ro"), held = dir + "/held", present = dir + "/present";
    ASSERT_EQ(0, ::mkdir(dir.c_str(), 0755));
    ovtest::writeFile(held, "zzzz");
    ovtest::writeFile(present);
    ASSERT_EQ(0, ::chmod(held.c_str(), 0666));
    ASSERT_EQ(0, ::chmod(dir.c_str(), 0555));
    const int rc = ovtest::runAsUnprivileged([&]() -> int {
        ovNetworkFS fs;
        const std::string fresh = dir + "/new";
        const double t0 = ovtest::monotonicSeconds();
        if (fstest::outcome([&] { return fs.createFile(fresh.c_str()); }) != kNoPerm + fresh) return 1;
        if (ovtest::monotonicSeconds() - t0 < 0.45) return 2;
        if (fstest::outcome([&] { return fs.removeFile(present, in(5)); }) != kNoPerm + present) return 3;
        if (fstest::outcome([&] { return fs.refreshLockFile(fresh, in(5)); }) != kNoPerm + fresh) return 4;
        if (fs.createFile(present.c_str()) || !fs.fileExists(present.c_str())) return 5;
        if (fs.fileExists((dir + "/absent").c_str()) || fs.removeFile(dir + "/absent", in(5))) return 6;
        if (fs.getFileLastModifiedTime(present.c_str()) <= 0 || !fs.refreshLockFile(held, in(5))) return 7;
        std::string outcome;  // interrupted during the retries: no permission error
        boost::thread worker([&] { outcome = fstest::outcome([&] { return fs.refreshLockFile(fresh); }); });
        boost::this_thread::sleep(pt::milliseconds(50));
        worker.interrupt();
        worker.join();
        return outcome == "throw boost::thread_interrupted|" ? 0 : 8;
    });
    EXPECT_EQ(0, rc) << "the step that failed";
    EXPECT_NE(0, ::access((dir + "/new").c_str(), F_OK));
    EXPECT_EQ(0, ::access(present.c_str(), F_OK));
    EXPECT_NE("zzzz", ovtest::readFile(held));
}

TEST(NetworkFS, RefreshWritesOneProcessWideCounterStartingAtOne) {
    TempDir tmp;
    ovNetworkFS fs, other;
    const std::string a = tmp.file("a"), b = tmp.file("b");
    ovtest::writeFile(b, "0123456789");
    ASSERT_TRUE(fs.refreshLockFile(a));  // missing: created
    EXPECT_EQ(4u, ovtest::readFile(a).size());
    ASSERT_TRUE(other.refreshLockFile(b, in(5)));
    EXPECT_EQ(counterIn(a) + 1, counterIn(b));           // whatever the instance or file
    EXPECT_EQ("456789", ovtest::readFile(b).substr(4));  // not truncated
    std::string first, second;
    ASSERT_TRUE(fs.readLockFileContent(a, first));
    ASSERT_TRUE(fs.refreshLockFile(a));
    ASSERT_TRUE(fs.readLockFileContent(a, second));
    EXPECT_EQ(counterIn(b) + 1, counterIn(a));
    EXPECT_NE(first, second);
    std::string untouched;
    EXPECT_FALSE(fs.readLockFileContent(tmp.file("missing"), untouched));

    const fstest::Run r = fstest::runProbe({"refresh", tmp.file("fresh"), "1000"});
    EXPECT_EQ(0u, r.out.find("result 1\n")) << r.out << r.err;
    EXPECT_EQ(1u, counterIn(tmp.file("fresh")));
}

TEST(NetworkFS, ForwardedDirectoryOperations) {
    TempDir tmp;
    ovNetworkFS fs;
    ovIgnoreString ignore;
    EXPECT_TRUE(fs.mkDir(tmp.file("a/b/c").c_str()));
    EXPECT_TRUE(fs.isDir((tmp.path() + "//a//b").c_str()));  // normalized first
    ovtest::writeFile(tmp.file("a/x1"));
    ovtest::writeFile(tmp.file("a/x2"));
    EXPECT_FALSE(fs.isDir(tmp.file("a/x1").c_str()));
    EXPECT_EQ(-1, fs.rmDir(tmp.file("a/b").c_str()));  // not empty
    EXPECT_EQ(0, fs.rmDir(tmp.file("a/b/c").c_str()));
    EXPECT_TRUE(fs.matchingFileOrDirExists(tmp.file("a/x*").c_str()));
    EXPECT_FALSE(fs.matchingFileOrDirExists(tmp.file("a/y*").c_str()));
    EXPECT_EQ(2u, fs.findMatchingFilesAndDirs(tmp.file("a/x*").c_str(), ignore, ignore, 0, false));
    EXPECT_TRUE(fs.rmSubFolderTree(tmp.file("a").c_str()));
    EXPECT_NE(0, ::access(tmp.file("a").c_str(), F_OK));
}

TEST(NetworkFS, OneDefaultInstanceForTheWholeProcess) {
    std::vector<ovAbstractFS*> seen(8, nullptr);
    std::vector<std::thread> threads;
    for (size_t i = 0; i < seen.size(); ++i) threads.emplace_back([&seen, i] { seen[i] = ovGetDefaultFSImp().get(); });
    for (std::thread& t : threads) t.join();
    ovAbstractFS* first = ovGetDefaultFSImp().get();
    EXPECT_NE(nullptr, dynamic_cast<ovNetworkFS*>(first));
    for (ovAbstractFS* p : seen) EXPECT_EQ(first, p);
}
