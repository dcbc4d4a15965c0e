// Total size of the files below a directory.

#include <cstring>

#include "orvane/path.h"
#include "path/tree_walk.h"

namespace detail {

// Adds the size of every file it is shown to a running total.
class ovDirectorySizeAdder : public ovStatProcedure {
public:
    explicit ovDirectorySizeAdder(uint64_t& total) : total_(total) {}
    void operator()(const char* path) const override { total_ += ovGetFileSize(path); }
    // The walker has just read the same status ovGetFileSize would.
    void visit(const char*, const struct stat& st, bool) const override {
        total_ += static_cast<uint64_t>(st.st_size);
    }

private:
    uint64_t& total_;
};

}  // namespace detail

uint64_t ovGetDirectorySize(const char* dir) {
    // An empty name would become "/*", the whole file system.
    if (!dir || !*dir) return 0;
    char pattern[1024 + 3];
    const size_t n = strnlen(dir, 1024);
    std::memcpy(pattern, dir, n);
    pattern[n] = '\0';
    ovAddPathSep(pattern);
    std::strcat(pattern, "*");

    uint64_t total = 0;
    detail::ovDirectorySizeAdder addSize(total);
    ovIgnoreString ignore;
    ovFindMatchingFilesAndDirs(pattern, addSize, ignore, 1024, false);
    return total;
}
