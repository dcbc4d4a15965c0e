#ifndef ORVANE_LOG_CHANNEL_H
#define ORVANE_LOG_CHANNEL_H

// Diagnostic channels of the locking code, switched on at load time by the
// presence of ORVANE_FSLOCK_VERBOSE, ORVANE_FSLOCK_WARNING (also implied by
// VERBOSE) and ORVANE_FSLOCK_STALE_LOG. Plain data: a host may flip them.

#include <ostream>

#include "orvane/export.h"

struct ovLogChannel {
    bool enabled;
    std::ostream* stream;  // not owned
};

// Each insertion tests `enabled` on its own, so switching a channel off
// mid-line drops the rest of that line.
template <class T>
ovLogChannel& operator<<(ovLogChannel& channel, const T& value) {
    if (channel.enabled && channel.stream) *channel.stream << value;
    return channel;
}

inline ovLogChannel& operator<<(ovLogChannel& channel, std::ostream& (*manip)(std::ostream&)) {
    if (channel.enabled && channel.stream) manip(*channel.stream);
    return channel;
}

OV_API extern ovLogChannel verbose;    // tracing, to standard output
OV_API extern ovLogChannel warning;    // survived failures, to standard error
OV_API extern ovLogChannel stale_log;  // stale locks found and removed, to standard output

#endif
