// One writer and six readers taking and releasing one directory's lock as
// fast as they can for a minute: the writer keeps meeting read-lock files that
// vanish under its staleness query; every process must end normally.
#include <cstdio>

#include <gtest/gtest.h>

#include "rw_test_util.h"

TEST(RwLockSoak, OneWriterSixReadersForAMinute) {
    ovtest::TempDir dir, check, out;
    const std::vector<long> acquired = rwtest::runAll(7, [&](size_t i, const std::string& result) {
        return rwtest::worker(dir.path(), i == 0 ? "writer" : "reader",
                              {"--duration", "60", "--check-dir", check.path(), "--result", result});
    }, out, 300);  // each acquisition is bounded by the others' holds
    long reads = 0;
    for (size_t i = 1; i < acquired.size(); ++i) reads += acquired[i];
    EXPECT_GT(acquired[0], 0);
    EXPECT_GT(reads, 0);
    std::printf("soak: %ld write and %ld read acquisitions\n", acquired[0], reads);
    EXPECT_EQ(0u, rwtest::readLockCount(dir.path()));
    EXPECT_FALSE(rwtest::writeLockExists(dir.path()));
}
