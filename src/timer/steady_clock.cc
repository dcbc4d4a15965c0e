#include <chrono>

#include "timer/steady_clock.h"

boost::posix_time::ptime ovSteadyNow() {
    // An arbitrary fixed origin: only differences between two readings mean
    // anything, and the steady clock's own epoch (boot) keeps them in range.
    static const boost::posix_time::ptime origin(boost::gregorian::date(2000, 1, 1));
    const auto since = std::chrono::steady_clock::now().time_since_epoch();
    return origin + boost::posix_time::microseconds(
                        std::chrono::duration_cast<std::chrono::microseconds>(since).count());
}
