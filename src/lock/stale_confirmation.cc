#include "lock/stale_confirmation.h"

#include <algorithm>
#include <chrono>
#include <functional>
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

// What this process knows of each lock file: when its content was last seen
// changing (on the steady clock, so that a jump of the wall clock cannot
// stretch or shrink it) and a digest of the content it last read. Content
// that differs from the last read proves a rewrite since then, even across
// calls: a waiter that watched a live holder earlier, and whose deadline now
// leaves no room to watch, needs a single read to see the holder is still at
// work. A digest collision only hides such a rewrite (the verdict then stands
// as it would without memory); it can never invent one.
class FileMemory {
public:
    // Records a read of `content`; true when it differs from the last one
    // read, which also counts as seeing the file live now.
    bool readChanged(const std::string& name, const std::string& content) {
        std::lock_guard<std::mutex> g(m_);
        const Steady::time_point now = Steady::now();
        Entry& e = entry(name, now);
        const size_t digest = std::hash<std::string>()(content);
        const bool changed = e.haveDigest && e.digest != digest;
        e.digest = digest;
        e.haveDigest = true;
        if (changed) {
            e.liveAt = now;
            e.seenLive = true;
        }
        return changed;
    }
    bool seenLiveRecently(const std::string& name) {
        std::lock_guard<std::mutex> g(m_);
        const auto it = files_.find(name);
        return it != files_.end() && it->second.seenLive && Steady::now() - it->second.liveAt < kSeenLiveSpan;
    }

private:
    struct Entry {
        Steady::time_point liveAt, touched;
        bool seenLive = false;
        size_t digest = 0;
        bool haveDigest = false;
    };
    Entry& entry(const std::string& name, Steady::time_point now) {
        if (files_.size() >= kMaxRemembered && !files_.count(name)) forgetOld(now);
        if (files_.size() >= kMaxRemembered && !files_.count(name)) files_.clear();  // all recent: start over
        Entry& e = files_[name];
        e.touched = now;
        return e;
    }
    // Forgetting only costs evidence of life, never invents it.
    void forgetOld(Steady::time_point now) {
        for (auto it = files_.begin(); it != files_.end();)
            it = now - it->second.touched >= kSeenLiveSpan ? files_.erase(it) : std::next(it);
    }
    std::mutex m_;
    std::map<std::string, Entry> files_;
};

FileMemory& memory() {
    static FileMemory* m = new FileMemory;  // never destroyed: timer threads may outlive exit
    return *m;
}

// The verdict when no watch overturned it: live if the file was seen
// changing within the staleness age, else stale.
StaleCheck unconfirmed(const std::string& name) {
    return memory().seenLiveRecently(name) ? StaleCheck::Live : StaleCheck::Stale;
}

// No room to watch: one read still shows a rewrite since this process last
// read the file. A missing or unreadable file proves nothing here.
StaleCheck withoutWatch(ovAbstractFS& fs, const std::string& name) {
    std::string content;
    if (readContent(fs, name, content) == Read::Present && memory().readChanged(name, content))
        return StaleCheck::Live;
    return unconfirmed(name);
}

}  // namespace

StaleCheck confirmStale(ovAbstractFS& fs, const std::string& name,
                        const pt::ptime& deadline) {
    const pt::ptime start = pt::microsec_clock::local_time();
    pt::time_duration watch = kLongestWatch;
    if (deadline.is_not_a_date_time() || deadline.is_neg_infinity()) return withoutWatch(fs, name);
    if (!deadline.is_pos_infinity()) {
        const pt::time_duration room = deadline - start;
        if (room < kMinimumRoom) return withoutWatch(fs, name);
        watch = std::min(watch, room);
    }

    // Each read is compared with the last one this process made of the file,
    // in this watch or before it; a failed read is no evidence.
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
        if (memory().readChanged(name, content)) return StaleCheck::Live;
    }
    return unconfirmed(name);
}

}  // namespace detail
