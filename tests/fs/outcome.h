#ifndef ORVANE_TESTS_FS_OUTCOME_H
#define ORVANE_TESTS_FS_OUTCOME_H

#include <sstream>
#include <string>

#include <boost/thread/exceptions.hpp>

#include "orvane/fs.h"

namespace fstest {

// "result <value>" or "throw <type>|<what()>"; the catch order also proves
// the error kinds are siblings, not subclasses of one another.
template <class F>
std::string outcome(F&& op) {
    std::ostringstream s;
    try {
        const auto value = op();  // before printing: op may write diagnostics
        s << "result " << value;
    } catch (const ovNoSuchDirectory& e) {
        s << "throw ovNoSuchDirectory|" << e.what();
    } catch (const ovPermissionDenied& e) {
        s << "throw ovPermissionDenied|" << e.what();
    } catch (const ovFileNotFoundError& e) {
        s << "throw ovFileNotFoundError|" << e.what();
    } catch (const ovFileAccessError& e) {
        s << "throw ovFileAccessError|" << e.what();
    } catch (const ovFileBasedLockError& e) {
        s << "throw ovFileBasedLockError|" << e.what();
    } catch (const boost::thread_interrupted&) {
        s << "throw boost::thread_interrupted|";
    }
    return s.str();
}

}  // namespace fstest

#endif
