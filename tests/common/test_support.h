#ifndef ORVANE_TESTS_TEST_SUPPORT_H
#define ORVANE_TESTS_TEST_SUPPORT_H

// Helpers shared by the test suites: fresh temporary directories, child
// processes with bounded waits, unprivileged children (tests run as root,
// which ignores permission bits), file ageing, thread counting.

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

namespace ovtest {

// A fresh directory under $TMPDIR (or /tmp), removed with its contents.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

// Creates (or truncates) a file with the given content.
void writeFile(const std::string& path, const std::string& content = "");
std::string readFile(const std::string& path);

// Sets a file's access and modification times to now - secondsAgo (may be
// negative: in the future); those of a symbolic link itself, not its target,
// when linkItself.
void ageFile(const std::string& path, double secondsAgo, bool linkItself = false);

// Number of threads of this process (entries of /proc/self/task).
int countThreads();

// Open descriptors of this process (entries of /proc/self/fd).
int countOpenFds();

// Path of the running executable.
std::string selfExe();

// Exit status of a finished child in one number: its exit code, or 128 + N
// when it died of signal N.
int decodeStatus(int status);

// A child process, killed (SIGKILL) and reaped when the object goes, unless
// it was waited for.
class Child {
public:
    Child() = default;
    explicit Child(pid_t pid) : pid_(pid) {}
    Child(Child&& other) noexcept;
    Child& operator=(Child&& other) noexcept;
    ~Child();

    pid_t pid() const { return pid_; }
    // Waits at most timeoutSeconds; returns decodeStatus() of the child, or
    // -1 on timeout (the child is then killed and reaped).
    int wait(double timeoutSeconds = 60);
    bool running();
    void kill(int sig);

private:
    pid_t pid_ = -1;
};

// Forks; the child runs fn and _exits with its result (an escaping
// exception exits with 99).
Child forkChild(const std::function<int()>& fn);

// fork + execv of argv[0] with the given arguments (and extra environment
// entries "NAME=value" added to the current environment).
Child spawn(const std::vector<std::string>& argv, const std::vector<std::string>& extraEnv = {});

// In a child about to run as another user: no supplementary groups, then the
// given gid and uid. False if any step failed or root is still in effect.
bool becomeUser(uid_t uid, gid_t gid);

// Runs fn in a forked child that first drops to uid/gid 65534; returns the
// child's decoded status.
int runAsUnprivileged(const std::function<int()>& fn, double timeoutSeconds = 60);

// The unprivileged uid/gid used above.
constexpr uid_t kUnprivilegedId = 65534;

// Runs fn in a forked child as uid/gid (no supplementary groups) with the
// given umask; returns the child's decoded status, -1 on timeout.
int runAsUser(uid_t uid, gid_t gid, mode_t umask, const std::function<int()>& fn, double timeoutSeconds = 60);

// CPU seconds this process has used, all threads.
double cpuSeconds();

// Monotonic seconds, for generous time bounds in tests.
double monotonicSeconds();

// A POSIX TZ rule (zone one hour ahead in summer) whose daylight-saving time
// starts (dstStarts) or ends `seconds` from now: local time jumps an hour
// forward or back then. For a child process: setenv("TZ", ...) and tzset().
std::string tzRuleSwitchingIn(double seconds, bool dstStarts);

}  // namespace ovtest

#endif
