// Closed exception lists: an exception outside an operation's list ends the
// process. The failing allocator makes the building of an error message fail.
#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <new>
#include <string>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <boost/thread/thread.hpp>
#include <gtest/gtest.h>

#include "orvane/fs.h"
#include "test_support.h"

namespace fstest {
extern std::atomic<bool> failAllocations;
}

namespace pt = boost::posix_time;
using fstest::failAllocations;

namespace {

// Runs in the death-test child: EACCES from here on, for the retries below.
void dropPrivileges() {
    if (::setgroups(0, nullptr) != 0 || ::setgid(ovtest::kUnprivilegedId) != 0 ||
        ::setuid(ovtest::kUnprivilegedId) != 0)
        ::_exit(3);
}

}  // namespace

TEST(ClosedLists, ExceptionsOutsideTheListEndTheProcess) {
    ovtest::TempDir tmp;
    const std::string dir = tmp.file("ro"), f = dir + "/lock";
    ASSERT_EQ(0, ::mkdir(dir.c_str(), 0755));
    ovtest::writeFile(f);
    ASSERT_EQ(0, ::chmod(dir.c_str(), 0555));
    ovNetworkFS fs;
    const std::string fresh = dir + "/fresh";
    EXPECT_DEATH(
        {
            dropPrivileges();
            boost::thread worker([&] { fs.createFile(fresh.c_str()); });
            boost::this_thread::sleep(pt::milliseconds(50));  // inside the 0.5 s of retries
            worker.interrupt();
            worker.join();
        },
        "thread_interrupted");
    EXPECT_DEATH(
        {
            dropPrivileges();
            failAllocations = true;  // EACCES, then its message cannot be built
            fs.removeFile(f, ovSteadyNow() + pt::seconds(5));
        },
        "bad_alloc");
}

TEST(ClosedLists, RefreshHasNoListSoAllocationFailurePropagates) {
    ovtest::TempDir tmp;
    ovNetworkFS fs;
    bool caught = false;
    failAllocations = true;
    try {
        fs.refreshLockFile(tmp.file("gone/lock"), pt::ptime(pt::pos_infin));
    } catch (const std::bad_alloc&) {
        caught = true;
    }
    failAllocations = false;
    EXPECT_TRUE(caught);
}
