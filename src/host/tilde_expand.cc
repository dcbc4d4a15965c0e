#include <pwd.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstring>
#include <vector>

#include "host/host.h"

namespace {

// Home directory of the named user (the calling user when name is empty),
// or false. The reentrant lookup keeps us safe beside other threads.
bool homeOf(const std::string& name, std::string& home) {
    if (name.empty()) {
        if (const char* h = ::getenv("HOME")) {
            if (*h) {
                home = h;
                return true;
            }
        }
    }
    long hint = ::sysconf(_SC_GETPW_R_SIZE_MAX);
    std::vector<char> buf(hint > 0 ? static_cast<size_t>(hint) : 16384);
    struct passwd pw;
    struct passwd* found = nullptr;
    int rc = name.empty() ? ::getpwuid_r(::getuid(), &pw, buf.data(), buf.size(), &found)
                          : ::getpwnam_r(name.c_str(), &pw, buf.data(), buf.size(), &found);
    if (rc != 0 || !found || !found->pw_dir) return false;
    home = found->pw_dir;
    return true;
}

}  // namespace

const char* pathTildeExpand(const char* path, size_t len, char* out, size_t outSize) {
    if (!path || len == 0 || path[0] != '~' || !out) return path;
    const char* end = path + len;
    const char* nameEnd = static_cast<const char*>(std::memchr(path, '/', len));
    if (!nameEnd) nameEnd = end;
    std::string home;
    if (!homeOf(std::string(path + 1, nameEnd), home)) return path;
    // A home of "/" followed by "/rest" would give "//rest".
    if (home.size() > 1 && home.back() == '/') home.pop_back();
    if (home == "/" && nameEnd != end) home.clear();
    size_t rest = static_cast<size_t>(end - nameEnd);
    if (home.size() + rest + 1 > outSize) return path;
    std::memcpy(out, home.data(), home.size());
    std::memcpy(out + home.size(), nameEnd, rest);
    out[home.size() + rest] = '\0';
    return out;
}
