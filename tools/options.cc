#include "options.h"

#include <getopt.h>

#include <cmath>
#include <cstdlib>
#include <cstring>

namespace orvane_tool {

const char kUsage[] =
    "Usage: orvane-lock [OPTIONS] DIR COMMAND [ARG...]\n"
    "       orvane-lock status DIR [--json]\n"
    "\n"
    "Runs COMMAND while holding a lock on directory DIR, made only of files in\n"
    "DIR (so it works across hosts on a shared file system), then releases it.\n"
    "\n"
    "  -x, --exclusive          exclusive write lock (default)\n"
    "  -s, --shared             shared read lock; excludes only writers\n"
    "  -q, --queue              first come, first served queue lock (its holder\n"
    "                           also delays -x/-s, which use it to check)\n"
    "  -w, --wait, --timeout S  give up after S seconds (decimal; default: wait)\n"
    "  -n, --nonblock           give up at once if the lock is taken\n"
    "      --no-refresh         do not refresh the lock file while COMMAND runs\n"
    "                           (others take it over after 30 s)\n"
    "  -E, --conflict-exit-code N\n"
    "                           exit status when the lock is not obtained (default 1)\n"
    "      --on-lost=term|kill|ignore\n"
    "                           what COMMAND gets if the lock is lost while it\n"
    "                           runs (default term: SIGTERM; kill: SIGKILL)\n"
    "  -v, --verbose            trace the locking steps and warnings\n"
    "  -h, --help               show this help\n"
    "      --version            show the library version\n"
    "\n"
    "status lists the lock files in DIR with their role, age and whether they are\n"
    "live or stale (not refreshed for more than 30 s), and whether its holder is\n"
    "still refreshing it (content watched for about 1.5 s); --json for machines.\n"
    "\n"
    "Exit status: COMMAND's status (128+N if it died of signal N); 1 (or -E N) if\n"
    "the lock was not obtained; 64 bad usage; 66 no such directory; 74 file-system\n"
    "error; 77 no write permission; 126 COMMAND not executable; 127 COMMAND not\n"
    "found; 128+N if signal N arrived while waiting for the lock; 75 if the lock\n"
    "was lost while COMMAND ran (its file rewritten by another holder, removed,\n"
    "or not refreshed for 20 s), once COMMAND has ended.\n";

bool parseSeconds(const std::string& text, double& seconds) {
    bool digit = false, dot = false;
    for (char c : text) {
        if (c >= '0' && c <= '9') {
            digit = true;
        } else if (c == '.' && !dot) {
            dot = true;
        } else {
            return false;
        }
    }
    if (!digit) return false;
    seconds = std::strtod(text.c_str(), nullptr);
    return std::isfinite(seconds);  // hundreds of digits would overflow to inf
}

bool parseExitCode(const std::string& text, int& code) {
    if (text.empty() || text.size() > 3) return false;
    int value = 0;
    for (char c : text) {
        if (c < '0' || c > '9') return false;
        value = value * 10 + (c - '0');
    }
    if (value > 255) return false;
    code = value;
    return true;
}

namespace {

enum LongOnly { kNoRefresh = 1000, kVersion, kJson, kOnLost };

bool parseStatus(int argc, char** argv, Options& out, std::string& error) {
    out.action = Action::Status;
    std::vector<std::string> rest;
    for (int i = 2; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--json") {
            out.json = true;
        } else if (arg == "-h" || arg == "--help") {
            out.action = Action::Help;
            return true;
        } else if (arg == "--") {
            for (++i; i < argc; ++i) rest.push_back(argv[i]);
        } else if (arg.size() > 1 && arg[0] == '-') {
            error = "unknown status option '" + arg + "'";
            return false;
        } else {
            rest.push_back(arg);
        }
    }
    if (rest.size() != 1) {
        error = rest.empty() ? "status needs a directory" : "status takes one directory";
        return false;
    }
    out.dir = rest[0];
    return true;
}

}  // namespace

bool parseOptions(int argc, char** argv, Options& out, std::string& error) {
    out = Options();
    if (argc >= 2 && std::strcmp(argv[1], "status") == 0) return parseStatus(argc, argv, out, error);

    static const struct option longOptions[] = {
        {"exclusive", no_argument, nullptr, 'x'},
        {"shared", no_argument, nullptr, 's'},
        {"queue", no_argument, nullptr, 'q'},
        {"wait", required_argument, nullptr, 'w'},
        {"timeout", required_argument, nullptr, 'w'},
        {"nonblock", no_argument, nullptr, 'n'},
        {"no-refresh", no_argument, nullptr, kNoRefresh},
        {"on-lost", required_argument, nullptr, kOnLost},
        {"conflict-exit-code", required_argument, nullptr, 'E'},
        {"verbose", no_argument, nullptr, 'v'},
        {"help", no_argument, nullptr, 'h'},
        {"version", no_argument, nullptr, kVersion},
        {nullptr, 0, nullptr, 0},
    };
    optind = 0;  // full reset, also of getopt's internal state
    opterr = 0;  // we word the errors ourselves
    // "+": stop at DIR, so that COMMAND's own options stay COMMAND's.
    int c;
    while ((c = getopt_long(argc, argv, "+:xsqw:nE:vh", longOptions, nullptr)) != -1) {
        switch (c) {
            case 'x': out.kind = LockKind::Write; break;
            case 's': out.kind = LockKind::Read; break;
            case 'q': out.kind = LockKind::Queue; break;
            case 'w':
                if (!parseSeconds(optarg, out.timeoutSeconds)) {
                    error = std::string("invalid timeout '") + optarg + "' (seconds, e.g. 2.5)";
                    return false;
                }
                break;
            case 'n': out.timeoutSeconds = 0; break;
            case kNoRefresh: out.noRefresh = true; break;
            case kOnLost:
                if (std::strcmp(optarg, "term") == 0) {
                    out.onLost = OnLost::Term;
                } else if (std::strcmp(optarg, "kill") == 0) {
                    out.onLost = OnLost::Kill;
                } else if (std::strcmp(optarg, "ignore") == 0) {
                    out.onLost = OnLost::Ignore;
                } else {
                    error = std::string("invalid --on-lost '") + optarg + "' (term, kill or ignore)";
                    return false;
                }
                break;
            case 'E':
                if (!parseExitCode(optarg, out.conflictExitCode)) {
                    error = std::string("invalid conflict exit code '") + optarg + "' (0..255)";
                    return false;
                }
                break;
            case 'v': out.verbose = true; break;
            case 'h': out.action = Action::Help; return true;
            case kVersion: out.action = Action::Version; return true;
            case ':':
                error = std::string("option '") + argv[optind - 1] + "' needs an argument";
                return false;
            default:
                error = optopt && optopt < 256 ? std::string("unknown option '-") + char(optopt) + "'"
                                               : std::string("unknown option '") + argv[optind - 1] + "'";
                return false;
        }
    }
    if (optind >= argc) {
        error = "missing directory";
        return false;
    }
    out.dir = argv[optind++];
    if (out.dir.empty()) {
        error = "empty directory name";
        return false;
    }
    if (optind >= argc) {
        error = "missing command";
        return false;
    }
    for (; optind < argc; ++optind) out.command.push_back(argv[optind]);
    return true;
}

}  // namespace orvane_tool
