// The temporary directory and fresh names in it: "tp" and six digits.

#include <limits.h>
#include <stdlib.h>
#include <sys/time.h>

#include <atomic>
#include <cstring>

#include "orvane/path.h"

namespace {

// The directory text is kept short enough that the directory plus
// "tpNNNNNN" and the terminator always fit in PATH_MAX bytes.
constexpr size_t kNameTail = 8;  // "tp" + six digits
char tempDirText[PATH_MAX - kNameTail];

const char* fillTempDir() {
    const char* tmp = ::getenv("TMP");
    if (!tmp) tmp = "/tmp";
    size_t n = std::strlen(tmp);
    const size_t withSep = n + ((n > 0 && ovIsPathSep(tmp[n - 1])) ? 0 : 1);
    // A value with no room for its separator and terminator would have to be
    // cut, naming some other directory: use the default instead.
    if (withSep + 1 > sizeof tempDirText) {
        tmp = "/tmp";
        n = 4;
    }
    std::memcpy(tempDirText, tmp, n);
    tempDirText[n] = '\0';
    ovAddPathSep(tempDirText);
    return tempDirText;
}

std::atomic<uint64_t> tempNameCounter{0};

// "tp" and n as six zero-padded digits, terminated.
void writeName(char* out, uint64_t n) {
    out[0] = 't';
    out[1] = 'p';
    for (int i = 7; i >= 2; --i) {
        out[i] = static_cast<char>('0' + n % 10);
        n /= 10;
    }
    out[kNameTail] = '\0';
}

}  // namespace

const char* ovGetTempDir(void) {
    // Read once; later changes of the environment are not seen.
    static const char* const dir = fillTempDir();
    return dir;
}

char* ovGetTempName(char* buf) {
    if (!buf) return buf;
    const uint64_t c = ++tempNameCounter;
    struct timeval tv;
    ::gettimeofday(&tv, nullptr);
    const uint64_t t = static_cast<uint64_t>(tv.tv_sec) * 1000000u + static_cast<uint64_t>(tv.tv_usec) + c;
    // The buffer's address tells apart two threads calling in the same
    // microsecond; the counter tells apart two calls of one thread.
    const int64_t a = static_cast<int64_t>(reinterpret_cast<intptr_t>(buf));
    uint64_t s = t * 131073u + (static_cast<uint64_t>(a) << 7) + static_cast<uint64_t>(a >> 21);

    const char* dir = ovGetTempDir();
    const size_t dirLen = std::strlen(dir);
    std::memcpy(buf, dir, dirLen);
    char* tail = buf + dirLen;
    // Every one of the million names taken would be the only way to loop
    // forever; after that many tries the last name is returned as it is.
    for (unsigned tries = 0; tries < 1000000u; ++tries) {
        ++s;
        writeName(tail, s % 1000000u);
        if (!ovFileOrDirExists(buf)) break;
    }
    return buf;
}
