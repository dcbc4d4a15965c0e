#include "test_support.h"

#include <fcntl.h>
#include <ftw.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include <dirent.h>
#include <grp.h>

extern char** environ;

namespace ovtest {

namespace {

int removeEntry(const char* path, const struct stat*, int, struct FTW*) {
    // Make the entry and its parent writable so that permission tests cannot
    // leave undeletable debris behind.
    ::chmod(path, 0700);
    ::remove(path);
    return 0;
}

int countDirEntries(const char* dir) {
    DIR* d = ::opendir(dir);
    if (!d) return -1;
    int n = 0;
    while (struct dirent* e = ::readdir(d)) {
        if (std::strcmp(e->d_name, ".") != 0 && std::strcmp(e->d_name, "..") != 0) ++n;
    }
    ::closedir(d);
    return n;
}

}  // namespace

TempDir::TempDir() {
    const char* base = ::getenv("TMPDIR");
    std::string templ = std::string(base && *base ? base : "/tmp") + "/orvane-test-XXXXXX";
    std::vector<char> buf(templ.begin(), templ.end());
    buf.push_back('\0');
    if (!::mkdtemp(buf.data())) throw std::runtime_error("mkdtemp failed: " + std::string(std::strerror(errno)));
    path_ = buf.data();
    // World-writable so that unprivileged children can work below it when a
    // test wants them to.
    ::chmod(path_.c_str(), 0777);
}

TempDir::~TempDir() {
    ::chmod(path_.c_str(), 0700);
    ::nftw(path_.c_str(), removeEntry, 16, FTW_DEPTH | FTW_PHYS);
}

void writeFile(const std::string& path, const std::string& content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    if (!out) throw std::runtime_error("cannot write " + path);
    out << content;
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

void ageFile(const std::string& path, double secondsAgo, bool linkItself) {
    struct timespec now;
    ::clock_gettime(CLOCK_REALTIME, &now);
    const double t = now.tv_sec + now.tv_nsec / 1e9 - secondsAgo;
    struct timespec times[2];
    times[0].tv_sec = static_cast<time_t>(t);
    times[0].tv_nsec = static_cast<long>((t - static_cast<double>(times[0].tv_sec)) * 1e9);
    times[1] = times[0];
    if (::utimensat(AT_FDCWD, path.c_str(), times, linkItself ? AT_SYMLINK_NOFOLLOW : 0) != 0)
        throw std::runtime_error("utimensat " + path + ": " + std::strerror(errno));
}

#if defined(__SANITIZE_THREAD__)
#define OVTEST_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define OVTEST_TSAN 1
#endif
#endif

int countThreads() {
#ifdef OVTEST_TSAN
    // ThreadSanitizer starts a thread of its own at the first thread
    // creation; have it running before anything is counted, so that counts
    // taken before and after the code under test compare equal.
    static const bool warmedUp = [] {
        std::thread([] {}).join();
        return true;
    }();
    (void)warmedUp;
#endif
    return countDirEntries("/proc/self/task");
}

int countOpenFds() { return countDirEntries("/proc/self/fd") - 1; /* the one opendir holds */ }

std::string selfExe() {
    char buf[4096];
    ssize_t n = ::readlink("/proc/self/exe", buf, sizeof buf - 1);
    if (n < 0) return std::string();
    buf[n] = '\0';
    return buf;
}

int decodeStatus(int status) {
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
    return -1;
}

Child::Child(Child&& other) noexcept : pid_(other.pid_) { other.pid_ = -1; }

Child& Child::operator=(Child&& other) noexcept {
    if (this != &other) {
        if (pid_ > 0) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
        pid_ = other.pid_;
        other.pid_ = -1;
    }
    return *this;
}

Child::~Child() {
    if (pid_ > 0) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }
}

int Child::wait(double timeoutSeconds) {
    if (pid_ <= 0) return -1;
    const double end = monotonicSeconds() + timeoutSeconds;
    for (;;) {
        int status = 0;
        pid_t r = ::waitpid(pid_, &status, WNOHANG);
        if (r == pid_) {
            pid_ = -1;
            return decodeStatus(status);
        }
        if (r < 0 && errno != EINTR) {
            pid_ = -1;
            return -1;
        }
        if (monotonicSeconds() > end) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
            pid_ = -1;
            return -1;
        }
        ::usleep(2000);
    }
}

bool Child::running() {
    if (pid_ <= 0) return false;
    int status = 0;
    pid_t r = ::waitpid(pid_, &status, WNOHANG);
    if (r == 0) return true;
    if (r == pid_) pid_ = -1;
    return false;
}

void Child::kill(int sig) {
    if (pid_ > 0) ::kill(pid_, sig);
}

Child forkChild(const std::function<int()>& fn) {
    pid_t pid = ::fork();
    if (pid < 0) throw std::runtime_error("fork failed");
    if (pid == 0) {
        int rc = 99;
        try {
            rc = fn();
        } catch (...) {
            rc = 99;
        }
        ::_exit(rc);
    }
    return Child(pid);
}

Child spawn(const std::vector<std::string>& argv, const std::vector<std::string>& extraEnv) {
    std::vector<char*> args;
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    std::vector<char*> env;
    for (char** e = environ; *e; ++e) env.push_back(*e);
    for (const std::string& e : extraEnv) env.push_back(const_cast<char*>(e.c_str()));
    env.push_back(nullptr);
    pid_t pid = ::fork();
    if (pid < 0) throw std::runtime_error("fork failed");
    if (pid == 0) {
        ::execve(args[0], args.data(), env.data());
        ::_exit(127);
    }
    return Child(pid);
}

bool becomeUser(uid_t uid, gid_t gid) {
    // Supplementary groups first; afterwards we could not.
    if (::setgroups(0, nullptr) != 0) return false;
    if (::setgid(gid) != 0 || ::setuid(uid) != 0) return false;
    return ::geteuid() != 0;  // a test must never run this as root by accident
}

int runAsUnprivileged(const std::function<int()>& fn, double timeoutSeconds) {
    Child c = forkChild([&fn]() -> int {
        if (!becomeUser(kUnprivilegedId, kUnprivilegedId)) return 98;
        return fn();
    });
    return c.wait(timeoutSeconds);
}

int runAsUser(uid_t uid, gid_t gid, mode_t mask, const std::function<int()>& fn, double timeoutSeconds) {
    Child c = forkChild([&]() -> int {
        if (uid == 0 ? ::setgroups(0, nullptr) != 0 : !becomeUser(uid, gid)) return 98;
        ::umask(mask);
        return fn();
    });
    return c.wait(timeoutSeconds);
}

double cpuSeconds() {
    struct timespec ts;
    ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return ts.tv_sec + ts.tv_nsec / 1e9;
}

double monotonicSeconds() {
    struct timespec ts;
    ::clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec + ts.tv_nsec / 1e9;
}

}  // namespace ovtest

namespace ovtest {

std::string tzRuleSwitchingIn(double seconds, bool dstStarts) {
    // Julian day "Jn" counts 1..365 and never Feb 29; the switch time is given
    // in the local time in force before it (standard: UTC; summer: UTC+1).
    time_t at = ::time(nullptr) + static_cast<time_t>(seconds) + (dstStarts ? 0 : 3600);
    struct tm t;
    gmtime_r(&at, &t);
    int day = t.tm_yday + 1;
    const int y = t.tm_year + 1900;
    const bool leap = (y % 4 == 0 && y % 100 != 0) || y % 400 == 0;
    if (leap && t.tm_yday >= 59) day -= 1;
    char when[32];
    std::snprintf(when, sizeof when, "J%d/%02d:%02d:%02d", day, t.tm_hour, t.tm_min, t.tm_sec);
    // The other switch far away, so that only this one happens during a test.
    const std::string other = day > 180 ? "J1/0" : "J365/23:59:59";
    return dstStarts ? "STD0DST-1," + std::string(when) + "," + other
                     : "STD0DST-1," + other + "," + std::string(when);
}

}  // namespace ovtest
