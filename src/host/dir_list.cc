#include <dirent.h>
#include <fnmatch.h>
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "host/host.h"

namespace {

// A growing malloc'd block of NUL-terminated names; the block is what the
// caller receives, so it must come from malloc and be freed with hostFree.
class NameBlock {
public:
    ~NameBlock() { ::free(data_); }

    bool add(const char* name, size_t len) {
        // Room for the name, its NUL and the final empty name.
        if (!reserve(used_ + len + 2)) return false;
        std::memcpy(data_ + used_, name, len);
        used_ += len;
        data_[used_++] = '\0';
        return true;
    }

    char* finish() {
        if (!reserve(used_ + 1)) return nullptr;
        data_[used_] = '\0';
        char* out = data_;
        data_ = nullptr;
        return out;
    }

private:
    bool reserve(size_t need) {
        if (need <= cap_) return true;
        size_t cap = cap_ ? cap_ : 256;
        while (cap < need) cap *= 2;
        char* p = static_cast<char*>(::realloc(data_, cap));
        if (!p) return false;
        data_ = p;
        cap_ = cap;
        return true;
    }

    char* data_ = nullptr;
    size_t used_ = 0;
    size_t cap_ = 0;
};

bool hasWildcard(const char* s) { return std::strpbrk(s, "*?[\\") != nullptr; }

}  // namespace

char* dirGetList(const char* pattern, unsigned flags) {
    if (!pattern || flags != 0) return nullptr;
    std::string dir(std::strlen(pattern) + 1, '\0');
    const char* name = pathSeparateName(pattern, &dir[0], dir.size());
    dir.resize(std::strlen(dir.c_str()));
    const char* dirText = dir.empty() ? "." : dir.c_str();

    NameBlock block;
    if (!hasWildcard(name) && *name) {
        // An exact name: asking for it alone avoids reading a directory of
        // thousands of entries to find one, and gives the same answer as
        // the scan: the directory must be readable, and lstat, because
        // readdir lists a dangling link too. Without search permission the
        // lookup cannot tell, so the scan decides.
        if (::faccessat(AT_FDCWD, dirText, R_OK, AT_EACCESS) != 0) return nullptr;
        std::string full(dir);
        pathConcatName(full, name);
        struct stat st;
        if (::lstat(full.c_str(), &st) == 0) {
            return block.add(name, std::strlen(name)) ? block.finish() : nullptr;
        }
        if (errno != EACCES) return block.finish();
    }

    DIR* d = ::opendir(dirText);
    if (!d) return nullptr;
    bool ok = true;
    while (struct dirent* e = ::readdir(d)) {
        if (::fnmatch(name, e->d_name, 0) == 0 && !block.add(e->d_name, std::strlen(e->d_name))) {
            ok = false;
            break;
        }
    }
    ::closedir(d);
    return ok ? block.finish() : nullptr;
}

int dirListMatching(const std::string& dir, const char* namePattern, bool stopAtFirst,
                    std::vector<std::string>& names) {
    DIR* d = ::opendir(dir.empty() ? "." : dir.c_str());
    if (!d) return errno;
    int err = 0;
    for (;;) {
        // readdir tells its end from its failure only through errno.
        errno = 0;
        struct dirent* e = ::readdir(d);
        if (!e) {
            err = errno;
            break;
        }
        if (std::strcmp(e->d_name, ".") == 0 || std::strcmp(e->d_name, "..") == 0) continue;
        if (::fnmatch(namePattern, e->d_name, 0) != 0) continue;
        names.push_back(e->d_name);
        if (stopAtFirst) break;
    }
    ::closedir(d);
    return err;
}
