#ifndef ORVANE_PATH_PATH_PARTS_H
#define ORVANE_PATH_PATH_PARTS_H

// Part arithmetic over NUL-terminated path text, shared by the path class's
// queries and iterators. Positions are pointers into the text; null is the
// invalid position before the start, the terminating NUL the one at the end.

namespace detail {

// Length of the part at p: 1 for an invalid position and for the root "/",
// otherwise the bytes up to the next separator or the end.
unsigned long partLength(const char* base, const char* p);

const char* nextPartBegin(const char* p, const char* base);
const char* thisPartBegin(const char* p, const char* base);
void trimPart(const char*& data, unsigned long& length, bool first, bool keepTrailingSep);

// One part towards the front from the part holding p (from the end position:
// the last part); null once in front of the first part.
const char* previousPart(const char* base, const char* p);
// One part towards the end; the first part from null; stays on the last part.
const char* followingPart(const char* base, const char* p);
// previousPart / followingPart applied |n| times (n > 0 towards the front).
const char* stepParts(const char* base, const char* p, long long n);

}  // namespace detail

#endif
