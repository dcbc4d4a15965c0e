// Separator tests and in-place edits of path text. Only "/" separates; the
// set is fixed on purpose so that every layer agrees on what a component is.

#include <cstring>

#include "host/host.h"
#include "orvane/path.h"

ovIsMultiByteLeadFn ovIsMultiByteLead_vector = hostIsMultiByteLead;

bool ovIsPathSep(int c) { return c == '/'; }

bool ovIsPathSepByPtr(const char* p) { return ovIsPathSep(*p); }

ovIsMultiByteLeadFn ovSetIsMultiByteLead(ovIsMultiByteLeadFn f) {
    ovIsMultiByteLeadFn old = ovIsMultiByteLead_vector;
    ovIsMultiByteLead_vector = f;
    return old;
}

void ovReplacePathSeps(char* s, int c) {
    if (!s) return;
    for (; *s; ++s) {
        if (ovIsPathSep(*s)) *s = static_cast<char>(c);
    }
}

const char* ovFindLastSep(const char* begin, const char* last) {
    if (!begin || !last || last < begin) return nullptr;
    for (const char* p = last;; --p) {
        if (ovIsPathSep(*p)) return p;
        if (p == begin) return nullptr;
    }
}

const char* ovFindLastNotSep(const char* begin, const char* last) {
    if (!begin || !last || last < begin) return nullptr;
    for (const char* p = last;; --p) {
        if (!ovIsPathSep(*p)) return p;
        if (p == begin) return nullptr;
    }
}

bool ovAddPathSep(char* s) {
    if (!s) return false;
    size_t n = std::strlen(s);
    if (n == 0 || !ovIsPathSep(s[n - 1])) {
        s[n] = '/';
        s[n + 1] = '\0';
    }
    return true;
}

int ovAddPathSepAt(char* s, size_t pos) {
    if (!s) return 0;
    // Index 0 has nothing before it, so the front always gets a separator:
    // callers add the result to a length and rely on that.
    size_t n = std::strlen(s);
    if (pos > n) return 0;  // past the terminator: nothing to shift into
    if (pos > 0 && ovIsPathSep(s[pos - 1])) return 0;
    std::memmove(s + pos + 1, s + pos, n - pos + 1);
    s[pos] = '/';
    return 1;
}

void ovWashPathSep(char* s) {
    if (!s) return;
    for (; *s; ++s) {
        if (*s == '\\') *s = '/';
    }
}

bool ovIsRootDir(const char* s) { return std::strcmp(s, "/") == 0; }
