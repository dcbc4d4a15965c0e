// ovCanonicalizePath: whatever the text and the output size, the answer is
// NUL-terminated inside the buffer, absolute once the current directory fits,
// free of "//", "." and ".." components, and canonical: canonicalizing it
// again changes nothing but a trailing separator.

#include <limits.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <memory>
#include <string>

#include "fuzz_check.h"
#include "fuzz_tree.h"
#include "orvane/path.h"

namespace {

std::string cwdText;

bool hasBadComponent(const std::string& s) {
    if (s.find("//") != std::string::npos) return true;
    size_t start = 0;
    while (start <= s.size()) {
        size_t end = s.find('/', start);
        if (end == std::string::npos) end = s.size();
        const std::string part = s.substr(start, end - start);
        if (part == "." || part == "..") return true;
        start = end + 1;
    }
    return false;
}

bool hasDotDot(const std::string& s) {
    for (size_t p = s.find(".."); p != std::string::npos; p = s.find("..", p + 1)) {
        if ((p == 0 || s[p - 1] == '/') && (p + 2 == s.size() || s[p + 2] == '/')) return true;
    }
    return false;
}

std::string withoutTrailingSep(std::string s) {
    while (s.size() > 1 && s.back() == '/') s.pop_back();
    return s;
}

std::string canonical(const std::string& text) {
    std::unique_ptr<char[]> dst(new char[PATH_MAX]);
    return ovCanonicalizePath(dst.get(), PATH_MAX, text.c_str(), text.size());
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    const std::string& root = ovfuzz::makeTree();
    if (chdir(root.c_str()) != 0) std::abort();
    cwdText = root;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    ovfuzz::Input in(data, size);
    const uint8_t sizeChoice = in.byte();
    const uint8_t terminate = in.byte();
    const std::string text = in.rest();

    size_t dstSize;
    switch (sizeChoice % 4) {
        case 0: dstSize = PATH_MAX; break;
        case 1: dstSize = 1 + sizeChoice / 4; break;                // tiny
        case 2: dstSize = cwdText.size() + sizeChoice / 16; break;  // around the cwd
        default: dstSize = 64 + sizeChoice; break;
    }
    const size_t bufSize = std::max<size_t>(dstSize, PATH_MAX);

    // Unterminated input is allowed up to 2561 bytes; the byte after the
    // given length is still read to find that out.
    const bool unterminated = (terminate & 1) && text.size() <= 2561;
    std::unique_ptr<char[]> src(new char[text.size() + 1]);
    std::memcpy(src.get(), text.data(), text.size());
    src[text.size()] = unterminated ? 'Z' : '\0';

    std::unique_ptr<char[]> dst(new char[bufSize]);
    std::memset(dst.get(), 'Q', bufSize);
    char* r = ovCanonicalizePath(dst.get(), dstSize, src.get(), text.size());
    FUZZ_CHECK(r == dst.get(), "result is not dst");
    const size_t len = strnlen(r, bufSize);
    FUZZ_CHECK(len < bufSize, "no terminator inside the %zu-byte buffer", bufSize);
    const std::string out(r, len);
    const std::string inShown = ovfuzz::show(text), outShown = ovfuzz::show(out);

    if (dstSize > cwdText.size() + 1) {
        FUZZ_CHECK(!out.empty() && out[0] == '/', "%s (size %zu) gave relative %s",
                   inShown.c_str(), dstSize, outShown.c_str());
    }
    FUZZ_CHECK(!hasBadComponent(out), "%s gave uncollapsed %s", inShown.c_str(), outShown.c_str());

    // Results that fit comfortably are fixed points (up to a trailing "/",
    // which the lexical fallback keeps and the resolver drops). Not after a
    // ".." that the fallback removed lexically: it may have stepped over a
    // symbolic link that a second pass then resolves.
    // Nor with white space in the input: trailing white space is seen by the
    // resolver and dropped only on the fallback path, on purpose, so "/lib\t"
    // gives "/lib" there while "/lib" itself resolves further.
    const bool hasSpace = std::any_of(text.begin(), text.end(),
                                      [](char c) { return std::isspace(static_cast<unsigned char>(c)); });
    if (dstSize == PATH_MAX && !hasDotDot(text) && !hasSpace && len < 1024 && !out.empty() &&
        out[0] == '/') {
        const std::string again = canonical(out);
        FUZZ_CHECK(withoutTrailingSep(again) == withoutTrailingSep(out),
                   "not canonical: %s -> %s -> %s", inShown.c_str(), outShown.c_str(),
                   ovfuzz::show(again).c_str());
    }
    return 0;
}
