#ifndef ORVANE_CHRONO_BRIDGE_H
#define ORVANE_CHRONO_BRIDGE_H

// std::chrono durations as the time library's durations, for the standard
// lockable forms (try_lock_for, try_lock_until).

#include <chrono>

#include <boost/date_time/posix_time/posix_time_types.hpp>

template <class Rep, class Period>
boost::posix_time::time_duration ovToTimeDuration(const std::chrono::duration<Rep, Period>& d) {
    // Anything beyond a century is "no limit"; it also keeps the cast below
    // from overflowing for durations such as hours::max().
    const std::chrono::duration<double> seconds = d;
    if (seconds.count() > 3.2e9) return boost::posix_time::pos_infin;
    if (seconds.count() <= 0) return boost::posix_time::time_duration(0, 0, 0, 0);
    return boost::posix_time::microseconds(
        std::chrono::duration_cast<std::chrono::microseconds>(d).count());
}

template <class Clock, class Duration>
boost::posix_time::time_duration ovTimeUntil(const std::chrono::time_point<Clock, Duration>& t) {
    return ovToTimeDuration(t - Clock::now());
}

#endif
