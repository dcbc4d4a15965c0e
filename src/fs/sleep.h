#ifndef ORVANE_FS_SLEEP_H
#define ORVANE_FS_SLEEP_H

// The file layer's waits. Both are boost::this_thread::sleep and therefore
// interruption points: cancelling a timer task stops a refresh mid-retry.

#include <boost/date_time/posix_time/posix_time.hpp>
#include <boost/thread/thread.hpp>

namespace detail {

inline boost::posix_time::ptime localNow() { return boost::posix_time::microsec_clock::local_time(); }

// Absolute wake-up: the universal time of the microsecond clock plus length.
inline void sleepFromNow(const boost::posix_time::time_duration& length) {
    boost::this_thread::sleep(boost::posix_time::microsec_clock::universal_time() + length);
}

// Relative sleep of the given length.
inline void sleepRelative(const boost::posix_time::time_duration& length) {
    boost::this_thread::sleep(length);
}

}  // namespace detail

#endif
