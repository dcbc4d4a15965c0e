// The process-wide default file system.

#include <atomic>

#include <boost/thread/once.hpp>

#include "orvane/fs.h"

boost::once_flag once = BOOST_ONCE_INIT;

namespace {

// Never destroyed, on purpose: lock files may still be refreshed or removed
// by other static destructors and detached timer threads at exit. Held through
// a static pointer, so leak checkers see it as reachable. call_once already
// orders the creation before every use; the release/acquire pair repeats that
// where race detectors can see it (the thread library is not instrumented).
std::atomic<boost::shared_ptr<ovAbstractFS>*> defaultFS(nullptr);

void createDefaultFS() {
    defaultFS.store(new boost::shared_ptr<ovAbstractFS>(new ovNetworkFS), std::memory_order_release);
}

}  // namespace

boost::shared_ptr<ovAbstractFS> ovGetDefaultFSImp() {
    boost::call_once(once, &createDefaultFS);
    return *defaultFS.load(std::memory_order_acquire);
}
