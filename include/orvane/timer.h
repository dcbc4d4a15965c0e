#ifndef ORVANE_TIMER_H
#define ORVANE_TIMER_H

// A function run once after a delay, or again and again at a fixed rate, on a
// boost::thread of its own until cancelled.

#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <boost/function.hpp>
#include <boost/noncopyable.hpp>
#include <boost/shared_ptr.hpp>

#include "orvane/export.h"

class OV_API ovTimerTask : private boost::noncopyable {
public:
    virtual ~ovTimerTask();
    // True once the task ended by an exception or by cancel().
    virtual bool is_cancelled() const = 0;
    // Interrupts the task's thread and joins it. Never call it from the task.
    virtual void cancel() = 0;
};

// Now on the library's steady time line, as a ptime: every deadline the locks
// compute, and every deadline they pass to a file system (ovAbstractFS), is
// this plus a duration. It never jumps with the wall clock or the time zone
// (daylight-saving time, a clock set by hand); it is not a calendar time.
OV_API boost::posix_time::ptime ovSteadyNow();

// Starts the task at once. With repeat, f runs at delay, 2*delay, ... after
// the start (fixed rate: after an overrun the missed calls follow at once),
// measured on the steady clock.
// Dropping the handle without cancel() does not stop the task.
OV_API boost::shared_ptr<ovTimerTask> ovSetTimer(const boost::function0<void>& f,
                                                 boost::posix_time::time_duration delay,
                                                 bool repeat);

#endif
