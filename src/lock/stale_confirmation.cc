#include "lock/stale_confirmation.h"

#include <algorithm>
#include <chrono>
#include <functional>
#include <map>
#include <mutex>
#include <vector>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <boost/thread/thread.hpp>

#include "timer/steady_clock.h"

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
// How often a file that looks fresh is read all the same, so that a later
// verdict without room to watch has a read less than 30 s old to compare with.
const Steady::duration kKeepReadEvery = std::chrono::seconds(10);

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

// What this process knows of each lock file: a digest of the content it last
// read and when, and when the file was last proven live. Times are on the
// steady clock, so that a jump of the wall clock cannot stretch or shrink
// them. Content that differs from a read made less than 30 s ago proves a
// refresh within the staleness age, however the read came about: a watch, a
// single read without room to watch, or a periodic read while the file
// looked fresh (keepRecentRead). A digest collision only hides a rewrite (the
// verdict then stands as it would without memory); it can never invent one.
class FileMemory {
public:
    // Records a read of `content` made now.
    void read(const std::string& name, const std::string& content) {
        std::lock_guard<std::mutex> g(m_);
        const Steady::time_point now = Steady::now();
        Entry& e = entry(name, now);
        const size_t digest = std::hash<std::string>()(content);
        // The rewrite came after the previous read: that is when the holder
        // is known to have been alive.
        if (e.haveRead && e.digest != digest && (!e.seenLive || e.readAt > e.liveAt)) {
            e.liveAt = e.readAt;
            e.seenLive = true;
        }
        e.digest = digest;
        e.readAt = now;
        e.haveRead = true;
    }
    bool seenLiveRecently(const std::string& name) {
        std::lock_guard<std::mutex> g(m_);
        const auto it = files_.find(name);
        return it != files_.end() && it->second.seenLive && Steady::now() - it->second.liveAt < kSeenLiveSpan;
    }
    bool readWithin(const std::string& name, Steady::duration span) {
        std::lock_guard<std::mutex> g(m_);
        const auto it = files_.find(name);
        return it != files_.end() && it->second.haveRead && Steady::now() - it->second.readAt < span;
    }

private:
    struct Entry {
        Steady::time_point readAt, liveAt;
        size_t digest = 0;
        bool haveRead = false, seenLive = false;
    };
    Entry& entry(const std::string& name, Steady::time_point now) {
        if (files_.size() >= kMaxRemembered && !files_.count(name)) forgetOld(now);
        if (files_.size() >= kMaxRemembered && !files_.count(name)) files_.clear();  // all recent: start over
        return files_[name];
    }
    // A read or a sighting 30 s old is no evidence any more: forgetting it
    // loses nothing.
    void forgetOld(Steady::time_point now) {
        for (auto it = files_.begin(); it != files_.end();)
            it = now - it->second.readAt >= kSeenLiveSpan ? files_.erase(it) : std::next(it);
    }
    std::mutex m_;
    std::map<std::string, Entry> files_;
};

FileMemory& memory() {
    static FileMemory* m = new FileMemory;  // never destroyed: timer threads may outlive exit
    return *m;
}

// Reads the content and remembers it; `seen` (if any) keeps the last content read.
Read readAndRemember(ovAbstractFS& fs, const std::string& name, std::string* seen = nullptr) {
    std::string content;
    const Read r = readContent(fs, name, content);
    if (r == Read::Present) {
        memory().read(name, content);
        if (seen) seen->swap(content);
    }
    return r;
}

// The verdict the reads did not overturn: live if the file was seen
// changing within the staleness age, else stale.
StaleCheck unconfirmed(const std::string& name) {
    return memory().seenLiveRecently(name) ? StaleCheck::Live : StaleCheck::Stale;
}

}  // namespace

void keepRecentRead(ovAbstractFS& fs, const std::string& name) {
    if (memory().readWithin(name, kKeepReadEvery)) return;
    (void)readAndRemember(fs, name);  // a missing or unreadable file leaves nothing to compare with
}

StaleCheck confirmStale(ovAbstractFS& fs, const std::string& name,
                        const pt::ptime& deadline, std::string* seen) {
    std::vector<std::string> seens;
    const StaleCheck verdict =
        confirmStaleAll(fs, std::vector<std::string>(1, name), deadline, seen ? &seens : nullptr)[0];
    if (seen) seen->swap(seens[0]);
    return verdict;
}

std::vector<StaleCheck> confirmStaleAll(ovAbstractFS& fs, const std::vector<std::string>& names,
                                        const pt::ptime& deadline, std::vector<std::string>* seens) {
    if (seens) seens->assign(names.size(), std::string());
    const auto seenOf = [&](size_t i) { return seens ? &(*seens)[i] : nullptr; };
    std::vector<StaleCheck> verdicts(names.size(), StaleCheck::Stale);
    bool room = !deadline.is_not_a_date_time() && !deadline.is_neg_infinity();
    if (room && !deadline.is_pos_infinity()) room = deadline - steadyNow() >= kMinimumRoom;
    if (!room) {
        // One read still shows a rewrite since a recent earlier read; a
        // missing or unreadable file proves nothing here.
        for (size_t i = 0; i < names.size(); ++i) {
            (void)readAndRemember(fs, names[i], seenOf(i));
            verdicts[i] = unconfirmed(names[i]);
        }
        return verdicts;
    }

    // Each read is compared with the one before it, in this watch or before;
    // a failed read is no evidence. A name's watch starts at its first read,
    // so one read late in a long first round still gets the whole span, and
    // never runs past the deadline.
    std::vector<pt::ptime> ends(names.size());
    std::vector<bool> watching(names.size(), true);
    for (bool firstPass = true;; firstPass = false) {
        pt::ptime earliestEnd(pt::pos_infin);
        for (size_t i = 0; i < names.size(); ++i) {
            if (!watching[i]) continue;
            if (firstPass) ends[i] = std::min(steadyNow() + kLongestWatch, deadline);
            switch (readAndRemember(fs, names[i], seenOf(i))) {
                case Read::Missing:
                    verdicts[i] = StaleCheck::Gone;
                    watching[i] = false;
                    continue;
                case Read::Unreadable: break;
                case Read::Present:
                    if (memory().seenLiveRecently(names[i])) {
                        verdicts[i] = StaleCheck::Live;
                        watching[i] = false;
                        continue;
                    }
                    break;
            }
            if (steadyNow() >= ends[i]) {
                verdicts[i] = unconfirmed(names[i]);
                watching[i] = false;
            } else {
                earliestEnd = std::min(earliestEnd, ends[i]);
            }
        }
        if (earliestEnd.is_pos_infinity()) break;  // every name decided
        // Bounded by the watch span: at most ~3.5 s / kPollEvery rounds after the first.
        const pt::ptime now = steadyNow();
        if (now < earliestEnd) sleepFor(std::min(kPollEvery, earliestEnd - now));
    }
    return verdicts;
}

}  // namespace detail
