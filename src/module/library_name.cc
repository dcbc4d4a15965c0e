#include "module/library_name.h"

#include <cstring>

#include "orvane/path.h"

namespace detail {

const char* fileNameOf(const char* path) {
    const char* name = path;
    for (const char* p = path; *p; ++p) {
        if (ovIsPathSep(static_cast<unsigned char>(*p))) name = p + 1;
    }
    return name;
}

bool isPlatformLibraryName(const char* path) {
    const char* name = fileNameOf(path);
    const char* end = name + std::strlen(name);
    // Walk back over ".N" groups; what precedes them must be ".so". A group
    // needs at least one digit, so "libx.so." and "libx.so..1" do not count.
    const char* p = end;
    for (;;) {
        const char* digits = p;
        while (digits > name && digits[-1] >= '0' && digits[-1] <= '9') --digits;
        if (digits == p || digits == name || digits[-1] != '.') break;
        p = digits - 1;  // on the "." before the group
    }
    return p - name >= 3 && std::memcmp(p - 3, ".so", 3) == 0;
}

bool fileNameContains(const char* path, const char* what) {
    return std::strstr(fileNameOf(path), what) != nullptr;
}

int libraryNameScore(const char* path) {
    int score = fileNameContains(path, ".dylib") || isPlatformLibraryName(path) ? 2 : 0;
    if (fileNameContains(path, ".jnilib")) score += 1;
    return score;
}

}  // namespace detail
