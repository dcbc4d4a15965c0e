#ifndef ORVANE_TIMER_STEADY_CLOCK_H
#define ORVANE_TIMER_STEADY_CLOCK_H

// The library's clocks. Waits, deadlines, periods and silences are measured
// on the steady clock, so that neither daylight-saving time nor a wall clock
// set by hand can stretch or cut them; the universal clock is used only where
// a time is compared with a file's modification time. Local time is used
// nowhere in the locks.

#include <stdint.h>
#include <time.h>

#include <algorithm>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <boost/thread/thread.hpp>

#include "orvane/timer.h"

namespace detail {

inline boost::posix_time::ptime steadyNow() { return ovSteadyNow(); }

inline boost::posix_time::ptime utcNow() { return boost::posix_time::microsec_clock::universal_time(); }

// Sleeps `length` by the steady clock; an interruption point of the thread
// library, like every wait of the locks.
inline void sleepFor(const boost::posix_time::time_duration& length) {
    if (length.is_special() || length.is_negative()) {
        boost::this_thread::interruption_point();
        return;
    }
    // A relative sleep, which the thread library measures on its monotonic
    // clock; checked against our own reading of that clock, because a wait
    // can come back early. libfaketime, for one, returns every monotonic
    // condition wait at once: there the rest is slept in short plain sleeps
    // with an interruption point between them, rather than in a spin.
    const boost::posix_time::ptime until = steadyNow() + length;
    boost::this_thread::sleep(length);
    for (boost::posix_time::time_duration left = until - steadyNow(); left.is_positive();
         left = until - steadyNow()) {
        boost::this_thread::interruption_point();
        struct timespec slice = {0, static_cast<long>(std::min<int64_t>(left.total_microseconds(), 2000) * 1000)};
        ::nanosleep(&slice, nullptr);
    }
}

// Sleeps until a deadline on the steady time line (see ovSteadyNow).
inline void sleepUntil(const boost::posix_time::ptime& deadline) { sleepFor(deadline - steadyNow()); }

}  // namespace detail

#endif
