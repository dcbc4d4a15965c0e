// Staleness by the file server's clock: the probe, file-time translation and
// the age verdict under clock skew.

#include <climits>
#include <cstdlib>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include "lock_test_fs.h"
#include "lock_test_util.h"
#include "orvane/lock_file.h"
#include "test_support.h"

namespace pt = boost::posix_time;
using namespace ovtest;

TEST(Staleness, MissingFileAndMissingDirectory) {
    TempDir dir;
    ovLockFileIsStale isStale(ovPathString(dir.path()), ovGetDefaultFSImp());
    EXPECT_THROW(isStale(dir.file("nothing").c_str(), 30, inSeconds(5)), ovFileNotFoundError);
    EXPECT_THROW(isStale(nullptr, 30, inSeconds(5)), ovFileNotFoundError);

    const std::string gone = dir.file("gone");
    ovLockFileIsStale onMissing(ovPathString(gone), ovGetDefaultFSImp());
    try {
        onMissing((gone + "/lock").c_str(), 30, inSeconds(5));
        ADD_FAILURE() << "no error for a missing directory";
    } catch (const ovNoSuchDirectory& e) {
        EXPECT_EQ(std::string(e.what()), "Tried to obtain a lock on a non-existent directory: " + gone);
    }
}

// Calibration absorbs a server clock ten minutes off: only the age by the
// server's clock counts.
class ServerClock : public ::testing::TestWithParam<long> {};

TEST_P(ServerClock, AgeIsJudgedStrictlyByTheServersClock) {
    TempDir dir;
    ovLockFileIsStale isStale(ovPathString(dir.path()), boost::make_shared<SkewedFS>(GetParam()));
    const std::string f = dir.file("lock");
    writeFile(f, "x");
    const struct {
        double age;
        long limit;
        bool stale;
    } cases[] = {{0, 30, false},     {29, 30, false}, {31.5, 30, true}, {0, -5, true},
                 {0, LONG_MAX, false}, {0, LONG_MIN, true},
                 // Dated ahead by more than the limit (a server clock stepped
                 // back, or 32-bit wrap-around bait): a candidate, which the
                 // locks then judge by watching its content.
                 {-20, 30, false},    {-3600, 30, true}, {-70.0 * 365 * 86400, 30, true}};
    for (const auto& c : cases) {
        ageFile(f, c.age);
        EXPECT_EQ(isStale(f.c_str(), c.limit, inSeconds(5)), c.stale) << c.age << " " << c.limit;
    }
}

INSTANTIATE_TEST_SUITE_P(SkewSeconds, ServerClock, ::testing::Values(0L, 600L, -600L));

TEST(Staleness, OneProbePerObjectNeverLeftBehindEvenWhenTheTimeQueryThrows) {
    TempDir dir;
    auto fs = boost::make_shared<RecordingFS>();
    const std::string f = dir.file("lock");
    writeFile(f, "x");
    ovLockFileIsStale first(ovPathString(dir.path()), fs), second(ovPathString(dir.path()), fs);
    fs->failTimeQueries = true;
    EXPECT_THROW(first(f.c_str(), 30, inSeconds(5)), ovFileAccessError);
    EXPECT_EQ(listDir(dir.path()), std::vector<std::string>{"lock"}) << "probe left behind";
    fs->failTimeQueries = false;
    for (int i = 0; i < 3; ++i) EXPECT_FALSE(first(f.c_str(), 30, inSeconds(5)));
    EXPECT_FALSE(second(f.c_str(), 30, inSeconds(5)));
    const std::vector<std::string> created = fs->created();
    ASSERT_EQ(created.size(), 3u) << "a failed calibration is retried, a good one kept";
    for (const std::string& p : created) EXPECT_EQ(p.rfind(dir.path() + "/.", 0), 0u) << p;
    EXPECT_NE(created[1], created[2]) << "each object names its own probe";
    EXPECT_EQ(listDir(dir.path()), std::vector<std::string>{"lock"});
}

TEST(Staleness, ProbeCreationGivesUpByDeadlineOrAfter1001Attempts) {
    TempDir dir;
    auto fs = boost::make_shared<RecordingFS>();
    fs->refuseCreates = true;
    const std::string f = dir.file("lock");
    writeFile(f, "x");
    try {
        // A past deadline still allows one attempt.
        ovLockFileIsStale(ovPathString(dir.path()), fs)(f.c_str(), 30, inSeconds(-1));
        ADD_FAILURE() << "no error";
    } catch (const ovFileAccessError& e) {
        EXPECT_EQ(std::string(e.what()),
                  "File system error occurred:  Could not create unique file in " + dir.path());
    }
    EXPECT_EQ(fs->created().size(), 1u);
    EXPECT_THROW(ovLockFileIsStale(ovPathString(dir.path()), fs)(f.c_str(), 30, inSeconds(60)),
                 ovFileAccessError);
    EXPECT_EQ(fs->created().size(), 1u + 1001u);
}

TEST(Staleness, CalibrationTranslatesFileTimesToUniversalTime) {
    TempDir dir;
    const FileTimeCalibration cal(ovPathString(dir.path()), inSeconds(5), ovGetDefaultFSImp());
    EXPECT_TRUE(listDir(dir.path()).empty());
    const long now = static_cast<long>(::time(nullptr));
    const pt::ptime base = cal(now);
    EXPECT_LT(std::abs((base - pt::microsec_clock::universal_time()).total_seconds()), 3);
    EXPECT_EQ(cal(now + 10) - base, pt::seconds(10));
    EXPECT_EQ(cal(now - 10) - base, pt::seconds(-10));
    EXPECT_EQ(cal(now + (1L << 32)) - base, pt::seconds(1L << 32)) << "64-bit file times";
}

// Local time jumping an hour (daylight-saving time starting or ending) between
// two looks must not change a file's age: ages are on the universal clock.
TEST(Staleness, LocalTimeJumpsDoNotAgeOrRejuvenateFiles) {
    for (bool dstStarts : {true, false}) {
        const std::string rule = tzRuleSwitchingIn(1.0, dstStarts);
        TempDir dir;
        const std::string fresh = dir.file("fresh"), old = dir.file("old");
        Child child = forkChild([&] {
            setenv("TZ", rule.c_str(), 1);
            tzset();
            ovLockFileIsStale isStale(ovPathString(dir.path()), ovGetDefaultFSImp());
            writeFile(fresh, "x");
            writeFile(old, "x");
            ageFile(old, 40);
            if (isStale(fresh.c_str(), 30, inSeconds(5)) || !isStale(old.c_str(), 30, inSeconds(5))) return 1;
            usleep(2000000);
            writeFile(fresh, "y");
            ageFile(old, 40);
            if (isStale(fresh.c_str(), 30, inSeconds(5))) return 2;
            if (!isStale(old.c_str(), 30, inSeconds(5))) return 3;
            return 0;
        });
        EXPECT_EQ(child.wait(30), 0) << rule;
    }
}
