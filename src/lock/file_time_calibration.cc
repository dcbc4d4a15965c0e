#include <stdint.h>
#include <unistd.h>

#include <atomic>
#include <string>

#include <boost/date_time/posix_time/posix_time.hpp>

#include "fs/error_messages.h"
#include "orvane/lock_file.h"
#include "timer/steady_clock.h"

namespace pt = boost::posix_time;

namespace {

// Process-wide, only to tell probe names apart; time of day, pid and the
// directory string's address make the names unique on their own as well.
std::atomic<uint64_t> probeCounter(0);

const long kMaxAttempts = 1000;  // retries after the first try: 1001 creations in all

// Removes the probe however the measurement ends. On the normal path the
// removal runs through remove(), whose errors pass to the caller; when
// unwinding from another error it is best effort.
class ProbeRemover {
public:
    ProbeRemover(ovAbstractFS& fs, const std::string& path, const pt::ptime& deadline)
        : fs_(fs), path_(path), deadline_(deadline) {}
    ProbeRemover(const ProbeRemover&) = delete;
    ProbeRemover& operator=(const ProbeRemover&) = delete;
    ~ProbeRemover() {
        if (armed_) {
            try {
                (void)fs_.removeFile(path_, deadline_);
            } catch (...) {
                // The error that is unwinding matters more than a leftover probe.
            }
        }
    }
    void remove() {
        armed_ = false;
        (void)fs_.removeFile(path_, deadline_);
    }

private:
    ovAbstractFS& fs_;
    const std::string& path_;
    const pt::ptime& deadline_;
    bool armed_ = true;
};

std::string probeName(const pt::ptime& t0, const ovPathString& dir) {
    const uint64_t count = ++probeCounter;
    std::string name(".");
    name += std::to_string(static_cast<long long>(t0.time_of_day().total_microseconds()));
    name += std::to_string(static_cast<long>(getpid()));
    name += std::to_string(static_cast<unsigned long long>(count));
    name += std::to_string(static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(dir.c_str())));
    return name;
}

}  // namespace

FileTimeCalibration::FileTimeCalibration(const ovPathString& dir, const pt::ptime& deadline,
                                         const boost::shared_ptr<ovAbstractFS>& fs_)
    : utcReference(pt::not_a_date_time), fileReference(0), fs(fs_ ? fs_ : ovGetDefaultFSImp()) {
    if (!fs->isDir(dir.c_str()))
        throw ovNoSuchDirectory(std::string(detail::kNoSuchDirectoryPrefix) + dir.str());

    for (long attempts = 0;; ++attempts) {
        const pt::ptime t0 = detail::utcNow();
        const pt::ptime attemptedAt = detail::steadyNow();
        // The path class normalizes the doubled separator of a directory
        // given with a trailing one, so exactly one separator precedes the name.
        const ovPathString probe(
            ovPathString::bundle_type(dir).add("/", 1).add(probeName(t0, dir).c_str()));
        const std::string probePath = probe.str();
        if (fs->createFile(probePath.c_str())) {
            ProbeRemover remover(*fs, probePath, deadline);
            fileReference = static_cast<long>(fs->getFileLastModifiedTime(probePath.c_str()));
            utcReference = t0;
            remover.remove();
            return;
        }
        // One attempt is always made, even past the deadline.
        if (deadline <= attemptedAt || attempts == kMaxAttempts)
            throw ovFileAccessError(std::string(detail::kFileAccessPrefix) +
                                    " Could not create unique file in " + dir.str());
    }
}

pt::ptime FileTimeCalibration::operator()(long fileTime) const {
    // 64-bit throughout: no date wraps round to "long ago". Beyond the limit
    // the calendar itself would overflow; such a date is simply far off.
    const int64_t kFar = 500LL * 366 * 24 * 3600;
    const int64_t d = static_cast<int64_t>(fileTime) - static_cast<int64_t>(fileReference);
    if (d > kFar) return pt::ptime(pt::pos_infin);
    if (d < -kFar) return pt::ptime(pt::neg_infin);
    return utcReference + pt::seconds(static_cast<long>(d));  // special values stay special
}
