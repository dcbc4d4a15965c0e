// Lexical clean-up of a path: no file-system access, no allocation, and safe
// in place (the write position never passes the read position).

#include <cstring>

#include "orvane/path.h"

char* ovCollapsePath(char* dst, const char* src, size_t n) {
    // The input ends at its first NUL or after n bytes, whichever comes first.
    const char* in = src;
    const char* end = src + strnlen(src, n);
    char* out = dst;
    while (in < end) {
        const char* slash = static_cast<const char*>(std::memchr(in, '/', static_cast<size_t>(end - in)));
        const char* segEnd = slash ? slash + 1 : end;  // the segment keeps its "/"
        const size_t nameLen = static_cast<size_t>((slash ? slash : end) - in);

        if (nameLen == 1 && in[0] == '.') {
            // "." names the directory we are in: drop it.
        } else if (nameLen == 2 && in[0] == '.' && in[1] == '.') {
            // Step back one component. The first byte is never given up, so
            // a leading "/" survives ("/.." stays "/"); a relative path with
            // nothing left to remove simply loses the "..".
            while (out > dst + 1 && out[-1] == '/') --out;
            while (out > dst && out[-1] != '/') --out;
        } else {
            const size_t segLen = static_cast<size_t>(segEnd - in);
            if (out != in) std::memmove(out, in, segLen);
            out += segLen;
        }
        in = segEnd;
        while (in < end && *in == '/') ++in;
    }
    *out = '\0';
    return dst;
}
