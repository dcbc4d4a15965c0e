// Recursive directory creation.

#include <sys/stat.h>

#include <string>

#include "orvane/path.h"
#include "orvane/path_string.h"

bool ovMkdirP(const char* path) {
    if (!path || !*path) return false;
    const ovPathString normalized(path);
    const std::string& text = normalized.str();
    if (text.empty()) return false;  // white space only

    // Each prefix that ends where a part ends: "/a", "/a/b", "/a/b/c".
    std::string prefix;
    prefix.reserve(text.size());
    for (size_t i = 0; i <= text.size(); ++i) {
        const bool partEnds = i == text.size() || (ovIsPathSep(text[i]) && i > 0);
        if (partEnds && !prefix.empty() && !ovIsPathSep(prefix.back()) && !ovIsDirectory(prefix.c_str())) {
            // No retry when mkdir fails, whatever the reason: a directory that
            // another process made between the test and here fails the call
            // too, and the caller decides what that means.
            if (::mkdir(prefix.c_str(), 0775) != 0) return false;
        }
        if (i < text.size()) prefix.push_back(text[i]);
    }
    return true;
}
