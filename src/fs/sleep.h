#ifndef ORVANE_FS_SLEEP_H
#define ORVANE_FS_SLEEP_H

// The file layer's waits: steady-clock sleeps and therefore interruption
// points, so cancelling a timer task stops a refresh mid-retry.

#include "timer/steady_clock.h"

namespace detail {

inline void sleepFromNow(const boost::posix_time::time_duration& length) { sleepFor(length); }
inline void sleepRelative(const boost::posix_time::time_duration& length) { sleepFor(length); }

}  // namespace detail

#endif
