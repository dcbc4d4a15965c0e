// orvane-lock: run a command while holding a directory lock, from shell
// scripts and cron jobs. See orvane-lock.1 for the command line.
//
// Threads and signals: SIGINT, SIGTERM and SIGHUP are blocked in every
// thread and taken by the main thread with sigwait(). Waiting for the lock
// happens on a boost::thread, because the lock calls can only be cut short by
// thread interruption; a signal that arrives meanwhile cancels the wait
// through TrackingFS, which knows when interrupting is safe. Once COMMAND
// runs, the signals are passed on to it instead.

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <boost/make_shared.hpp>
#include <boost/thread/thread.hpp>

#include "lock_status.h"
#include "options.h"
#include "orvane/exclusive_lock.h"
#include "orvane/export.h"
#include "orvane/log_channel.h"
#include "orvane/rw_lock.h"
#include "tracking_fs.h"

using namespace orvane_tool;
using boost::posix_time::time_duration;

namespace {

// SIGUSR1 is private to this process: the lock thread sends it to the main
// thread when it has finished, to wake it from sigwait().
const int kForwarded[] = {SIGINT, SIGTERM, SIGHUP};
const int kWakeUp = SIGUSR1;

void noteChild(int) {}

void die(const std::string& message) { std::cerr << "orvane-lock: " << message << std::endl; }

// One lock of the kind chosen on the command line, acquired and released
// through the same two calls.
class DirectoryLock {
public:
    DirectoryLock(LockKind kind, const std::string& dir, const boost::shared_ptr<ovAbstractFS>& fs)
    {
        if (kind == LockKind::Queue) {
            queue_.reset(new ovDirectoryExclusiveLock(dir, "orvane-lock[" + std::to_string(getpid()) + "]", fs));
        } else {
            ovDirectoryReadWriteLock rw(dir, fs);
            if (kind == LockKind::Read)
                read_.reset(new ovDirectoryReadWriteLock::ReadLock(rw.getReadLock()));
            else
                write_.reset(new ovDirectoryReadWriteLock::WriteLock(rw.getWriteLock()));
        }
    }

    bool acquire(const time_duration& timeout, bool noRefresh) {
        if (queue_) return queue_->acquire(timeout, noRefresh);
        if (read_) return read_->acquire(timeout, noRefresh);
        return write_->acquire(timeout, noRefresh);
    }

    // Kept by the lock and installed on its lock file once held.
    void setLostCallback(const ovLockLostCallback& callback) {
        if (queue_) return queue_->setLostCallback(callback);
        if (read_) return read_->setLostCallback(callback);
        write_->setLostCallback(callback);
    }

    bool release() {
        if (queue_) return queue_->release();
        if (read_) return read_->release();
        return write_->release();
    }

private:
    std::unique_ptr<ovDirectoryExclusiveLock> queue_;
    std::unique_ptr<ovDirectoryReadWriteLock::ReadLock> read_;
    std::unique_ptr<ovDirectoryReadWriteLock::WriteLock> write_;
};

time_duration toTimeout(double seconds) {
    if (seconds < 0 || seconds > 3.2e9) return boost::posix_time::pos_infin;
    return boost::posix_time::microseconds(static_cast<long long>(std::llround(seconds * 1e6)));
}

// Maps the library's errors to the tool's exit codes and one-line messages.
int reportLockError(const std::string& dir, std::exception_ptr error) {
    try {
        std::rethrow_exception(error);
    } catch (const ovNoSuchDirectory&) {
        die("cannot lock " + dir + ": no such directory");
        return kExitNoDirectory;
    } catch (const ovPermissionDenied&) {
        die("cannot lock " + dir + ": no write permission");
        return kExitNoPermission;
    } catch (const ovFileBasedLockError& e) {
        die("cannot lock " + dir + ": " + e.what());
        return kExitFileSystem;
    } catch (const std::exception& e) {
        die("cannot lock " + dir + ": " + e.what());
        return kExitSoftware;
    }
}

// Checked up front for a clear message; the library would report the same
// conditions, less plainly, at its first file operation.
int checkDirectory(const std::string& dir) {
    struct stat st;
    if (stat(dir.c_str(), &st) != 0) {
        if (errno == ENOENT || errno == ENOTDIR) {
            die("cannot lock " + dir + ": no such directory");
            return kExitNoDirectory;
        }
        die("cannot lock " + dir + ": " + std::strerror(errno));
        return kExitFileSystem;
    }
    if (!S_ISDIR(st.st_mode)) {
        die("cannot lock " + dir + ": not a directory");
        return kExitNoDirectory;
    }
    return 0;
}

// PATH search done before fork, so the child only has to execv().
std::string findCommand(const std::string& name) {
    if (name.find('/') != std::string::npos) return name;
    const char* env = std::getenv("PATH");
    const std::string path = env && *env ? env : "/usr/local/bin:/usr/bin:/bin";
    std::string firstFound;
    size_t start = 0;
    while (start <= path.size()) {
        size_t end = path.find(':', start);
        if (end == std::string::npos) end = path.size();
        const std::string dir = end > start ? path.substr(start, end - start) : ".";
        const std::string candidate = dir + "/" + name;
        struct stat st;
        if (stat(candidate.c_str(), &st) == 0 && S_ISREG(st.st_mode)) {
            if (access(candidate.c_str(), X_OK) == 0) return candidate;
            if (firstFound.empty()) firstFound = candidate;  // reported as not executable
        }
        start = end + 1;
    }
    return firstFound.empty() ? std::string() : firstFound;
}

class SignalSet {
public:
    SignalSet() {
        sigemptyset(&set_);
        for (int s : kForwarded) sigaddset(&set_, s);
        sigaddset(&set_, SIGCHLD);
        sigaddset(&set_, kWakeUp);
        // Blocked before any thread exists, so every thread inherits the mask
        // (the library's refresh timers included) and only sigwait sees them.
        pthread_sigmask(SIG_BLOCK, &set_, &original_);
        // A blocked signal with default action "ignore" may be discarded;
        // a handler keeps SIGCHLD pending for sigwait.
        struct sigaction sa;
        std::memset(&sa, 0, sizeof sa);
        sa.sa_handler = noteChild;
        sigemptyset(&sa.sa_mask);
        sigaction(SIGCHLD, &sa, nullptr);
    }
    int wait() const {
        int sig = 0;
        while (sigwait(&set_, &sig) != 0) {
        }
        return sig;
    }
    // As wait(), but 0 after `seconds` without a signal.
    int wait(double seconds) const {
        struct timespec ts;
        ts.tv_sec = static_cast<time_t>(seconds);
        ts.tv_nsec = static_cast<long>((seconds - ts.tv_sec) * 1e9);
        for (;;) {
            const int sig = sigtimedwait(&set_, nullptr, &ts);
            if (sig > 0) return sig;
            if (errno != EINTR) return 0;
        }
    }
    const sigset_t& original() const { return original_; }

private:
    sigset_t set_;
    sigset_t original_;
};

bool isForwarded(int sig) {
    for (int s : kForwarded)
        if (s == sig) return true;
    return false;
}

// COMMAND runs in a process group of its own. When the tool's group has the
// terminal's foreground, COMMAND's group gets it instead while it runs, so
// that it reads the terminal (and gets its ^C) as it would without the tool.
bool hasTerminal() { return isatty(STDIN_FILENO) && tcgetpgrp(STDIN_FILENO) == getpgrp(); }

// Gives the terminal to `group`. Async-signal-safe. SIGTTOU is blocked
// meanwhile: that lets a group out of the foreground take it back.
void giveTerminal(pid_t group) {
    sigset_t ttou, old;
    sigemptyset(&ttou);
    sigaddset(&ttou, SIGTTOU);
    pthread_sigmask(SIG_BLOCK, &ttou, &old);
    (void)tcsetpgrp(STDIN_FILENO, group);
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
}

struct AcquireResult {
    std::atomic<bool> done{false};
    bool acquired = false;
    bool interrupted = false;
    std::exception_ptr error;
};

// Runs COMMAND and waits for it, passing the forwarded signals on. Returns
// its status as a shell would (128 + N for signal N), or kExitLockLost once
// it has ended if `lost` (an ovLockLossReason) was set while it ran.
int runCommand(const Options& opt, const SignalSet& signals, const std::atomic<int>& lost) {
    const std::string path = findCommand(opt.command[0]);
    if (path.empty()) {
        die(opt.command[0] + ": command not found");
        return kExitNotFound;
    }
    std::vector<char*> argv;
    for (const std::string& a : opt.command) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);

    // The child reports a failed exec through this pipe; a successful exec
    // closes it (O_CLOEXEC) and the read below sees end of file.
    int report[2];
    if (pipe2(report, O_CLOEXEC) != 0) {
        die(std::string("cannot start ") + opt.command[0] + ": " + std::strerror(errno));
        return kExitSoftware;
    }
    std::cout.flush();
    std::fflush(nullptr);
    const bool foreground = hasTerminal();
    const pid_t child = fork();
    if (child < 0) {
        const int err = errno;
        close(report[0]);
        close(report[1]);
        die(std::string("cannot start ") + opt.command[0] + ": " + std::strerror(err));
        return kExitSoftware;
    }
    if (child == 0) {
        // Only async-signal-safe calls from here on: other threads of the
        // parent (the refresh timer) may have held locks at fork time.
        // A process group of its own, so that a lost lock stops everything
        // COMMAND started, not only COMMAND itself.
        setpgid(0, 0);
        if (foreground) giveTerminal(getpid());  // both sides do it, as shells do
        signal(SIGCHLD, SIG_DFL);
        pthread_sigmask(SIG_SETMASK, &signals.original(), nullptr);
        execv(path.c_str(), argv.data());
        const int err = errno;
        ssize_t ignored = write(report[1], &err, sizeof err);
        (void)ignored;
        _exit(err == ENOENT ? kExitNotFound : kExitCannotExecute);
    }
    // Also here, so that the group exists before any kill below.
    setpgid(child, child);
    if (foreground) giveTerminal(child);
    close(report[1]);
    int execError = 0;
    ssize_t n;
    do {
        n = read(report[0], &execError, sizeof execError);
    } while (n < 0 && errno == EINTR);
    close(report[0]);
    if (n == sizeof execError) {
        int status;
        while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
        }
        if (foreground) giveTerminal(getpgrp());
        die(opt.command[0] + ": " + std::strerror(execError));
        return execError == ENOENT ? kExitNotFound : kExitCannotExecute;
    }

    bool lostSeen = false;
    for (;;) {
        // The refresh thread sets `lost` and wakes us with kWakeUp; checked
        // on every wake-up, so a loss found before this loop is not missed.
        const ovLockLossReason why = static_cast<ovLockLossReason>(lost.load());
        if (why != ovLockNotLost && !lostSeen) {
            lostSeen = true;
            die("lock on " + opt.dir + " lost (" + ovLockLossReasonText(why) + ")");
            // Another process may hold the lock now: stop COMMAND before it
            // does more under a lock it no longer has, unless told not to.
            if (opt.onLost == OnLost::Term) kill(-child, SIGTERM);
            if (opt.onLost == OnLost::Kill) kill(-child, SIGKILL);
        }
        int status;
        const pid_t done = waitpid(child, &status, WNOHANG);
        if (done == child) {
            if (foreground) giveTerminal(getpgrp());
            // What COMMAND left running in its group must not work on
            // under a lock that another process may hold now.
            if (lostSeen && opt.onLost == OnLost::Term) kill(-child, SIGTERM);
            if (lostSeen && opt.onLost == OnLost::Kill) kill(-child, SIGKILL);
            if (lostSeen) return kExitLockLost;
            if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
            return WEXITSTATUS(status);
        }
        const int sig = signals.wait();
        if (isForwarded(sig)) kill(-child, sig);
    }
}

int runLocked(const Options& opt) {
    if (int rc = checkDirectory(opt.dir)) return rc;

    SignalSet signals;
    const boost::shared_ptr<TrackingFS> fs = boost::make_shared<TrackingFS>(ovGetDefaultFSImp());
    std::unique_ptr<DirectoryLock> lock;
    try {
        lock.reset(new DirectoryLock(opt.kind, opt.dir, fs));
    } catch (...) {
        return reportLockError(opt.dir, std::current_exception());
    }

    // Wait for the lock on a thread of its own; the main thread stays free to
    // take signals.
    AcquireResult result;
    const pthread_t mainThread = pthread_self();
    // Called on the refresh thread: note the reason and wake the main thread,
    // nothing more (releasing from there would join that very thread).
    std::atomic<int> lost{ovLockNotLost};
    lock->setLostCallback([&lost, mainThread](ovLockLossReason why) {
        lost = why;
        pthread_kill(mainThread, kWakeUp);
    });
    const time_duration timeout = toTimeout(opt.timeoutSeconds);
    boost::thread waiter([&] {
        fs->setWaiter(boost::this_thread::get_id());
        try {
            result.acquired = lock->acquire(timeout, opt.noRefresh);
        } catch (const boost::thread_interrupted&) {
            result.interrupted = true;
        } catch (const Cancelled&) {
            result.interrupted = true;
        } catch (...) {
            result.error = std::current_exception();
        }
        result.done = true;
        pthread_kill(mainThread, kWakeUp);
    });
    int caught = 0;
    while (!result.done) {
        // Once cancelling, ask again every 50 ms: the waiter may have been
        // holding level 0, when it must not be interrupted.
        const int sig = caught ? signals.wait(0.05) : signals.wait();
        if (isForwarded(sig) && !caught) caught = sig;
        if (caught) fs->cancel(waiter);
    }
    waiter.join();

    // From here on every path lets go of the lock and then removes whatever
    // file of ours an interrupted or failed acquire left in DIR. The held
    // file is the lock's to remove: its release checks that it is still
    // ours, and leaves it to a new holder otherwise.
    if (result.acquired) fs->keepHeld();
    auto finish = [&](int code) {
        if (lost.load() == ovLockRefreshFailing) {
            // Lost by silence: the file server may not be answering at all
            // (a frozen mount), and the release or the clean-up could hang
            // in it. The file ages out like a dead holder's; exit now,
            // without the destructors that would release.
            std::cout.flush();
            std::cerr.flush();
            std::fflush(nullptr);
            _exit(code);
        }
        try {
            if (result.acquired) lock->release();
        } catch (const ovFileBasedLockError& e) {
            die("releasing the lock on " + opt.dir + ": " + e.what());
        }
        lock.reset();
        for (const std::string& name : fs->removeOwned()) die("could not remove " + name);
        return code;
    };

    if (result.error) return finish(reportLockError(opt.dir, result.error));
    if (caught) return finish(128 + caught);
    if (!result.acquired) {
        if (opt.verbose) die("lock on " + opt.dir + " not obtained in time");
        return finish(opt.conflictExitCode);
    }
    return finish(runCommand(opt, signals, lost));
}

int runStatus(const Options& opt) {
    if (int rc = checkDirectory(opt.dir)) return rc;
    try {
        const std::vector<LockFileInfo> files = collectLockFiles(opt.dir, ovGetDefaultFSImp());
        if (opt.json)
            printJson(std::cout, opt.dir, files);
        else
            printTable(std::cout, opt.dir, files);
        std::cout.flush();
        return 0;
    } catch (const ovNoSuchDirectory&) {
        die("status of " + opt.dir + ": no such directory");
        return kExitNoDirectory;
    } catch (const ovPermissionDenied&) {
        die("status of " + opt.dir + ": no write permission (a probe file measures the server's clock)");
        return kExitNoPermission;
    } catch (const ovFileBasedLockError& e) {
        die("status of " + opt.dir + ": " + e.what());
        return kExitFileSystem;
    }
}

}  // namespace

int main(int argc, char** argv) {
    Options opt;
    std::string error;
    if (!parseOptions(argc, argv, opt, error)) {
        std::cerr << "orvane-lock: " << error << "\n" << kUsage;
        return kExitUsage;
    }
    switch (opt.action) {
        case Action::Help:
            std::cout << kUsage;
            return 0;
        case Action::Version:
            std::cout << "orvane-lock " << liborvane_version << "\n";
            return 0;
        case Action::Status:
            return runStatus(opt);
        case Action::Run:
            break;
    }
    if (opt.verbose) {
        // The channels are plain data: switching them here is all it takes.
        verbose.enabled = true;
        warning.enabled = true;
    }
    return runLocked(opt);
}
