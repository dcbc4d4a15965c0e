// Holders silent for more than 20 s: a frozen mount (the refresh hangs in the
// file system) and a paused holder that resumes after being taken over. Needs
// 20 s of real time: the silence is measured by the monotonic clock.

#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include "lock_test_util.h"
#include "test_support.h"
#include "orvane/fs.h"
#include "orvane/lock_file.h"

using namespace ovtest;
namespace pt = boost::posix_time;

namespace {

// Owned refreshes that work, fail at their deadline (a server that does not
// answer in time), or hang until the mode changes (a frozen mount: the call
// never returns, and no interruption reaches it).
class PausableFS : public ovNetworkFS {
public:
    using ovAbstractFS::refreshLockFile;
    enum Mode { Working, Failing, Frozen };

    void set(Mode m) {
        std::lock_guard<std::mutex> guard(mutex_);
        mode_ = m;
        changed_.notify_all();
    }
    ovOwnedRefreshResult refreshOwnedLockFile(const std::string& name, const pt::ptime& deadline,
                                              const std::string& expected, const std::string& content) override {
        {
            std::unique_lock<std::mutex> guard(mutex_);
            changed_.wait(guard, [&] { return mode_ != Frozen; });
            if (mode_ == Failing) return ovRefreshFailed;
        }
        return ovNetworkFS::refreshOwnedLockFile(name, deadline, expected, content);
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    Mode mode_ = Working;
};

struct Holder {
    Holder(const std::string& file)
        : name(file), fs(boost::make_shared<PausableFS>()),
          lock(new ovLockFile(file, pt::milliseconds(200), fs)) {
        lock->setLostCallback([this](ovLockLossReason r) {
            reason = r;
            ++calls;
        });
    }
    std::string name;
    boost::shared_ptr<PausableFS> fs;
    std::unique_ptr<ovLockFile> lock;
    std::atomic<int> calls{0}, reason{ovLockNotLost};
};

}  // namespace

TEST(LockLossSlow, SilentHoldersAreToldInTimeAndNeverTouchATakenOverFile) {
    TempDir dir;
    // frozen: its refresh hangs. resumed: paused, taken over, then released
    // at once. resumedLater: likewise, but refreshes again first, and its
    // successor then releases.
    Holder frozen(dir.file("frozen")), resumed(dir.file("resumed")), resumedLater(dir.file("later"));
    frozen.fs->set(PausableFS::Frozen);
    resumed.fs->set(PausableFS::Failing);
    resumedLater.fs->set(PausableFS::Failing);
    const double start = monotonicSeconds();  // no refresh succeeds after this

    // Nothing returns from the frozen file system, yet the holder is told.
    ASSERT_TRUE(waitFor([&] { return frozen.calls > 0; }, 35)) << "a hung refresh hid the silence";
    const double toldAfter = monotonicSeconds() - start;
    RecordProperty("told_after_ms", static_cast<int>(toldAfter * 1000));
    EXPECT_GE(toldAfter, 19.5);
    EXPECT_LE(toldAfter, 25.0) << "others take over at 30 s";
    EXPECT_EQ(frozen.reason, ovLockRefreshFailing);
    EXPECT_TRUE(frozen.lock->isLost());
    ASSERT_TRUE(waitFor([&] { return resumed.calls > 0 && resumedLater.calls > 0; }, 5));

    // Others take the silent holders' files over.
    for (Holder* h : {&resumed, &resumedLater}) writeFile(h->name, "new holder");

    // Released as soon as it resumes, maybe before any refresh looked.
    resumed.fs->set(PausableFS::Working);
    resumed.lock.reset();
    EXPECT_EQ(readFile(resumed.name), "new holder") << "removed or wrote its successor's file";

    // Refreshes again for a while: sees the rewrite, writes nothing; and
    // once the successor releases, does not recreate the file either.
    resumedLater.fs->set(PausableFS::Working);
    usleep(1000 * 1000);
    EXPECT_EQ(readFile(resumedLater.name), "new holder");
    ASSERT_EQ(::unlink(resumedLater.name.c_str()), 0);
    usleep(1000 * 1000);
    EXPECT_FALSE(pathExists(resumedLater.name)) << "a taken-over holder recreated the file";
    EXPECT_EQ(resumedLater.lock->getLossReason(), ovLockRefreshFailing) << "the first reason is kept";
    writeFile(resumedLater.name, "third holder");
    resumedLater.lock.reset();
    EXPECT_EQ(readFile(resumedLater.name), "third holder");

    // Destroying the frozen holder returns although its refresh still hangs,
    // and leaves the file to age out: it cannot be confirmed ours.
    std::atomic<bool> destroyed{false};
    std::thread destroyer([&] {
        frozen.lock.reset();
        destroyed = true;
    });
    const double destroyStart = monotonicSeconds();
    EXPECT_TRUE(waitFor([&] { return destroyed.load(); }, 10)) << "release hangs with the file system";
    RecordProperty("destroyed_after_ms", static_cast<int>((monotonicSeconds() - destroyStart) * 1000));
    EXPECT_TRUE(pathExists(frozen.name));
    frozen.fs->set(PausableFS::Working);  // lets the hung call, and an old-style join, finish
    destroyer.join();
    EXPECT_EQ(frozen.calls, 1);
}
