// A reader, writer or downgrading writer of one directory, run as its own
// process by the read/write lock tests:
//   rw_worker --dir DIR --role reader|writer|downgrader|names [options]
//   --iterations N / --duration S  acquisitions to make (1) / or for S seconds
//   --hold-ms MS / --gap-ms MS     held (downgrader: per phase) / between (0)
//   --timeout-ms MS                per acquisition: -1 none (default), 0 try
//   --check-dir DIR   O_EXCL markers: a writer owns DIR/writer and requires no
//                     DIR/reader.*; a reader owns DIR/reader.<pid>, requires no DIR/writer
//   --started FILE / --ready FILE  created before the first acquisition / once it holds
//   --hold-until FILE  after each acquisition, hold until FILE exists (<= 120 s)
//   --wait-for FILE    before starting, wait until FILE exists (<= 120 s)
//   --result FILE      "acquired=N failed=N overlaps=N" at exit; role names:
//                      the names of --iterations createReadLock calls, one a line
// Exit status: 0 done, 1 an overlap was seen, 2 bad arguments, 3 lock error.
#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <map>
#include <string>

#include "orvane/rw_lock.h"
#include "test_support.h"

namespace {

std::map<std::string, std::string> opt;  // "--name" -> value

long num(const char* name, long fallback) { return opt.count(name) ? std::atol(opt[name].c_str()) : fallback; }

bool exists(const std::string& path) { return !path.empty() && ::access(path.c_str(), F_OK) == 0; }

bool createExclusive(const std::string& path) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0644);
    return fd >= 0 && ::close(fd) == 0;
}

void waitFor(const std::string& path) {
    const double end = ovtest::monotonicSeconds() + 120;
    while (!path.empty() && !exists(path) && ovtest::monotonicSeconds() < end) ::usleep(5000);
}

void hold() {
    ::usleep(static_cast<useconds_t>(num("--hold-ms", 0)) * 1000);
    waitFor(opt["--hold-until"]);
}

// Markers of the critical section; each check returns the overlaps it saw.
const std::string& check() { return opt["--check-dir"]; }
std::string readerMarker() { return check() + "/reader." + std::to_string(::getpid()); }

long readersInside() {
    long n = 0;
    if (DIR* d = ::opendir(check().c_str())) {
        while (dirent* e = ::readdir(d)) n += std::strncmp(e->d_name, "reader.", 7) == 0;
        ::closedir(d);
    }
    return n - exists(readerMarker());  // a downgrader's own marker does not count
}

long overlap(const char* what) {
    std::cerr << "rw_worker " << ::getpid() << ": " << what << "\n";
    return 1;
}

long enterAsWriter() {
    if (check().empty()) return 0;
    if (!createExclusive(check() + "/writer")) return overlap("another writer is inside");
    return readersInside() > 0 ? overlap("a writer entered with readers inside") : 0;
}

long enterAsReader(bool selfIsWriter) {
    if (check().empty()) return 0;
    createExclusive(readerMarker());
    return !selfIsWriter && exists(check() + "/writer") ? overlap("a reader entered while a writer is inside") : 0;
}

void leave(const std::string& marker) {
    if (!check().empty()) ::unlink(marker.c_str());
}

template <class Lock>
bool acquire(Lock& lock) {
    const long ms = num("--timeout-ms", -1);
    return lock.acquire(ms < 0 ? boost::posix_time::time_duration(boost::posix_time::pos_infin)
                               : boost::posix_time::milliseconds(ms));
}

// One acquisition; returns the overlaps seen, -1 when the lock was not had.
long acquireOnce(ovDirectoryReadWriteLock& rw, const std::string& role) {
    if (role == "reader") {
        ovDirectoryReadWriteLock::ReadLock lock = rw.getReadLock();
        if (!acquire(lock)) return -1;
        createExclusive(opt["--ready"]);
        const long seen = enterAsReader(false);
        hold();
        leave(readerMarker());
        return lock.release() ? seen : seen + overlap("release failed");
    }
    ovDirectoryReadWriteLock::WriteLock lock = rw.getWriteLock();
    if (!acquire(lock)) return -1;
    createExclusive(opt["--ready"]);
    long seen = enterAsWriter();
    hold();
    if (role == "writer") {
        leave(check() + "/writer");
        return lock.release() ? seen : seen + overlap("release failed");
    }
    seen += enterAsReader(true);  // a reader in the markers before the write lock goes, as in the lock
    ovDirectoryReadWriteLock::ReadLock reader = lock.downgrade();
    leave(check() + "/writer");
    if (!reader.isAcquired()) seen += overlap("downgrade gave no read lock");
    hold();
    leave(readerMarker());
    reader.release();
    return seen;
}

}  // namespace

int main(int argc, char** argv) {
    for (int i = 1; i + 1 < argc; i += 2) opt[argv[i]] = argv[i + 1];
    const std::string role = opt["--role"];
    if (argc % 2 == 0 || opt["--dir"].empty() ||
        (role != "reader" && role != "writer" && role != "downgrader" && role != "names")) {
        std::cerr << "usage: rw_worker --dir DIR --role reader|writer|downgrader|names [options]\n";
        return 2;
    }
    waitFor(opt["--wait-for"]);
    const std::string resultFile = opt.count("--result") ? opt["--result"] : "/dev/null";
    if (role == "names") {
        std::ofstream result(resultFile);
        for (long i = 0; i < num("--iterations", 1); ++i) {
            const std::pair<bool, std::string> r = createReadLock(ovPathString(opt["--dir"]), ovGetDefaultFSImp());
            result << (r.first ? "" : "FAILED ") << r.second << "\n";
        }
        return 0;
    }
    long acquired = 0, failed = 0, overlaps = 0;
    try {
        ovDirectoryReadWriteLock rw(opt["--dir"]);
        const double duration = num("--duration", 0), end = ovtest::monotonicSeconds() + duration;
        const long iterations = num("--iterations", duration > 0 ? -1 : 1);
        createExclusive(opt["--started"]);
        for (long i = 0; i != iterations && (duration <= 0 || ovtest::monotonicSeconds() < end); ++i) {
            const long seen = acquireOnce(rw, role);
            (seen < 0 ? failed : acquired) += 1;
            overlaps += seen > 0 ? seen : 0;
            ::usleep(static_cast<useconds_t>(num("--gap-ms", 0)) * 1000);
        }
    } catch (const std::exception& e) {
        std::cerr << "rw_worker " << ::getpid() << ": " << e.what() << "\n";
        return 3;
    }
    std::ofstream(resultFile) << "acquired=" << acquired << " failed=" << failed << " overlaps=" << overlaps << "\n";
    return overlaps == 0 ? 0 : 1;
}
