#ifndef ORVANE_LOCK_STALE_CONFIRMATION_H
#define ORVANE_LOCK_STALE_CONFIRMATION_H

// A second opinion on a stale verdict. Clients that cache file attributes
// (network mounts with long attribute timeouts) can report a live lock file's
// modification time tens of seconds late, while a fresh open still sees every
// rewrite of its content. Every refresh writes a new counter value, so content
// that changes while we watch proves a live holder, whatever its time says.

#include <string>
#include <vector>

#include <boost/date_time/posix_time/posix_time_types.hpp>

#include "orvane/fs.h"

namespace detail {

enum class StaleCheck {
    Stale,  // content unchanged while watched (or no room to watch) and not
            // seen changing within 30 s: act on it
    Live,   // content changed: a holder is refreshing it, treat as not stale
    Gone    // the file vanished meanwhile: look again at once
};

// Before acting on a stale verdict for `name`: when the deadline leaves room
// (remaining >= ~1.2 s), read its content through fs.readLockFileContent()
// (fresh open) and watch it for up to min(~3.5 s, remaining), polling every
// ~100 ms with interruptible boost sleeps: changed content -> Live, file gone
// -> Gone, unchanged -> Stale. With too little room, read it once only.
// `deadline` is on the steady time line, as everywhere in the locking code;
// pos_infin means no limit.
//
// Every read is compared with the last read this process made of the same
// file, in this call or an earlier one (keepRecentRead below): a difference
// from a read less than 30 s old is a refresh within the staleness age, so
// Live. That lets a waiter whose deadline leaves no room still see, with one
// read, that the holder it has been waiting for is at work.
//
// A file whose content was seen changing within the last 30 s (the staleness
// age) cannot be stale yet, whatever its time says: a holder that stalls for
// longer than one watch (a loaded machine, a slow server) is still alive. So
// any verdict not overturned by the reads themselves (no room, a watch cut
// short, or a full watch that saw no change) returns Live for such a file.
// Those sightings are remembered process-wide, per file name; a dead holder's
// file is then taken over once its last sighting is 30 s old.
//
// A read that fails (ovFileAccessError, e.g. an I/O error through a network
// client) gives no evidence either way and the watch goes on; a file never
// readable during the whole watch (a directory in its place) counts as
// unchanged, and so does one missing at the single read. Throws only
// boost::thread_interrupted, from its sleeps.
//
// `seen`, when given, receives the content of the last successful read (empty
// when none succeeded): a take-over then rewrites the file only if it still
// holds exactly that.
StaleCheck confirmStale(ovAbstractFS& fs, const std::string& name,
                        const boost::posix_time::ptime& deadline, std::string* seen = nullptr);

// confirmStale for every name of one judgement at once, verdicts in the order
// of `names`: all are watched in the same window, each round reading every
// name not yet decided, so N candidates cost one watch (~3.5 s), not N. Each
// name is watched as confirmStale would watch it alone: for ~3.5 s from its
// own first read (never past the deadline), until its own verdict (changed ->
// Live, gone -> Gone), with the same memory of earlier reads and sightings.
// The room is judged once, at the start, for all of them. `seens`, when
// given, is resized to names.size() and receives what `seen` would for each
// name. confirmStale is this for one name. Throws only
// boost::thread_interrupted, from its sleeps.
std::vector<StaleCheck> confirmStaleAll(ovAbstractFS& fs, const std::vector<std::string>& names,
                                        const boost::posix_time::ptime& deadline,
                                        std::vector<std::string>* seens = nullptr);

// Called when `name` was just judged not stale by its time: reads its content
// if this process has not read it within the last 10 s. A waiter thus always
// has a recent read to compare with when the file starts to look stale (a
// caching client's time catching up) at a moment its deadline leaves no room
// to watch. Costs one read per file per 10 s of waiting; never throws.
void keepRecentRead(ovAbstractFS& fs, const std::string& name);

}  // namespace detail

#endif
