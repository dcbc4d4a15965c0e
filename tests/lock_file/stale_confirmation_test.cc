// The second opinion on a stale verdict: watching a lock file's content.

#include <atomic>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "lock/stale_confirmation.h"
#include "lock_test_util.h"
#include "test_support.h"

namespace pt = boost::posix_time;
using namespace ovtest;
using detail::StaleCheck;

namespace {

// Read n (from 0) returns script(n): -1 gone, -2 unreadable, else the content.
// A name with a script of its own in byName counts its own reads.
struct ScriptedFS : ovNetworkFS {
    using ovAbstractFS::refreshLockFile;
    std::function<int(int)> script;
    std::map<std::string, std::function<int(int)>> byName;
    std::map<std::string, int> readsOf;
    std::atomic<int> reads{0};
    bool readLockFileContent(const std::string& name, std::string& content) override {
        ++reads;
        const auto own = byName.find(name);
        const int v = own != byName.end() ? own->second(readsOf[name]++) : script(reads - 1);
        if (v == -2) throw ovFileAccessError("File system error occurred: injected");
        content = std::to_string(v);
        return v >= 0;
    }
};

int counting(int n) { return n; }  // looks live if read twice
int constant(int) { return 7; }

}  // namespace

// Sightings are remembered per name, so each row watches its own.
TEST(StaleConfirmation, VerdictsFromWatchedContent) {
    const struct {
        const char* name;
        std::function<int(int)> script;
        double room;  // seconds to the deadline, unless special is set
        pt::special_values special;
        StaleCheck expected;
        int minReads, maxReads;
        double minSeconds;
    } cases[] = {
        {"changes", [](int n) { return n < 5 ? 7 : 8; }, 10, pt::not_special, StaleCheck::Live, 6, 6, 0},
        {"vanishes", [](int n) { return n < 3 ? 7 : -1; }, 10, pt::not_special, StaleCheck::Gone, 4, 4, 0},
        {"absent", [](int) { return -1; }, 10, pt::not_special, StaleCheck::Gone, 1, 1, 0},
        // A failed read is no evidence: the watch goes on past it.
        {"unreadable", [](int n) { return n == 0 ? 7 : -2; }, 10, pt::not_special, StaleCheck::Stale, 10, 40, 3},
        {"read-fails-between", [](int n) { return n % 2 ? -2 : n; }, 10, pt::not_special, StaleCheck::Live, 3, 3, 0},
        // Unchanged content is watched for about three one-second refreshes.
        {"unchanged", constant, 30, pt::not_special, StaleCheck::Stale, 10, 40, 3},
        {"no-deadline", constant, 0, pt::pos_infin, StaleCheck::Stale, 10, 40, 3},
        {"cut-short", constant, 1.5, pt::not_special, StaleCheck::Stale, 2, 40, 0},
        // No room to watch: one read, nothing earlier to compare it with, so
        // the verdict stands.
        {"no-room", counting, 1.0, pt::not_special, StaleCheck::Stale, 1, 1, 0},
        {"past", counting, -5, pt::not_special, StaleCheck::Stale, 1, 1, 0},
        {"not-a-time", counting, 0, pt::not_a_date_time, StaleCheck::Stale, 1, 1, 0},
        {"neg-infinity", counting, 0, pt::neg_infin, StaleCheck::Stale, 1, 1, 0},
    };
    for (const auto& c : cases) {
        ScriptedFS fs;
        fs.script = c.script;
        const bool special = c.special != pt::not_special;
        const double start = monotonicSeconds();
        EXPECT_EQ(detail::confirmStale(fs, c.name, special ? pt::ptime(c.special) : inSeconds(c.room)),
                  c.expected) << c.name;
        const double took = monotonicSeconds() - start;
        EXPECT_GE(took, c.minSeconds) << c.name;
        // Bounded by the deadline, and by a dozen seconds so a dead holder goes promptly.
        EXPECT_LT(took, std::min(special ? 12.0 : std::max(c.room, 0.0), 12.0) + 3.0) << c.name;
        EXPECT_GE(fs.reads, c.minReads) << c.name;
        EXPECT_LE(fs.reads, c.maxReads) << c.name;
    }
}

// A holder seen alive moments ago cannot have gone 30 s without a refresh:
// neither a waiter whose long wait runs out nor a full watch that happens to
// see no change (the holder stalled) may act against it.
TEST(StaleConfirmation, HolderSeenAliveRecentlyStaysLive) {
    ScriptedFS fs;
    fs.script = [](int n) { return n == 0 ? 6 : 7; };
    EXPECT_EQ(detail::confirmStale(fs, "seen", inSeconds(10)), StaleCheck::Live);
    fs.reads = 0;
    fs.script = constant;  // the same content as last read: only the sighting speaks for it
    EXPECT_EQ(detail::confirmStale(fs, "seen", inSeconds(0.5)), StaleCheck::Live);
    EXPECT_EQ(detail::confirmStale(fs, "seen", inSeconds(-1)), StaleCheck::Live);
    EXPECT_EQ(fs.reads, 2);
    EXPECT_EQ(detail::confirmStale(fs, "seen", inSeconds(1.5)), StaleCheck::Live) << "watch cut short";
    EXPECT_EQ(detail::confirmStale(fs, "seen", inSeconds(20)), StaleCheck::Live) << "full watch";
    EXPECT_EQ(detail::confirmStale(fs, "never-seen", inSeconds(20)), StaleCheck::Stale);
}

// A waiter whose deadline leaves no room to watch still compares one read
// with the last one it made, however long ago: a rewrite since then is a
// live holder (a caching client shows it a live holder's old time).
TEST(StaleConfirmation, RewriteSinceAnEarlierReadIsSeenWithoutRoomToWatch) {
    ScriptedFS fs;
    fs.script = constant;
    EXPECT_EQ(detail::confirmStale(fs, "rewritten", inSeconds(1.5)), StaleCheck::Stale);
    EXPECT_EQ(detail::confirmStale(fs, "kept", inSeconds(1.5)), StaleCheck::Stale);
    fs.reads = 0;
    EXPECT_EQ(detail::confirmStale(fs, "kept", inSeconds(0.5)), StaleCheck::Stale) << "unchanged since";
    fs.script = [](int) { return 8; };
    EXPECT_EQ(detail::confirmStale(fs, "rewritten", inSeconds(0.5)), StaleCheck::Live);
    EXPECT_EQ(detail::confirmStale(fs, "rewritten", pt::ptime(pt::neg_infin)), StaleCheck::Live)
        << "seen changing moments ago";
    EXPECT_EQ(fs.reads, 3);
    // Neither a vanished nor an unreadable file is evidence of a rewrite.
    fs.script = [](int) { return -1; };
    EXPECT_EQ(detail::confirmStale(fs, "kept", inSeconds(0.5)), StaleCheck::Stale);
    fs.script = [](int) { return -2; };
    EXPECT_EQ(detail::confirmStale(fs, "kept", inSeconds(0.5)), StaleCheck::Stale);
}

// While a file looks fresh, one read per 10 s is kept: the read a later
// verdict without room to watch compares with.
TEST(StaleConfirmation, ReadKeptWhileFreshIsWhatALateVerdictComparesWith) {
    ScriptedFS fs;
    fs.script = constant;
    detail::keepRecentRead(fs, "fresh");
    detail::keepRecentRead(fs, "fresh");
    EXPECT_EQ(fs.reads, 1) << "more than one read per 10 s";
    fs.script = [](int) { return 8; };
    EXPECT_EQ(detail::confirmStale(fs, "fresh", inSeconds(0.5)), StaleCheck::Live);
    fs.script = [](int) { return -2; };
    detail::keepRecentRead(fs, "unreadable");  // no evidence, and no exception
    EXPECT_EQ(detail::confirmStale(fs, "unreadable", inSeconds(0.5)), StaleCheck::Stale);
}

// All names of one judgement share one window, each with its own verdict:
// one that changes well into the window is still seen live, however many
// others share the rounds.
TEST(StaleConfirmation, NamesJudgedTogetherShareOneWindow) {
    ScriptedFS fs;
    fs.byName = {{"all-dead", constant},
                 {"all-changes", [](int n) { return n < 3 ? 7 : 8; }},
                 {"all-vanishes", [](int n) { return n < 2 ? 7 : -1; }},
                 {"all-unreadable", [](int) { return -2; }},
                 {"all-changes-late", [](int n) { return n < 15 ? 7 : 8; }},
                 {"all-dead-too", constant}};
    const std::vector<std::string> names{"all-dead",         "all-changes",     "all-vanishes", "all-unreadable",
                                         "all-changes-late", "all-dead-too"};
    const std::vector<StaleCheck> expected{StaleCheck::Stale, StaleCheck::Live, StaleCheck::Gone,
                                           StaleCheck::Stale, StaleCheck::Live, StaleCheck::Stale};
    std::vector<std::string> seens;
    const double start = monotonicSeconds();
    EXPECT_EQ(detail::confirmStaleAll(fs, names, inSeconds(30), &seens), expected);
    const double took = monotonicSeconds() - start;
    EXPECT_GE(took, 3.0);
    EXPECT_LT(took, 6.0) << "three unchanged names watched one after another take 10.5 s";
    EXPECT_EQ(seens, (std::vector<std::string>{"7", "8", "7", "", "8", "7"}));

    // No room: one read of each.
    fs.readsOf.clear();
    const std::vector<std::string> unwatched{"unwatched-1", "unwatched-2"};
    for (const std::string& n : unwatched) fs.byName[n] = counting;
    EXPECT_EQ(detail::confirmStaleAll(fs, unwatched, inSeconds(0.5)),
              std::vector<StaleCheck>(2, StaleCheck::Stale));
    EXPECT_EQ(fs.readsOf, (std::map<std::string, int>{{"unwatched-1", 1}, {"unwatched-2", 1}}));
}
