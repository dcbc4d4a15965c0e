// Canonical absolute path of any text: realpath when the whole path exists,
// else the longest existing prefix resolved and the rest appended, then "~"
// expansion and the current directory for relative text, and finally a
// lexical collapse. Never fails. All scratch space is on the stack, and every
// write into the caller's buffer is bounded by dstSize, since realpath itself
// would write up to PATH_MAX bytes.

#include <limits.h>
#include <stdlib.h>

#include <algorithm>
#include <cctype>
#include <cstring>

#include "host/host.h"
#include "orvane/path.h"

namespace {

// Each scratch buffer takes a whole PATH_MAX result plus terminator (and so
// more than the 2561 bytes the callers' paths are limited to).
constexpr size_t kScratch = PATH_MAX + 1;

bool isSpace(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }

// dst gets at most dstSize-1 bytes of s and always a terminator.
void copyBounded(char* dst, size_t dstSize, const char* s, size_t n) {
    n = std::min(n, dstSize - 1);
    std::memmove(dst, s, n);
    dst[n] = '\0';
}

// Appends s to the terminated text in buf (capacity cap), cutting what does
// not fit.
void appendBounded(char* buf, size_t cap, const char* s) {
    size_t used = std::strlen(buf);
    copyBounded(buf + used, cap - used, s, std::strlen(s));
}

// Removes a last component that is "." or "..", keeping its separator.
void dropDotTail(char* s) {
    char* last = std::strrchr(s, '/');
    if (!last) return;
    if (std::strcmp(last + 1, ".") == 0 || std::strcmp(last + 1, "..") == 0) last[1] = '\0';
}

}  // namespace

char* ovCanonicalizePath(char* dst, size_t dstSize, const char* src, size_t srcLen) {
    if (!dst || dstSize == 0) return dst;
    if (!src) srcLen = 0, src = "";

    // The input ends at its first NUL or after srcLen bytes; nothing past
    // either is ever read. A terminated copy makes it usable by realpath.
    const size_t n = strnlen(src, srcLen);
    char work[kScratch];
    const char* start = src;
    bool lookupWhole = n < srcLen;  // terminated where it lies
    if (n < sizeof work) {
        std::memcpy(work, src, n);
        work[n] = '\0';
        start = work;
        lookupWhole = true;
    }
    const char* end = start + n;

    // White space goes from both ends; the end only by length, so the first
    // realpath below still sees trailing white space. Only the fallback drops
    // it: a name that really ends in a space resolves as itself.
    while (start < end && isSpace(*start)) ++start;
    while (end > start && isSpace(end[-1])) --end;
    const char* text = start;
    size_t len = static_cast<size_t>(end - start);
    if (len == 0) {
        text = ".";
        len = 1;
    }

    char resolved[2 * kScratch];
    if (lookupWhole && ::realpath(text, resolved)) {
        const size_t n = std::strlen(resolved);
        copyBounded(dst, dstSize, resolved, n);
        // A cut can leave "." or ".." of a longer name (".hidden"); that must
        // not read as a step, so it goes.
        if (n >= dstSize) dropDotTail(dst);
        return dst;
    }

    // Resolve the longest existing prefix: cut at each "/" from the back.
    copyBounded(dst, dstSize, text, len);
    char* cut = nullptr;
    for (;;) {
        char* slash = std::strrchr(dst, '/');  // dst still ends at the last cut
        if (!slash) break;
        if (cut) *cut = '/';
        cut = slash;
        const bool root = slash == dst;
        char saved = '\0';
        if (root) {
            // The prefix of "/x" is "/" itself: cut after the separator.
            saved = dst[1];
            dst[1] = '\0';
        } else {
            *slash = '\0';
        }
        const bool found = ::realpath(dst, resolved) != nullptr;
        if (root) dst[1] = saved;
        if (found) {
            ovAddPathSep(resolved);
            appendBounded(resolved, sizeof resolved, slash + 1);
            text = resolved;
            len = std::strlen(resolved);
            break;
        }
        if (root) break;  // nothing above the root to try
    }

    char home[kScratch];
    if (text[0] == '~') {
        const char* expanded = pathTildeExpand(text, len, home, sizeof home);
        if (expanded != text) {
            text = expanded;
            len = std::strlen(expanded);
        }
    }

    if (!pathIsAbsolute(text) && hostGetcwd(dst, dstSize)) {
        const size_t cwdLen = std::strlen(dst);
        if (dstSize > cwdLen + 1) {
            const size_t pos = cwdLen + static_cast<size_t>(ovAddPathSepAt(dst, cwdLen));
            const size_t m = std::min(len, dstSize - pos - 1);
            std::memmove(dst + pos, text, m);
            dst[pos + m] = '\0';
            dst[dstSize - 1] = '\0';
            len += pos;
            text = dst;
        }
    }

    return ovCollapsePath(dst, text, std::min(len, dstSize - 1));
}
