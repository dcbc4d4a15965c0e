#ifndef ORVANE_TIMER_TIMER_TASK_IMPL_H
#define ORVANE_TIMER_TIMER_TASK_IMPL_H

// The one implementation of ovTimerTask: a dedicated boost::thread per task.

#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <boost/function.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/thread/thread.hpp>

#include "orvane/timer.h"

class ovTimerTaskImpl : public ovTimerTask {
public:
    // Starts the thread at once; it runs `body`, which owns its own copies of
    // everything it needs, so the task may outlive this handle.
    ovTimerTaskImpl(const boost::function0<void>& body, const boost::shared_ptr<bool volatile>& flag);
    // Detaches a still-running thread: dropping the handle does not stop it.
    ~ovTimerTaskImpl() override;

    bool is_cancelled() const override;
    void cancel() override;
    // As cancel(), but waits at most `wait` for the thread to end; a thread
    // still running then (stuck in a call that ignores interruption, such as
    // a hung file system) is detached and left to end by itself. True if it
    // ended.
    bool cancelWithin(const boost::posix_time::time_duration& wait);

private:
    boost::thread thread_;
    // Set to true by the task thread when it ends by an exception (cancel
    // included). volatile is all the synchronisation it gets; a late read is
    // acceptable to every caller.
    boost::shared_ptr<bool volatile> endedByException_;
};

namespace detail {

// cancelWithin() for any task; other implementations get a plain cancel().
bool cancelWithin(ovTimerTask& task, const boost::posix_time::time_duration& wait);

// Waits until the deadline on the steady time line (every wait an interruption point),
// then calls f. An empty f throws boost::bad_function_call.
void sleep_then_call(const boost::function0<void>& f, const boost::posix_time::ptime& deadline);

// Thread bodies. Both swallow every exception, recording it in `flag`.
void run_task_function_once(const boost::function0<void>& f,
                            const boost::posix_time::time_duration& delay,
                            const boost::shared_ptr<bool volatile>& flag);
void repeat_until_interrupted(const boost::function0<void>& f,
                              const boost::posix_time::time_duration& period,
                              const boost::shared_ptr<bool volatile>& flag);

}  // namespace detail

#endif
