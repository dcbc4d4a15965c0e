// ovFindMatchingFilesAndDirs over a small fixed tree with fuzzed patterns:
// the count equals the callbacks made; every reported path exists and is
// reported as what it is; nothing twice; directories before their contents;
// depth and the stop flag are honoured; wildcards outside the last component
// and over-long patterns match nothing; ovMatchingFileOrDirExists agrees.

#include <sys/stat.h>
#include <unistd.h>

#include <set>
#include <string>
#include <vector>

#include "fuzz_check.h"
#include "fuzz_tree.h"
#include "orvane/path.h"

namespace {

struct Seen {
    std::vector<std::string> paths;
    std::vector<bool> isDir;
};

class Recorder : public ovStringProcedure {
public:
    Recorder(Seen& seen, bool dir) : seen_(seen), dir_(dir) {}
    void operator()(const char* path) const override {
        seen_.paths.push_back(path);
        seen_.isDir.push_back(dir_);
    }

private:
    Seen& seen_;
    bool dir_;
};

unsigned run(const std::string& pattern, int depth, bool stop, Seen& seen) {
    Recorder onFile(seen, false), onDir(seen, true);
    return ovFindMatchingFilesAndDirs(pattern.c_str(), onFile, onDir, depth, stop);
}

size_t components(const std::string& p) {
    size_t n = 0;
    for (size_t i = 0; i < p.size(); ++i) {
        if (p[i] != '/' && (i == 0 || p[i - 1] == '/')) ++n;
    }
    return n;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    if (chdir(ovfuzz::makeTree().c_str()) != 0) std::abort();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    ovfuzz::Input in(data, size);
    const int depth = static_cast<int>(in.byte() % 5) - 1;  // -1 .. 3
    const uint8_t flags = in.byte();
    std::string name = in.rest();
    if (name.find('\0') != std::string::npos) name.erase(name.find('\0'));
    // Stay inside the tree: elsewhere (say /proc) entries come and go.
    // (A backslash in a directory part reads as a separator.)
    while (!name.empty() && (name[0] == '/' || name[0] == '\\')) name.erase(0, 1);
    if (name.find("..") != std::string::npos) return 0;

    const std::string& root = ovfuzz::makeTree();
    // Absolute under the tree, or relative to it (the current directory).
    const std::string pattern = (flags & 1) ? root + "/" + name : name;
    const bool stop = flags & 2;
    const std::string shown = ovfuzz::show(pattern);

    Seen seen;
    const unsigned count = run(pattern, depth, stop, seen);
    FUZZ_CHECK(count == seen.paths.size(), "%s: count %u but %zu callbacks", shown.c_str(), count,
               seen.paths.size());
    if (stop) FUZZ_CHECK(count <= 1, "%s: stop flag ignored (%u)", shown.c_str(), count);
    if (pattern.empty() || pattern.size() > 1024) {
        FUZZ_CHECK(count == 0, "%s: empty or over-long pattern matched", shown.c_str());
    }

    std::set<std::string> unique;
    for (size_t i = 0; i < seen.paths.size(); ++i) {
        const std::string& p = seen.paths[i];
        struct stat st;
        FUZZ_CHECK(lstat(p.c_str(), &st) == 0, "%s reported missing %s", shown.c_str(), p.c_str());
        const bool dir = stat(p.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
        FUZZ_CHECK(dir == seen.isDir[i], "%s reported %s as the wrong kind", shown.c_str(), p.c_str());
        FUZZ_CHECK(unique.insert(p).second, "%s reported %s twice", shown.c_str(), p.c_str());
        // Pre-order: the enclosing reported directory came first.
        for (size_t j = i + 1; j < seen.paths.size(); ++j) {
            const std::string& q = seen.paths[j];
            FUZZ_CHECK(!(seen.isDir[j] && p.compare(0, q.size() + 1, q + "/") == 0),
                       "%s reported %s before its directory %s", shown.c_str(), p.c_str(), q.c_str());
        }
    }

    const size_t slash = pattern.find_last_of('/', pattern.find_last_not_of('/'));
    if (slash != std::string::npos &&
        pattern.substr(0, slash).find('*') != std::string::npos) {
        FUZZ_CHECK(count == 0, "%s: wildcard outside the last component matched", shown.c_str());
    }

    if (!stop && depth >= 0 && count > 0 && (flags & 1) && name.find('/') == std::string::npos &&
        !name.empty()) {
        // Below the tree root: the matched entry plus at most `depth` levels.
        const size_t base = components(root);
        for (const std::string& p : seen.paths) {
            FUZZ_CHECK(components(p) <= base + 1 + static_cast<size_t>(depth),
                       "%s at depth %d reported %s", shown.c_str(), depth, p.c_str());
        }
    }

    if (!stop && depth >= 0 && depth < 3) {
        Seen deeper;
        const unsigned more = run(pattern, depth + 1, false, deeper);
        FUZZ_CHECK(more >= count, "%s: depth %d found %u, depth %d only %u", shown.c_str(), depth,
                   count, depth + 1, more);
    }

    if (!stop && depth == 0) {
        FUZZ_CHECK(ovMatchingFileOrDirExists(pattern.c_str()) == (count > 0),
                   "%s: exists-test disagrees with count %u", shown.c_str(), count);
        // A name free of wildcard characters matches itself or nothing.
        if ((flags & 1) && !name.empty() && name.find_first_of("*?[]\\/") == std::string::npos &&
            name != "." && name != "..") {
            struct stat st;
            const bool exists = lstat((root + "/" + name).c_str(), &st) == 0;
            FUZZ_CHECK(count == (exists ? 1u : 0u), "%s: literal name matched %u", shown.c_str(),
                       count);
        }
    }
    return 0;
}
