#include <string>

#include <boost/date_time/posix_time/posix_time.hpp>

#include "fs/error_messages.h"
#include "orvane/lock_file.h"
#include "timer/steady_clock.h"

namespace pt = boost::posix_time;

namespace {

// Ages beyond this are clamped so that the tick count cannot overflow; no
// file time is this far from the calibrated clock (it translates to an
// infinity well before).
const long kAgeLimitSeconds = 1L << 40;
// This host's wall clock counts as set (by hand, or stepped by time sync)
// once it has drifted this far from the steady clock since calibration.
const pt::time_duration kWallClockStep = pt::seconds(2);

}  // namespace

ovLockFileIsStale::ovLockFileIsStale(const ovPathString& dir_,
                                     const boost::shared_ptr<ovAbstractFS>& fs_)
    : dir(dir_), fs(fs_ ? fs_ : ovGetDefaultFSImp()) {}

bool ovLockFileIsStale::operator()(const char* lockFileName, long maxAgeSeconds,
                                   const pt::ptime& deadline) {
    // The calibration ties file times to universal time: after the wall clock
    // was set, it is measured again rather than misjudging every age by the step.
    if (calibration) {
        const pt::time_duration drift = detail::utcNow() - detail::steadyNow() - utcMinusSteady;
        if (drift > kWallClockStep || drift < -kWallClockStep) calibration.reset();
    }
    if (!calibration) {
        // Stored only after a successful measurement: a failure is retried
        // on the next call.
        boost::shared_ptr<boost::function1<pt::ptime, long> > measured(
            new boost::function1<pt::ptime, long>(FileTimeCalibration(dir, deadline, fs)));
        calibration = measured;
        utcMinusSteady = detail::utcNow() - detail::steadyNow();
    }
    if (lockFileName == nullptr)
        throw ovFileNotFoundError(std::string(detail::kFileNotFoundPrefix));
    if (maxAgeSeconds > kAgeLimitSeconds) maxAgeSeconds = kAgeLimitSeconds;
    if (maxAgeSeconds < -kAgeLimitSeconds) maxAgeSeconds = -kAgeLimitSeconds;
    const pt::time_duration maxAge = pt::seconds(maxAgeSeconds);

    // Read before the file's time, so a refresh racing with the query can
    // only make the file look younger.
    const pt::ptime now = detail::utcNow();
    const long modified = static_cast<long>(fs->getFileLastModifiedTime(lockFileName));
    const pt::time_duration age = now - (*calibration)(modified);
    // A date too far off to compute an age with, either way.
    if (age.is_special()) return true;
    // Strictly older: an age of exactly maxAge is not stale.
    if (maxAge < age) return true;
    // Dated ahead by more than maxAge: its date proves nothing.
    return maxAge >= pt::time_duration(0, 0, 0, 0) && age < -maxAge;
}
