#ifndef ORVANE_FUZZ_TREE_H
#define ORVANE_FUZZ_TREE_H

// A small directory tree made once per fuzzing process, in a fresh
// temporary directory, and removed when the process exits.

#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace ovfuzz {

inline std::string& treeRoot() {
    static std::string root;
    return root;
}

inline void removeTree() {
    if (treeRoot().empty()) return;
    // Only our own mkdtemp directory, quoted.
    std::string cmd = "rm -rf '" + treeRoot() + "'";
    if (std::system(cmd.c_str()) != 0) std::fprintf(stderr, "could not remove %s\n", cmd.c_str());
}

// Creates the tree and returns its real path. Layout:
//   a  ab  b.txt  .hidden  sp ace/  dir1/{x, y.txt, sub/{z}}  dir2/
//   link -> dir1 (canonicalization resolves it)  dangling -> missing
inline const std::string& makeTree() {
    if (!treeRoot().empty()) return treeRoot();
    const char* tmp = std::getenv("TMPDIR");
    std::string templ = std::string(tmp && *tmp ? tmp : "/tmp") + "/ovfuzz.XXXXXX";
    if (!mkdtemp(&templ[0])) std::abort();
    char real[PATH_MAX];
    if (!realpath(templ.c_str(), real)) std::abort();
    treeRoot() = real;
    const std::string r = treeRoot();
    for (const char* d : {"/sp ace", "/dir1", "/dir1/sub", "/dir2"}) {
        if (mkdir((r + d).c_str(), 0755) != 0) std::abort();
    }
    for (const char* f : {"/a", "/ab", "/b.txt", "/.hidden", "/dir1/x", "/dir1/y.txt",
                          "/dir1/sub/z"}) {
        int fd = open((r + f).c_str(), O_CREAT | O_WRONLY, 0644);
        if (fd < 0) std::abort();
        close(fd);
    }
    if (symlink("dir1", (r + "/link").c_str()) != 0) std::abort();
    if (symlink("missing", (r + "/dangling").c_str()) != 0) std::abort();
    std::atexit(removeTree);
    return treeRoot();
}

}  // namespace ovfuzz

#endif
