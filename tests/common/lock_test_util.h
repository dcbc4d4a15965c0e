#ifndef ORVANE_TESTS_LOCK_TEST_UTIL_H
#define ORVANE_TESTS_LOCK_TEST_UTIL_H

// Bounded waiting and looking at files without going through the library.

#include <dirent.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include <boost/date_time/posix_time/posix_time.hpp>

#include "orvane/timer.h"
#include "test_support.h"

namespace ovtest {

// Polls pred every 20 ms until it holds or `seconds` pass; returns its last value.
inline bool waitFor(const std::function<bool()>& pred, double seconds) {
    const double end = monotonicSeconds() + seconds;
    while (!pred()) {
        if (monotonicSeconds() > end) return pred();
        usleep(20000);
    }
    return true;
}

inline bool pathExists(const std::string& path) {
    struct stat st;
    return ::lstat(path.c_str(), &st) == 0;
}

// Seconds since the file was last modified, by the local clock; -1e9 if missing.
inline double ageOf(const std::string& path) {
    struct stat st;
    if (::stat(path.c_str(), &st) != 0) return -1e9;
    struct timeval now;
    gettimeofday(&now, nullptr);
    return (now.tv_sec - st.st_mtim.tv_sec) + (now.tv_usec * 1e-6 - st.st_mtim.tv_nsec * 1e-9);
}

// Names in a directory, "." and ".." left out, sorted.
inline std::vector<std::string> listDir(const std::string& dir) {
    std::vector<std::string> names;
    if (DIR* d = opendir(dir.c_str())) {
        while (dirent* e = readdir(d)) {
            const std::string n = e->d_name;
            if (n != "." && n != "..") names.push_back(n);
        }
        closedir(d);
    }
    std::sort(names.begin(), names.end());
    return names;
}

// A deadline `s` seconds from now, as the lock code takes it.
inline boost::posix_time::ptime inSeconds(double s) {
    return ovSteadyNow() + boost::posix_time::microseconds(static_cast<long>(s * 1e6));
}

}  // namespace ovtest

#endif
