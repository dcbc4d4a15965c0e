#ifndef ORVANE_TOOLS_OPTIONS_H
#define ORVANE_TOOLS_OPTIONS_H

// Command line of orvane-lock: what to lock, how long to wait, what to run.

#include <string>
#include <vector>

namespace orvane_tool {

// Exit codes of the tool itself (COMMAND's own status is passed through).
enum ExitCode {
    kExitConflict = 1,        // default for a lock not obtained in time (-E)
    kExitUsage = 64,          // bad command line
    kExitNoDirectory = 66,    // DIR missing or not a directory
    kExitSoftware = 70,       // internal failure
    kExitFileSystem = 74,     // any other file-system error
    kExitLockLost = 75,       // the lock was lost while COMMAND ran
    kExitNoPermission = 77,   // no write permission in DIR
    kExitCannotExecute = 126, // COMMAND found but not executable
    kExitNotFound = 127,      // COMMAND not found
};

enum class Action { Run, Status, Help, Version };
enum class LockKind { Write, Read, Queue };
// What COMMAND gets when the lock is lost while it runs.
enum class OnLost { Term, Kill, Ignore };

struct Options {
    Action action = Action::Run;
    LockKind kind = LockKind::Write;
    double timeoutSeconds = -1;  // negative: no limit
    bool noRefresh = false;
    int conflictExitCode = kExitConflict;
    OnLost onLost = OnLost::Term;
    bool verbose = false;
    bool json = false;
    std::string dir;
    std::vector<std::string> command;
};

// Parses argv; on a usage error returns false with a one-line reason.
bool parseOptions(int argc, char** argv, Options& out, std::string& error);

// A timeout in seconds written as plain decimal ("5", "0.25", ".5"); no
// sign, exponent, hex, inf or nan.
bool parseSeconds(const std::string& text, double& seconds);

// A whole number 0..255.
bool parseExitCode(const std::string& text, int& code);

extern const char kUsage[];

}  // namespace orvane_tool

#endif
