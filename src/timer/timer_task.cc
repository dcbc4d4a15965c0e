// Timer tasks: one boost::thread per task, fixed-rate schedule, cancel by
// interrupting and joining the thread.

#include "timer/timer_task_impl.h"

#include <time.h>

#include "timer/steady_clock.h"

#include <boost/bind/bind.hpp>
#include <boost/date_time/posix_time/posix_time.hpp>
#include <boost/function/function_base.hpp>
#include <boost/make_shared.hpp>

namespace pt = boost::posix_time;

namespace {

// The ended-by-exception flag is a plain volatile bool: a late read is fine
// for every caller. Relaxed atomic accesses compile to the same plain loads
// and stores, and keep race detectors from flagging the intended race.
void raise(const boost::shared_ptr<bool volatile>& flag) { __atomic_store_n(flag.get(), true, __ATOMIC_RELAXED); }

}  // namespace

ovTimerTask::~ovTimerTask() {}

ovTimerTaskImpl::ovTimerTaskImpl(const boost::function0<void>& body,
                                 const boost::shared_ptr<bool volatile>& flag)
    : thread_(body), endedByException_(flag) {}

ovTimerTaskImpl::~ovTimerTaskImpl() {
    // The thread holds its own copy of the flag and of the function; detaching
    // leaves it running. (boost::thread would detach too, but say it.)
    if (thread_.joinable()) thread_.detach();
}

bool ovTimerTaskImpl::is_cancelled() const {
    return __atomic_load_n(endedByException_.get(), __ATOMIC_RELAXED);
}

void ovTimerTaskImpl::cancel() {
    thread_.interrupt();
    // A second cancel finds the thread already joined and returns at once.
    if (thread_.joinable()) thread_.join();
}

bool ovTimerTaskImpl::cancelWithin(const pt::time_duration& wait) {
    thread_.interrupt();
    if (!thread_.joinable()) return true;
    // Measured on our own reading of the steady clock: a join can come back
    // early (libfaketime returns every monotonic wait at once), and giving up
    // then would leave the caller's file behind for nothing.
    const pt::ptime until = detail::steadyNow() + wait;
    for (;;) {
        if (thread_.timed_join(until - detail::steadyNow())) return true;
        if (detail::steadyNow() >= until) break;
        struct timespec slice = {0, 2000000};
        ::nanosleep(&slice, nullptr);
    }
    // The thread owns copies of all it uses: it may outlive this handle.
    thread_.detach();
    return false;
}

namespace detail {

bool cancelWithin(ovTimerTask& task, const pt::time_duration& wait) {
    if (ovTimerTaskImpl* impl = dynamic_cast<ovTimerTaskImpl*>(&task)) return impl->cancelWithin(wait);
    task.cancel();
    return true;
}

void sleep_then_call(const boost::function0<void>& f, const pt::ptime& deadline) {
    // An interruption that arrived while the previous call of f ran (and f
    // never slept) ends the task here rather than after one more call.
    boost::this_thread::interruption_point();
    pt::ptime now = detail::steadyNow();
    while (now < deadline) {
        // An early wake-up just sleeps again for what is left.
        detail::sleepFor(deadline - now);
        now = detail::steadyNow();
    }
    if (f.empty()) throw boost::bad_function_call();
    f();
}

void run_task_function_once(const boost::function0<void>& f, const pt::time_duration& delay,
                            const boost::shared_ptr<bool volatile>& flag) {
    try {
        const pt::ptime deadline = detail::steadyNow() + delay;
        sleep_then_call(f, deadline);
    } catch (...) {
        // Cancel, an exception from f or an empty f: the owner learns of it
        // only through is_cancelled().
        raise(flag);
    }
}

void repeat_until_interrupted(const boost::function0<void>& f, const pt::time_duration& period,
                              const boost::shared_ptr<bool volatile>& flag) {
    try {
        pt::ptime next = detail::steadyNow() + period;
        for (;;) {
            sleep_then_call(f, next);
            // Fixed rate: the next deadline follows the previous deadline, not
            // the end of the call, so after an overrun the missed calls come
            // at once until the schedule has caught up. Kept on purpose.
            next = pt::ptime(next.date(), next.time_of_day() + period);
        }
    } catch (...) {
        raise(flag);
    }
}

}  // namespace detail

boost::shared_ptr<ovTimerTask> ovSetTimer(const boost::function0<void>& f, pt::time_duration delay,
                                          bool repeat) {
    boost::shared_ptr<bool volatile> flag = boost::make_shared<bool volatile>(false);
    // bind copies f, the duration and the flag into the thread's function.
    boost::function0<void> body =
        repeat ? boost::function0<void>(boost::bind(&detail::repeat_until_interrupted, f, delay, flag))
               : boost::function0<void>(boost::bind(&detail::run_task_function_once, f, delay, flag));
    return boost::shared_ptr<ovTimerTask>(new ovTimerTaskImpl(body, flag));
}
