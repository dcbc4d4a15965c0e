#ifndef ORVANE_FUZZ_CHECK_H
#define ORVANE_FUZZ_CHECK_H

// Property checks for the fuzz targets: a failed property prints what was
// expected and aborts, so that libFuzzer keeps the input as a crash.

#include <stddef.h>
#include <stdint.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#define FUZZ_CHECK(cond, ...)                                                  \
    do {                                                                       \
        if (!(cond)) {                                                         \
            std::fprintf(stderr, "property failed: %s (%s:%d)\n", #cond,       \
                         __FILE__, __LINE__);                                  \
            std::fprintf(stderr, __VA_ARGS__);                                 \
            std::fprintf(stderr, "\n");                                        \
            std::abort();                                                      \
        }                                                                      \
    } while (0)

namespace ovfuzz {

// Reads a fuzz input piecewise: small numbers for choices, then text.
class Input {
public:
    Input(const uint8_t* data, size_t size) : p_(data), end_(data + size) {}

    bool empty() const { return p_ == end_; }
    size_t left() const { return static_cast<size_t>(end_ - p_); }

    uint8_t byte() { return p_ == end_ ? 0 : *p_++; }

    // A piece of text: a length byte, then up to that many bytes.
    std::string text() {
        size_t n = byte();
        if (n > left()) n = left();
        std::string s(reinterpret_cast<const char*>(p_), n);
        p_ += n;
        return s;
    }

    std::string rest() {
        std::string s(reinterpret_cast<const char*>(p_), left());
        p_ = end_;
        return s;
    }

private:
    const uint8_t* p_;
    const uint8_t* end_;
};

// Printable form of a byte string for failure messages.
inline std::string show(const std::string& s) {
    std::string out = "\"";
    for (unsigned char c : s) {
        if (c >= 0x20 && c < 0x7f && c != '"' && c != '\\') {
            out += static_cast<char>(c);
        } else {
            char buf[8];
            std::snprintf(buf, sizeof buf, "\\x%02x", c);
            out += buf;
        }
    }
    return out + "\"";
}

}  // namespace ovfuzz

#endif
