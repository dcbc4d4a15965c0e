// Pattern matching over directory trees: the entries of one directory that
// match a last-component pattern, each reported through a callback, and
// below every matching directory everything down to a given depth.

#include <sys/stat.h>

#include <cstring>
#include <string>
#include <vector>

#include "host/host.h"
#include "orvane/path.h"
#include "path/scoped_resource.h"
#include "path/tree_walk.h"

namespace {

// Patterns longer than this are refused outright.
constexpr size_t kMaxPattern = 1024;

struct DirId {
    dev_t dev;
    ino_t ino;
};

class Walker {
public:
    Walker(const ovStringProcedure& onFile, const ovStringProcedure& onDir)
        : onFile_(onFile),
          onDir_(onDir),
          onFileStat_(dynamic_cast<const detail::ovStatProcedure*>(&onFile)),
          onDirStat_(dynamic_cast<const detail::ovStatProcedure*>(&onDir)) {}

    // Entries of dir matching name, pre-order; dir serves as the path buffer
    // for the whole walk and is as it was on return.
    unsigned walk(std::string& dir, const char* name, int depth, bool stop) {
        const size_t dirLen = dir.size();
        pathConcatName(dir, name);
        ovScopedResource<char*> list(dirGetList(dir.c_str(), 0), hostFree);
        dir.resize(dirLen);
        if (!list.get()) return 0;  // unlistable counts as empty

        unsigned count = 0;
        for (const char* e = list.get(); *e; e += std::strlen(e) + 1) {
            if (std::strcmp(e, ".") == 0 || std::strcmp(e, "..") == 0) continue;
            dir.resize(dirLen);
            pathConcatName(dir, e);
            // The walk follows links (a link to a directory is walked as
            // one); lstat first tells the link itself apart for callbacks
            // that care, and saves the second call for everything else.
            struct stat st;
            bool known = ::lstat(dir.c_str(), &st) == 0;
            const bool isLink = known && S_ISLNK(st.st_mode);
            if (isLink) known = ::stat(dir.c_str(), &st) == 0;
            if (known && S_ISDIR(st.st_mode)) {
                report(onDir_, onDirStat_, dir.c_str(), known, st, isLink);
                ++count;
                if (stop) break;
                if (depth > 0 && !onDescentPath(st)) {
                    enter(st);
                    count += walk(dir, "*", depth - 1, false);
                    ancestors_.pop_back();
                }
            } else {
                report(onFile_, onFileStat_, dir.c_str(), known, st, isLink);
                ++count;
                if (stop) break;
            }
        }
        dir.resize(dirLen);
        return count;
    }

    // Marks a directory as being walked (the one the walk starts in).
    void enter(const struct stat& st) { ancestors_.push_back(DirId{st.st_dev, st.st_ino}); }

private:
    static void report(const ovStringProcedure& plain, const detail::ovStatProcedure* withStat, const char* path,
                       bool known, const struct stat& st, bool isLink) {
        if (withStat && known) {
            withStat->visit(path, st, isLink);
        } else {
            plain(path);
        }
    }

    // A directory reached again below itself through a link is reported but
    // not entered a second time: a link cycle would otherwise be walked until
    // the paths grew too long, and two such links would double the work at
    // every level.
    bool onDescentPath(const struct stat& st) const {
        for (const DirId& a : ancestors_) {
            if (a.dev == st.st_dev && a.ino == st.st_ino) return true;
        }
        return false;
    }

    const ovStringProcedure& onFile_;
    const ovStringProcedure& onDir_;
    const detail::ovStatProcedure* onFileStat_;
    const detail::ovStatProcedure* onDirStat_;
    std::vector<DirId> ancestors_;
};

unsigned walkFrom(const char* dir, const char* name, const ovStringProcedure& onFile,
                  const ovStringProcedure& onDir, int depth, bool stop) {
    Walker w(onFile, onDir);
    std::string buf(dir);
    buf.reserve(4096);
    struct stat st;
    if (depth > 0 && ::stat(dir[0] ? dir : ".", &st) == 0) w.enter(st);
    return w.walk(buf, name, depth, stop);
}

}  // namespace

unsigned ovFindMatchingFilesAndDirs(const char* pattern, const ovStringProcedure& onFile,
                                    const ovStringProcedure& onDir, int depth, bool stopAtFirst) {
    if (!pattern || !*pattern || strnlen(pattern, kMaxPattern + 1) > kMaxPattern) return 0;

    if (std::strcmp(pattern, ".") == 0 || std::strcmp(pattern, ".\\") == 0 || std::strcmp(pattern, "./") == 0) {
        // The current directory's contents; "." itself is not reported.
        return depth < 1 ? 0 : walkFrom("", "*", onFile, onDir, depth - 1, stopAtFirst);
    }
    if (ovIsRootDir(pattern)) {
        return depth < 1 ? 0 : walkFrom("/", "*", onFile, onDir, depth - 1, stopAtFirst);
    }

    char dir[kMaxPattern + 1];
    const char* name = pathSeparateName(pattern, dir, sizeof dir);
    if (std::strchr(dir, '*')) return 0;  // wildcards only in the last component
    char parent[kMaxPattern + 1];
    if (!*name) {
        // "/a/b/" means the entry "b" of "/a".
        name = pathSeparateName(dir, parent, sizeof parent);
        ovWashPathSep(parent);
        return walkFrom(parent, name, onFile, onDir, depth, stopAtFirst);
    }
    ovWashPathSep(dir);
    return walkFrom(dir, name, onFile, onDir, depth, stopAtFirst);
}

bool ovMatchingFileOrDirExists(const char* pattern) {
    ovIgnoreString ignore;
    return ovFindMatchingFilesAndDirs(pattern, ignore, ignore, 0, true) == 1;
}
