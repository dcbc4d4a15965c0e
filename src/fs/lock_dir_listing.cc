#include "fs/lock_dir_listing.h"

#include <errno.h>
#include <sys/stat.h>

#include <cstring>
#include <string>
#include <vector>

#include "fs/error_messages.h"
#include "fs/posix_io.h"
#include "host/host.h"
#include "orvane/fs.h"

namespace detail {

namespace {

[[noreturn]] void throwCannotList(const std::string& dir, int err) {
    throw ovFileAccessError(std::string(kFileAccessPrefix) + "Cannot look for lock files in directory " +
                            (dir.empty() ? std::string(".") : dir) + kReasonOpen + errorText(err) + kReasonClose);
}

// Missing directory (or a file where a directory should be): nothing there.
bool meansNothingThere(int err) { return err == ENOENT || err == ENOTDIR; }

void report(const std::string& path, const ovStringProcedure& onFile, const ovStringProcedure& onDir) {
    // Followed like the tree walk does: a link to a directory counts as one.
    struct stat st;
    const bool isDir = ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
    (isDir ? onDir : onFile)(path.c_str());
}

}  // namespace

unsigned findInLockDirectory(const char* pattern, const ovStringProcedure& onFile,
                             const ovStringProcedure& onDir, int depth, bool stopAtFirst) {
    if (!pattern || !*pattern || depth != 0) return ovFindMatchingFilesAndDirs(pattern, onFile, onDir, depth, stopAtFirst);
    const char* slash = std::strrchr(pattern, '/');
    const char* name = slash ? slash + 1 : pattern;
    if (!*name) return ovFindMatchingFilesAndDirs(pattern, onFile, onDir, depth, stopAtFirst);
    const std::string dir = slash ? std::string(pattern, slash == pattern ? 1 : slash - pattern) : std::string();
    const std::string prefix = dir.empty() ? std::string() : (dir == "/" ? dir : dir + "/");

    if (!std::strpbrk(name, "*?[\\")) {
        // Asked past the client's name cache: a writer that left through
        // another client must not keep readers out.
        const std::string path = prefix + name;
        const int err = entryPresent(path.c_str());
        if (err != 0) {
            if (meansNothingThere(err)) return 0;
            throwCannotList(dir, err);
        }
        report(path, onFile, onDir);
        return 1;
    }

    std::vector<std::string> names;
    const int err = dirListMatching(dir, name, stopAtFirst, names);
    if (err != 0 && !meansNothingThere(err)) throwCannotList(dir, err);
    unsigned count = 0;
    for (const std::string& n : names) {
        report(prefix + n, onFile, onDir);
        ++count;
    }
    return count;
}

}  // namespace detail
