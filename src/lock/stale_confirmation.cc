#include "lock/stale_confirmation.h"

#include <algorithm>
#include <chrono>
#include <map>
#include <mutex>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <boost/thread/thread.hpp>

namespace detail {

namespace {

namespace pt = boost::posix_time;
using Steady = std::chrono::steady_clock;

// Below this much time before the deadline a watch could not see even one
// refresh (they come once a second), so the verdict is acted on as it stands.
const pt::time_duration kMinimumRoom = pt::milliseconds(1200);
// About three refresh periods of the one-second refresh: a live holder
// rewrites the content at least twice in that span even when late.
const pt::time_duration kLongestWatch = pt::milliseconds(3500);
const pt::time_duration kPollEvery = pt::milliseconds(100);
// A holder seen refreshing this recently cannot have gone 30 s without a refresh.
const Steady::duration kSeenLiveSpan = std::chrono::seconds(30);
const size_t kMaxRemembered = 1024;

enum class Read { Present, Missing, Unreadable };

Read readContent(ovAbstractFS& fs, const std::string& name, std::string& content) {
    try {
        return fs.readLockFileContent(name, content) ? Read::Present : Read::Missing;
    } catch (const ovFileAccessError&) {
        // Something that cannot be read as a file (a directory in its place,
        // an I/O error) gives no evidence either way.
        return Read::Unreadable;
    }
}

// When each lock file was last seen changing, measured on the steady clock so
// that a jump of the wall clock cannot stretch or shrink it.
class Sightings {
public:
    void sawLive(const std::string& name) {
        std::lock_guard<std::mutex> g(m_);
        const Steady::time_point now = Steady::now();
        if (seen_.size() >= kMaxRemembered) forgetOld(now);
        if (seen_.size() >= kMaxRemembered) seen_.clear();  // all recent: start over
        seen_[name] = now;
    }
    bool seenLiveRecently(const std::string& name) {
        std::lock_guard<std::mutex> g(m_);
        const auto it = seen_.find(name);
        return it != seen_.end() && Steady::now() - it->second < kSeenLiveSpan;
    }

private:
    void forgetOld(Steady::time_point now) {
        for (auto it = seen_.begin(); it != seen_.end();)
            it = now - it->second >= kSeenLiveSpan ? seen_.erase(it) : std::next(it);
    }
    std::mutex m_;
    std::map<std::string, Steady::time_point> seen_;
};

Sightings& sightings() {
    static Sightings* s = new Sightings;  // never destroyed: timer threads may outlive exit
    return *s;
}

// The verdict when no full watch backs it.
StaleCheck unconfirmed(const std::string& name) {
    return sightings().seenLiveRecently(name) ? StaleCheck::Live : StaleCheck::Stale;
}

}  // namespace

StaleCheck confirmStale(ovAbstractFS& fs, const std::string& name,
                        const pt::ptime& deadline) {
    const pt::ptime start = pt::microsec_clock::local_time();
    pt::time_duration watch = kLongestWatch;
    if (deadline.is_not_a_date_time() || deadline.is_neg_infinity()) return unconfirmed(name);
    if (!deadline.is_pos_infinity()) {
        const pt::time_duration room = deadline - start;
        if (room < kMinimumRoom) return unconfirmed(name);
        watch = std::min(watch, room);
    }

    // The first content read, once one succeeds; a failed read is no evidence.
    std::string first;
    bool haveFirst = false;
    const pt::ptime end = start + watch;
    for (bool firstPass = true;; firstPass = false) {
        if (!firstPass) {
            const pt::ptime now = pt::microsec_clock::local_time();
            if (now >= end) break;
            // Bounded by the watch span: at most watch / kPollEvery passes.
            boost::this_thread::sleep(pt::microsec_clock::universal_time() + std::min(kPollEvery, end - now));
        }
        std::string content;
        switch (readContent(fs, name, content)) {
            case Read::Missing: return StaleCheck::Gone;
            case Read::Unreadable: continue;
            case Read::Present: break;
        }
        if (!haveFirst) {
            first = content;
            haveFirst = true;
        } else if (content != first) {
            sightings().sawLive(name);
            return StaleCheck::Live;
        }
    }
    return unconfirmed(name);
}

}  // namespace detail
