#include <string>

#include <boost/date_time/posix_time/posix_time.hpp>

#include "fs/error_messages.h"
#include "orvane/lock_file.h"

namespace pt = boost::posix_time;

namespace {

// Ages beyond this are clamped so that the tick count cannot overflow; no
// file time can be this far from the calibrated clock anyway (the
// translation wraps at about 68 years).
const long kAgeLimitSeconds = 1L << 40;

}  // namespace

ovLockFileIsStale::ovLockFileIsStale(const ovPathString& dir_,
                                     const boost::shared_ptr<ovAbstractFS>& fs_)
    : dir(dir_), fs(fs_ ? fs_ : ovGetDefaultFSImp()) {}

bool ovLockFileIsStale::operator()(const char* lockFileName, long maxAgeSeconds,
                                   const pt::ptime& deadline) {
    if (!calibration) {
        // Stored only after a successful measurement: a failure is retried
        // on the next call.
        boost::shared_ptr<boost::function1<pt::ptime, long> > measured(
            new boost::function1<pt::ptime, long>(FileTimeCalibration(dir, deadline, fs)));
        calibration = measured;
    }
    if (lockFileName == nullptr)
        throw ovFileNotFoundError(std::string(detail::kFileNotFoundPrefix));
    if (maxAgeSeconds > kAgeLimitSeconds) maxAgeSeconds = kAgeLimitSeconds;
    if (maxAgeSeconds < -kAgeLimitSeconds) maxAgeSeconds = -kAgeLimitSeconds;
    const pt::time_duration maxAge = pt::seconds(maxAgeSeconds);

    // Read before the file's time, so a refresh racing with the query can
    // only make the file look younger.
    const pt::ptime now = pt::microsec_clock::local_time();
    const long modified = static_cast<long>(fs->getFileLastModifiedTime(lockFileName));
    const pt::ptime modifiedLocal = (*calibration)(modified);
    // Strictly older: an age of exactly maxAge is not stale. Compared as
    // durations, which cannot leave the calendar's range.
    return maxAge < now - modifiedLocal;
}
