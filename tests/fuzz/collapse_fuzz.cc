// ovCollapsePath: lexical clean-up must shorten or keep, be idempotent, give
// the same answer in place, never read beyond the n bytes it was given, and
// leave no empty, "." or ".." component behind.

#include <cstring>
#include <memory>
#include <string>

#include "fuzz_check.h"
#include "orvane/path.h"

namespace {

std::string collapse(const std::string& in) {
    std::unique_ptr<char[]> dst(new char[in.size() + 1]);
    char* r = ovCollapsePath(dst.get(), in.c_str(), in.size());
    FUZZ_CHECK(r == dst.get(), "result is not dst for %s", ovfuzz::show(in).c_str());
    return std::string(r);
}

bool hasDotComponent(const std::string& s) {
    size_t start = 0;
    while (start <= s.size()) {
        size_t end = s.find('/', start);
        if (end == std::string::npos) end = s.size();
        std::string part = s.substr(start, end - start);
        if (part == "." || part == "..") return true;
        start = end + 1;
    }
    return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // An exact-size, unterminated copy: any read past the n bytes is an
    // AddressSanitizer report.
    std::unique_ptr<char[]> src(new char[size ? size : 1]);
    if (size) std::memcpy(src.get(), data, size);
    std::unique_ptr<char[]> dst(new char[size + 1]);
    char* r = ovCollapsePath(dst.get(), src.get(), size);
    FUZZ_CHECK(r == dst.get(), "collapse did not return dst");

    const std::string in(src.get(), strnlen(src.get(), size));
    const std::string out(r);
    const std::string inShown = ovfuzz::show(in), outShown = ovfuzz::show(out);

    FUZZ_CHECK(out.size() <= in.size(), "%s grew to %s", inShown.c_str(), outShown.c_str());
    FUZZ_CHECK(out.find("//") == std::string::npos, "%s gave doubled separator in %s",
               inShown.c_str(), outShown.c_str());
    FUZZ_CHECK(!hasDotComponent(out), "%s kept a dot component: %s", inShown.c_str(),
               outShown.c_str());
    const bool absIn = !in.empty() && in[0] == '/';
    const bool absOut = !out.empty() && out[0] == '/';
    FUZZ_CHECK(absIn == absOut, "%s changed rootedness: %s", inShown.c_str(), outShown.c_str());

    const std::string again = collapse(out);
    FUZZ_CHECK(again == out, "not idempotent: %s -> %s -> %s", inShown.c_str(),
               outShown.c_str(), ovfuzz::show(again).c_str());

    // dst may be src.
    std::unique_ptr<char[]> inPlace(new char[size + 1]);
    if (size) std::memcpy(inPlace.get(), data, size);
    inPlace[size] = '\0';
    ovCollapsePath(inPlace.get(), inPlace.get(), size);
    FUZZ_CHECK(out == inPlace.get(), "in place %s differs from %s",
               ovfuzz::show(inPlace.get()).c_str(), outShown.c_str());

    // A shorter count sees only a prefix: its result is no longer than it.
    if (!in.empty()) {
        const size_t n = in.size() / 2;
        std::unique_ptr<char[]> half(new char[n + 1]);
        ovCollapsePath(half.get(), in.data(), n);
        FUZZ_CHECK(std::strlen(half.get()) <= n, "count %zu ignored for %s", n, inShown.c_str());
    }
    return 0;
}
