// One contender of the stress runs (scripts/stress.sh): takes the exclusive
// lock, a read lock or the write lock of one directory again and again, and
// proves each critical section with markers created O_CREAT|O_EXCL in a
// separate check directory. Times are CLOCK_MONOTONIC, shared by every
// process on the machine (run skewed workers with
// FAKETIME_DONT_FAKE_MONOTONIC=1 so that only the wall clock is shifted).
//
//   stress_worker --mode exclusive|reader|writer|none --dir DIR [options]
//                      (none takes no lock at all: the control run that
//                      shows the overlap checks can fail)
//   stress_worker --clock      print the lock library's wall clock (seconds
//                              since the epoch, from boost's microsec_clock)
//
//   --check-dir DIR   markers (holding the owner's pid): exclusive/writer
//                     own DIR/holder (a writer
//                     also requires no DIR/reader.*); a reader owns
//                     DIR/reader.<pid> and requires no DIR/holder
//   --iterations N    acquisitions to make (default 1)
//   --duration S      stop starting new acquisitions after S seconds
//   --hold-ms MS      time held per acquisition (default 1)
//   --gap-ms MS       pause between acquisitions (default 0)
//   --timeout-ms MS   time-out per acquisition (default 120000; -1 = none)
//   --fresh           a new lock object for every acquisition (default: one
//                     long-lived object, whose descriptors and threads are
//                     checked for leaks at the end)
//   --ready FILE      written (monotonic ns) once the first acquisition holds
//                     (after its marker exists, so a holder stopped at once
//                     is stopped inside its critical section)
//   --events FILE     one line per acquisition: mode pid wait_start acquired
//                     released (monotonic ns)
//   --result FILE     key=value summary (acquired failed overlaps max_readers
//                     fd_leak thread_leak longest_wait_ms lost lost_reason
//                     overlap_pids: owners of the markers met, 0 unknown)
//
// A lock lost while held: every holder asks isLost() (and its loss callback)
// right after its hold, before its second look and before leaving. If the
// lock was lost, the tenure does not count: no event is written, the second
// look is skipped, the worker's own marker is removed and it stops. What a
// lost holder cannot excuse is what others saw meanwhile: they count an
// overlap naming its pid, and only the harness may excuse such an overlap,
// and only for a holder it stopped itself that reports the loss here
// (a holder that was told before it did anything more). Any other overlap,
// and any loss of a holder the harness did not stop, is a failure.
//
// Exit status: 0 fine, 1 overlap or leak seen, 2 bad arguments, 3 the lock
// threw, 4 some acquisition timed out, 5 a held lock was lost.

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <atomic>
#include <exception>
#include <fstream>
#include <iostream>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <boost/date_time/posix_time/posix_time.hpp>

#include "orvane/exclusive_lock.h"
#include "orvane/rw_lock.h"
#include "test_support.h"

namespace {

struct Options {
    std::string mode, dir, checkDir, ready, events, result;
    long iterations = 1;
    double duration = -1;
    long holdMs = 1, gapMs = 0, timeoutMs = 120000;
    bool fresh = false;
};

struct Event {
    long long waitStart, acquired, released;
};

struct Tally {
    long acquired = 0, failed = 0, overlaps = 0, maxReaders = 0, lost = 0;
    long long longestWaitNs = 0;
    std::vector<Event> events;
    std::set<long> overlapPids;  // owners of markers met (0: unreadable)
    std::string lostReason = "none";
};

long long nowNs() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}

void sleepMs(long ms) {
    if (ms > 0) usleep(static_cast<useconds_t>(ms) * 1000);
}

bool exists(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

// Counts reader markers; notes their owners' pids in `pids` if given.
long countReaders(const std::string& dir, std::set<long>* pids = nullptr) {
    long n = 0;
    if (DIR* d = opendir(dir.c_str())) {
        while (dirent* e = readdir(d)) {
            if (std::strncmp(e->d_name, "reader.", 7) == 0) {
                ++n;
                if (pids && pids->size() < 100) pids->insert(std::atol(e->d_name + 7));
            }
        }
        closedir(d);
    }
    return n;
}

void writeStamp(const std::string& path, long long ns) {
    std::ofstream(path.c_str()) << ns << "\n";
}

long markerOwner(const std::string& path) {
    std::ifstream in(path.c_str());
    long pid = 0;
    in >> pid;
    return pid;
}

class Contender;
bool lostNow(Contender& c);

// ---- Critical section: enter, hold, check again, leave ----------------------

// Returns the overlaps seen (each broken invariant counts once); sets `lost`
// if the lock was found lost right after the hold.
long criticalSection(const Options& o, Tally& t, Contender& c, bool first, bool& lost) {
    lost = false;
    if (o.checkDir.empty()) {
        if (first && !o.ready.empty()) writeStamp(o.ready, nowNs());
        sleepMs(o.holdMs);
        lost = lostNow(c);
        return 0;
    }
    long overlaps = 0;
    const std::string holder = o.checkDir + "/holder";
    const std::string mine = o.checkDir + "/reader." + std::to_string(getpid());
    const bool reader = o.mode == "reader";
    const std::string marker = reader ? mine : holder;
    int fd = open(marker.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0644);
    if (fd < 0) {
        std::cerr << "stress_worker " << getpid() << ": " << marker << " already exists\n";
        ++overlaps;
        if (t.overlapPids.size() < 100) t.overlapPids.insert(markerOwner(marker));
    } else {
        // The holder's pid, so that the crash runs can kill whoever holds.
        const std::string pid = std::to_string(getpid()) + "\n";
        if (write(fd, pid.data(), pid.size()) < 0) std::cerr << "stress_worker: marker write failed\n";
        close(fd);
    }
    if (first && !o.ready.empty()) writeStamp(o.ready, nowNs());
    for (int pass = 0; pass < 2; ++pass) {  // on entry, and again before leaving
        if (reader) {
            const long readers = countReaders(o.checkDir);
            if (readers > t.maxReaders) t.maxReaders = readers;
            if (exists(holder)) {
                std::cerr << "stress_worker " << getpid() << ": reader inside with a writer\n";
                ++overlaps;
                if (t.overlapPids.size() < 100) t.overlapPids.insert(markerOwner(holder));
            }
        } else if (o.mode == "writer" && countReaders(o.checkDir, &t.overlapPids) > 0) {
            std::cerr << "stress_worker " << getpid() << ": writer inside with readers\n";
            ++overlaps;
        }
        if (pass == 0) {
            sleepMs(o.holdMs);
            // Told of the loss before doing anything more: no second look.
            if ((lost = lostNow(c))) break;
        }
    }
    if (fd >= 0) unlink(marker.c_str());
    return overlaps;
}

// ---- One lock object per mode, behind a common face -------------------------

class Contender {
public:
    virtual ~Contender() {}
    virtual bool acquire(const boost::posix_time::time_duration& timeout) = 0;
    virtual void release() = 0;
    virtual bool isLost() const = 0;
    virtual ovLockLossReason lossReason() const = 0;
    // Set by the loss callback on the lock's refresh thread.
    std::atomic<int> called{0};
    ovLockLostCallback callback() {
        return [this](ovLockLossReason r) { called = static_cast<int>(r) ? static_cast<int>(r) : -1; };
    }
};

bool lostNow(Contender& c) { return c.isLost() || c.called != 0; }

class ExclusiveContender : public Contender {
public:
    explicit ExclusiveContender(const std::string& dir)
        : lock_(dir, "stress" + std::to_string(getpid())) {
        lock_.setLostCallback(callback());
    }
    bool acquire(const boost::posix_time::time_duration& t) override { return lock_.acquire(t); }
    void release() override { lock_.release(); }
    bool isLost() const override { return lock_.isLost(); }
    ovLockLossReason lossReason() const override { return lock_.getLossReason(); }

private:
    ovDirectoryExclusiveLock lock_;
};

class ReadContender : public Contender {
public:
    explicit ReadContender(const std::string& dir) : rw_(dir), lock_(rw_.getReadLock()) {
        lock_.setLostCallback(callback());
    }
    bool acquire(const boost::posix_time::time_duration& t) override { return lock_.acquire(t); }
    void release() override { lock_.release(); }
    bool isLost() const override { return lock_.isLost(); }
    ovLockLossReason lossReason() const override { return lock_.getLossReason(); }

private:
    ovDirectoryReadWriteLock rw_;
    ovDirectoryReadWriteLock::ReadLock lock_;
};

class WriteContender : public Contender {
public:
    explicit WriteContender(const std::string& dir) : rw_(dir), lock_(rw_.getWriteLock()) {
        lock_.setLostCallback(callback());
    }
    bool acquire(const boost::posix_time::time_duration& t) override { return lock_.acquire(t); }
    void release() override { lock_.release(); }
    bool isLost() const override { return lock_.isLost(); }
    ovLockLossReason lossReason() const override { return lock_.getLossReason(); }

private:
    ovDirectoryReadWriteLock rw_;
    ovDirectoryReadWriteLock::WriteLock lock_;
};

// No lock: every "acquisition" succeeds at once.
class NoContender : public Contender {
public:
    bool acquire(const boost::posix_time::time_duration&) override { return true; }
    void release() override {}
    bool isLost() const override { return false; }
    ovLockLossReason lossReason() const override { return ovLockNotLost; }
};

std::unique_ptr<Contender> makeContender(const Options& o) {
    if (o.mode == "none") return std::unique_ptr<Contender>(new NoContender());
    if (o.mode == "exclusive") return std::unique_ptr<Contender>(new ExclusiveContender(o.dir));
    if (o.mode == "reader") return std::unique_ptr<Contender>(new ReadContender(o.dir));
    return std::unique_ptr<Contender>(new WriteContender(o.dir));
}

// ---- The run ----------------------------------------------------------------

int run(const Options& o) {
    const boost::posix_time::time_duration timeout =
        o.timeoutMs < 0 ? boost::posix_time::time_duration(boost::posix_time::pos_infin)
                        : boost::posix_time::milliseconds(o.timeoutMs);
    Tally t;
    std::unique_ptr<Contender> kept;
    if (!o.fresh) kept = makeContender(o);
    int baseFds = -1, baseThreads = -1;
    const long long end = o.duration < 0 ? -1 : nowNs() + static_cast<long long>(o.duration * 1e9);

    for (long i = 0; i < o.iterations && (end < 0 || nowNs() < end); ++i) {
        std::unique_ptr<Contender> fresh;
        Contender& c = o.fresh ? *(fresh = makeContender(o)) : *kept;
        Event e;
        e.waitStart = nowNs();
        if (!c.acquire(timeout)) {
            ++t.failed;
            continue;
        }
        e.acquired = nowNs();
        ++t.acquired;
        if (e.acquired - e.waitStart > t.longestWaitNs) t.longestWaitNs = e.acquired - e.waitStart;
        bool lost = false;
        t.overlaps += criticalSection(o, t, c, t.acquired == 1, lost);
        e.released = nowNs();  // before release: the next holder may enter right after
        if (lost) {
            ++t.lost;
            const int r = c.called != 0 ? c.called.load() : static_cast<int>(c.lossReason());
            t.lostReason = r > 0 ? ovLockLossReasonText(static_cast<ovLockLossReason>(r)) : "callback";
            for (char& ch : t.lostReason)
                if (ch == ' ') ch = '-';  // one word in the key=value line
            c.release();  // leaves the new holder's file alone
            break;
        }
        c.release();
        if (t.events.size() < 200000) t.events.push_back(e);
        // Baseline after one full cycle: the lazily made default file system
        // and calibration exist by then.
        if (baseFds < 0) {
            baseFds = ovtest::countOpenFds();
            baseThreads = ovtest::countThreads();
        }
        sleepMs(o.gapMs);
    }

    long fdLeak = 0, threadLeak = 0;
    if (baseFds >= 0) {
        // A released lock has joined its refresh thread; allow the kernel a
        // moment to drop the finished task before calling it a leak.
        for (int k = 0; k < 20; ++k) {
            fdLeak = ovtest::countOpenFds() - baseFds;
            threadLeak = ovtest::countThreads() - baseThreads;
            if (fdLeak <= 0 && threadLeak <= 0) break;
            sleepMs(100);
        }
    }
    if (!o.events.empty()) {
        std::ofstream out(o.events.c_str());
        for (const Event& e : t.events) {
            out << o.mode << ' ' << getpid() << ' ' << e.waitStart << ' ' << e.acquired << ' '
                << e.released << '\n';
        }
    }
    const int code = (t.overlaps || fdLeak > 0 || threadLeak > 0) ? 1 : t.lost ? 5 : t.failed ? 4 : 0;
    if (!o.result.empty()) {
        std::ofstream out(o.result.c_str());
        out << "acquired=" << t.acquired << " failed=" << t.failed << " overlaps=" << t.overlaps
            << " max_readers=" << t.maxReaders << " fd_leak=" << fdLeak
            << " thread_leak=" << threadLeak << " longest_wait_ms=" << t.longestWaitNs / 1000000
            << " lost=" << t.lost << " lost_reason=" << t.lostReason << " overlap_pids=";
        const char* sep = "";
        for (long p : t.overlapPids) {
            out << sep << p;
            sep = ",";
        }
        // The exit code too: the harness's shell loses a child's status when
        // another child gets its pid before it is asked (pids wrap quickly
        // under a stress run).
        out << " exit=" << code << "\n";
    }
    return code;
}

bool parse(int argc, char** argv, Options& o) {
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--fresh") {
            o.fresh = true;
            continue;
        }
        if (i + 1 >= argc) return false;
        const char* v = argv[++i];
        if (a == "--mode") o.mode = v;
        else if (a == "--dir") o.dir = v;
        else if (a == "--check-dir") o.checkDir = v;
        else if (a == "--iterations") o.iterations = std::atol(v);
        else if (a == "--duration") o.duration = std::atof(v);
        else if (a == "--hold-ms") o.holdMs = std::atol(v);
        else if (a == "--gap-ms") o.gapMs = std::atol(v);
        else if (a == "--timeout-ms") o.timeoutMs = std::atol(v);
        else if (a == "--ready") o.ready = v;
        else if (a == "--events") o.events = v;
        else if (a == "--result") o.result = v;
        else return false;
    }
    return !o.dir.empty() && (o.mode == "exclusive" || o.mode == "reader" || o.mode == "writer" ||
                              o.mode == "none");
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 2 && std::string(argv[1]) == "--clock") {
        const boost::posix_time::ptime epoch(boost::gregorian::date(1970, 1, 1));
        std::printf("%.3f\n",
                    (boost::posix_time::microsec_clock::universal_time() - epoch).total_microseconds() / 1e6);
        return 0;
    }
    Options o;
    if (!parse(argc, argv, o)) {
        std::cerr << "usage: stress_worker --mode exclusive|reader|writer|none --dir DIR [options]\n";
        return 2;
    }
    try {
        return run(o);
    } catch (const std::exception& e) {
        std::cerr << "stress_worker " << getpid() << ": " << e.what() << "\n";
        return 3;
    }
}
