#ifndef ORVANE_LOCK_STALE_CONFIRMATION_H
#define ORVANE_LOCK_STALE_CONFIRMATION_H

// A second opinion on a stale verdict. Clients that cache file attributes
// (network mounts with long attribute timeouts) can report a live lock file's
// modification time tens of seconds late, while a fresh open still sees every
// rewrite of its content. Every refresh writes a new counter value, so content
// that changes while we watch proves a live holder, whatever its time says.

#include <string>

#include <boost/date_time/posix_time/posix_time_types.hpp>

#include "orvane/fs.h"

namespace detail {

enum class StaleCheck {
    Stale,  // content unchanged while watched (or no room to watch): act on it
    Live,   // content changed: a holder is refreshing it, treat as not stale
    Gone    // the file vanished meanwhile: look again at once
};

// Before acting on a stale verdict for `name`: when the deadline leaves room
// (remaining >= ~1.2 s), read its content through fs.readLockFileContent()
// (fresh open) and watch it for up to min(~3.5 s, remaining), polling every
// ~100 ms with interruptible boost sleeps: changed content -> Live, file gone
// -> Gone, unchanged -> Stale. With too little room, return Stale at once
// (act on the verdict as before). `deadline` is a local time, as everywhere in
// the locking code; pos_infin means no limit.
//
// Too little room must not mean "act" for a waiter whose long wait merely
// runs out: a file whose content was seen changing within the last 30 s (the
// staleness age) cannot be stale yet, so a verdict that no full watch backs
// (no room, or a watch cut short by the deadline) returns Live for it. Those
// sightings are remembered process-wide, per file name.
//
// A file that cannot be read (ovFileAccessError from the read, e.g. a
// directory in its place) gives no evidence: Stale, as without a watch.
// Throws only boost::thread_interrupted, from its sleeps.
StaleCheck confirmStale(ovAbstractFS& fs, const std::string& name,
                        const boost::posix_time::ptime& deadline);

}  // namespace detail

#endif
