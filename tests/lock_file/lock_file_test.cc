// The refreshed lock file: refresh cadence, changes behind its back, threads.

#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <vector>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <gtest/gtest.h>

#include "lock_test_util.h"
#include "orvane/lock_file.h"
#include "test_support.h"

namespace pt = boost::posix_time;
using namespace ovtest;

TEST(LockFile, RefreshKeepsTheFileFreshRecreatesItAndRemovesItAtTheEnd) {
    TempDir dir;
    const std::string name = dir.file("held");
    {
        ovLockFile lf(name, pt::seconds(1), ovGetDefaultFSImp());
        ASSERT_TRUE(static_cast<bool>(lf));
        const std::string before = readFile(name);
        ageFile(name, 100);  // only a running refresh can make it young again
        EXPECT_TRUE(waitFor([&] { return ageOf(name) < 10; }, 5)) << ageOf(name);
        EXPECT_NE(readFile(name), before) << "a refresh must change the content";
        ASSERT_EQ(::unlink(name.c_str()), 0);
        EXPECT_FALSE(static_cast<bool>(lf));
        EXPECT_TRUE(waitFor([&] { return static_cast<bool>(lf); }, 4)) << "not recreated";
    }
    EXPECT_FALSE(pathExists(name));
}

TEST(LockFile, NonRefreshingFormsStartNoThreadAndNeverTouchTheFile) {
    TempDir dir;
    const int threads = countThreads();
    {
        ovLockFile a(dir.file("a"), ovLockFile::NO_REFRESH, ovGetDefaultFSImp());
        ovLockFile b(dir.file("b"), pt::time_duration(pt::pos_infin), ovGetDefaultFSImp());
        ovLockFile c(dir.file("c"), pt::time_duration(pt::not_a_date_time), ovGetDefaultFSImp());
        ovLockFile d(dir.file("d"), pt::time_duration(0, 0, 0, 0), ovGetDefaultFSImp());
        EXPECT_EQ(countThreads(), threads);
        for (const char* n : {"a", "b", "c", "d"}) ageFile(dir.file(n), 100);
        usleep(1500 * 1000);
        for (const char* n : {"a", "b", "c", "d"}) EXPECT_GT(ageOf(dir.file(n)), 90) << n;
    }
    EXPECT_TRUE(listDir(dir.path()).empty());
}

TEST(LockFile, MissingOrRemovedDirectory) {
    TempDir dir;
    const std::string missing = dir.file("no/such/held");
    EXPECT_THROW(ovLockFile(missing, pt::seconds(1), ovGetDefaultFSImp()), ovNoSuchDirectory);
    EXPECT_THROW(ovLockFile(missing, ovLockFile::NO_REFRESH, ovGetDefaultFSImp()), ovNoSuchDirectory);

    const std::string sub = dir.file("locks");
    ASSERT_EQ(::mkdir(sub.c_str(), 0755), 0);
    const int threads = countThreads();
    {
        ovLockFile lf(sub + "/held", pt::seconds(1), ovGetDefaultFSImp());
        EXPECT_EQ(countThreads(), threads + 2) << "the refresh thread and its watchdog";
        ASSERT_EQ(::unlink((sub + "/held").c_str()), 0);
        ASSERT_EQ(::rmdir(sub.c_str()), 0);
        EXPECT_THROW(static_cast<void>(static_cast<bool>(lf)), ovNoSuchDirectory);
        // The next refresh meets the missing directory and ends its task
        // quietly; the watchdog stays until the object goes.
        EXPECT_TRUE(waitFor([&] { return countThreads() == threads + 1; }, 5));
    }
    EXPECT_TRUE(waitFor([&] { return countThreads() == threads; }, 2));
    EXPECT_EQ(listDir(dir.path()), std::vector<std::string>{}) << "nothing may be recreated";
}

// Root ignores permission bits, so these run as an unprivileged uid.
TEST(LockFile, ReadOnlyDirectoryAsUnprivilegedUser) {
    TempDir dir;
    ASSERT_EQ(::chmod(dir.path().c_str(), 0755), 0);  // root-owned: read-only to the child
    const int denied = runAsUnprivileged([&] {
        try {
            ovLockFile lf(dir.file("held"), pt::seconds(1), ovGetDefaultFSImp());
        } catch (const ovPermissionDenied&) {
            return pathExists(dir.file("held")) ? 2 : 0;
        }
        return 1;
    });
    EXPECT_EQ(denied, 0) << "1: no ovPermissionDenied; 2: file created anyway";

    // Write-protected after creation: the file itself stays writable, so
    // refreshes go on; destruction returns normally and leaves it in place.
    const std::string sub = dir.file("mine"), held = sub + "/held";
    ASSERT_EQ(::mkdir(sub.c_str(), 0755), 0);
    ASSERT_EQ(::chown(sub.c_str(), kUnprivilegedId, kUnprivilegedId), 0);
    const int protectedLater = runAsUnprivileged([&] {
        {
            ovLockFile lf(held, pt::seconds(1), ovGetDefaultFSImp());
            if (::chmod(sub.c_str(), 0555) != 0 || ::unlink(held.c_str()) == 0) return 3;
            ageFile(held, 100);
            if (!waitFor([&] { return ageOf(held) < 10; }, 5)) return 4;
        }
        return pathExists(held) ? 0 : 5;
    });
    EXPECT_EQ(protectedLater, 0) << "3: not read-only; 4: refresh stopped; 5: file removed";
}

TEST(LockFile, ManyRefreshingFilesLeaveNoThreadBehind) {
    TempDir dir;
    const int threads = countThreads();
    for (int round = 0; round < 20; ++round) {
        std::vector<std::unique_ptr<ovLockFile> > files;
        for (int i = 0; i < 5; ++i)
            files.emplace_back(new ovLockFile(dir.file(std::to_string(i)), pt::milliseconds(200),
                                              ovGetDefaultFSImp()));
        // Each has a refresh thread and a watchdog.
        ASSERT_TRUE(waitFor([&] { return countThreads() == threads + 10; }, 2)) << countThreads();
    }
    // A joined thread may linger in /proc for a moment; a leaked one stays.
    EXPECT_TRUE(waitFor([&] { return countThreads() == threads; }, 2)) << countThreads();
    EXPECT_TRUE(listDir(dir.path()).empty());
}
