#include "path/path_parts.h"

#include <functional>

#include "orvane/path.h"

namespace detail {
namespace {

bool isSep(char c) { return ovIsPathSep(c); }

// Pointer order without assuming the two share an array (null sorts first).
bool before(const char* p, const char* base) { return std::less<const char*>()(p, base); }

bool isRoot(const char* base, const char* p) { return p == base && isSep(*base); }

}  // namespace

unsigned long partLength(const char* base, const char* p) {
    if (p == nullptr || before(p, base) || *p == '\0' || isRoot(base, p)) return 1;
    const char* q = p;
    while (*q != '\0' && !isSep(*q)) ++q;
    return static_cast<unsigned long>(q - p);
}

const char* nextPartBegin(const char* p, const char* base) {
    if (p == nullptr || before(p, base)) return base;
    if (*p == '\0') return p;
    ++p;
    while (*p != '\0' && isSep(*p)) ++p;
    return p;
}

const char* thisPartBegin(const char* p, const char* base) {
    if (p == nullptr || before(p, base) || *p == '\0') return p;
    if (isRoot(base, p)) return base;
    // The byte after the last separator before p; for an absolute path that
    // is at worst the byte after the root, for a relative one the start.
    for (const char* q = p; q != base; --q) {
        if (isSep(q[-1])) return q;
    }
    return base;
}

void trimPart(const char*& data, unsigned long& length, bool first, bool keepTrailingSep) {
    if (data == nullptr) {
        length = 0;
        return;
    }
    if (first) {
        // The piece that begins a path keeps its root, once.
        while (length >= 2 && isSep(data[0]) && isSep(data[1])) {
            ++data;
            --length;
        }
    } else {
        while (length > 0 && isSep(data[0])) {
            ++data;
            --length;
        }
    }
    unsigned long keep = length;
    while (keep > 0 && isSep(data[keep - 1])) --keep;
    if (keepTrailingSep && keep < length) ++keep;  // one separator of the run stays
    length = keep;
}

const char* previousPart(const char* base, const char* p) {
    if (p == nullptr || before(p, base)) return nullptr;
    const char* begin = *p == '\0' ? p : thisPartBegin(p, base);
    if (begin == base) return nullptr;  // already on the first part
    const char* q = begin - 1;
    while (isSep(*q)) {
        if (q == base) return base;  // only separators in front: the root part
        --q;
    }
    return thisPartBegin(q, base);
}

const char* followingPart(const char* base, const char* p) {
    if (p == nullptr || before(p, base)) return *base != '\0' ? base : nullptr;
    if (*p == '\0') return p;
    const char* q = thisPartBegin(p, base);
    if (isRoot(base, q)) {
        ++q;
    } else {
        while (*q != '\0' && !isSep(*q)) ++q;
    }
    while (*q != '\0' && isSep(*q)) ++q;
    // Past the last part: stay where we were.
    return *q == '\0' ? thisPartBegin(p, base) : q;
}

const char* stepParts(const char* base, const char* p, long long n) {
    for (; n > 0; --n) {
        const char* next = previousPart(base, p);
        if (next == nullptr) return nullptr;  // further steps stay in front
        p = next;
    }
    for (; n < 0; ++n) {
        const char* next = followingPart(base, p);
        if (next == p) break;  // stuck on the last part (or at the end)
        if (next == nullptr) return nullptr;  // empty text: no parts at all
        p = next;
    }
    return p;
}

}  // namespace detail
