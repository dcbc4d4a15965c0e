// A short tour of the path functions: what collapse and canonicalize make of
// awkward text, then a small tree built, measured, matched and removed in a
// fresh temporary directory.
#include <limits.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "orvane/path.h"

namespace {

struct Printer : ovStringProcedure {
    const char* kind;
    explicit Printer(const char* k) : kind(k) {}
    void operator()(const char* path) const override { std::printf("  %-4s %s\n", kind, path); }
};

}  // namespace

int main() {
    const char* inputs[] = {"/a/./b//../c", "a/..", "/../..", "//usr///lib/", "../x"};
    for (const char* in : inputs) {
        char out[256];
        ovCollapsePath(out, in, std::strlen(in));
        std::printf("collapse   %-16s -> \"%s\"\n", in, out);
    }
    char canon[PATH_MAX];
    const char* rel = "  ./no/such/dir/../file ";
    std::printf("canonical  \"%s\" -> %s\n", rel, ovCanonicalizePath(canon, sizeof canon, rel, std::strlen(rel)));

    char tmp[PATH_MAX];
    const std::string root = ovGetTempName(tmp);
    std::printf("temp name  %s\n", root.c_str());
    if (!ovMkdirP((root + "/docs/old").c_str())) {
        std::printf("cannot create %s\n", root.c_str());
        return 1;
    }
    for (const char* name : {"/docs/a.txt", "/docs/old/b.txt", "/notes.tmp"}) {
        if (FILE* f = std::fopen((root + name).c_str(), "w")) {
            std::fprintf(f, "%s\n", name);
            std::fclose(f);
        }
    }
    std::printf("size       %llu bytes below %s\n", (unsigned long long)ovGetDirectorySize(root.c_str()), root.c_str());
    std::printf("everything below it, directories first:\n");
    unsigned n = ovFindMatchingFilesAndDirs((root + "/*").c_str(), Printer("file"), Printer("dir"), 1024, false);
    std::printf("  (%u entries)\n", n);
    std::printf("*.tmp exists: %s\n", ovMatchingFileOrDirExists((root + "/*.tmp").c_str()) ? "yes" : "no");
    std::printf("removed:    %s\n", ovRemoveRF(root.c_str()) && !ovFileOrDirExists(root.c_str()) ? "yes" : "no");
    return 0;
}
