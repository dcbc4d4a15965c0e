// The directory locks as standard lockables, failures as std::system_error.

#include <chrono>
#include <mutex>
#include <system_error>

#include <gtest/gtest.h>

#include "orvane/exclusive_lock.h"
#include "orvane/rw_lock.h"
#include "tool_runner.h"

using namespace tooltest;
using std::chrono::milliseconds;
typedef ovDirectoryReadWriteLock::ReadLock ReadLock;
typedef ovDirectoryReadWriteLock::WriteLock WriteLock;
typedef std::vector<std::string> Names;

namespace {

// The std::system_error f throws, or one with an empty code.
template <class F>
std::system_error errorOf(F&& f) {
    try {
        f();
    } catch (const std::system_error& e) {
        return e;
    }
    return std::system_error(std::error_code());
}

TEST(LockableForms, GuardsTakeAndGiveBackTheFiles) {
    ovtest::TempDir dir, other;
    ovDirectoryReadWriteLock rw(dir.path());
    ovDirectoryExclusiveLock exclusive(other.path(), "test");
    {
        WriteLock writer = rw.getWriteLock();
        std::lock_guard<WriteLock> guard(writer);
        EXPECT_EQ(Names{".deploy_write_lock"}, listDir(dir.path()));
    }
    {
        ReadLock r1 = rw.getReadLock(), r2 = rw.getReadLock();
        std::scoped_lock both(r1, exclusive, r2);  // in whichever order std::lock picks
        EXPECT_TRUE(r1.isAcquired() && r2.isAcquired());
        EXPECT_EQ(Names{".deploy_lock.0"}, listDir(other.path()));
    }
    EXPECT_EQ(Names{}, listDir(dir.path()));
    EXPECT_EQ(Names{}, listDir(other.path()));
}

TEST(LockableForms, UniqueLockTimedFormsAndRecursion) {
    ovtest::TempDir dir;
    ovDirectoryExclusiveLock holder(dir.path(), "holder"), waiter(dir.path(), "waiter");
    std::unique_lock<ovDirectoryExclusiveLock> held(holder);
    holder.lock();  // nests like a recursive mutex
    holder.unlock();
    std::unique_lock<ovDirectoryExclusiveLock> late(waiter, std::defer_lock);
    EXPECT_FALSE(late.try_lock());
    const double start = ovtest::monotonicSeconds();
    EXPECT_FALSE(late.try_lock_for(milliseconds(300)));
    EXPECT_GE(ovtest::monotonicSeconds() - start, 0.25);
    EXPECT_FALSE(late.try_lock_until(std::chrono::steady_clock::now() + milliseconds(50)));
    EXPECT_EQ(Names{".deploy_lock.0"}, listDir(dir.path()));  // failed waits left no queue file

    held.unlock();
    EXPECT_TRUE(late.try_lock_for(std::chrono::seconds(20)));
    late.unlock();
    EXPECT_EQ(Names{}, listDir(dir.path()));
    EXPECT_EQ(std::errc::operation_not_permitted, errorOf([&] { holder.unlock(); }).code());
}

TEST(LockableForms, MisuseAndFileSystemErrorsAreSystemErrors) {
    ovtest::TempDir dir;
    ovDirectoryReadWriteLock rw(dir.path());
    ReadLock reader = rw.getReadLock();
    WriteLock writer = rw.getWriteLock();
    EXPECT_EQ(std::errc::operation_not_permitted, errorOf([&] { reader.unlock(); }).code());
    writer.lock();  // a second acquire through one handle fails instead of hanging
    EXPECT_EQ(std::errc::resource_deadlock_would_occur, errorOf([&] { writer.lock(); }).code());
    EXPECT_TRUE(writer.isAcquired());
    writer.unlock();
    EXPECT_EQ(std::errc::operation_not_permitted, errorOf([&] { writer.unlock(); }).code());
    EXPECT_EQ(Names{}, listDir(dir.path()));

    const std::string missing = dir.file("missing");
    ovDirectoryReadWriteLock gone(missing);
    ReadLock goneReader = gone.getReadLock();
    EXPECT_EQ(std::errc::no_such_file_or_directory, errorOf([&] { goneReader.try_lock(); }).code());
    ovDirectoryExclusiveLock exclusive(missing, "x");
    const std::system_error e = errorOf([&] { std::lock_guard<ovDirectoryExclusiveLock> guard(exclusive); });
    EXPECT_EQ(std::errc::no_such_file_or_directory, e.code());
    EXPECT_NE(std::string::npos, std::string(e.what()).find("non-existent directory: " + missing)) << e.what();
}

}  // namespace
