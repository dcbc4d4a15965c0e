// The well-formed normalizer: separator runs collapsed, white space trimmed at
// both ends, checked against the rules applied literally.
#include <random>
#include <string>

#include <gtest/gtest.h>

#include "orvane/path_string.h"

namespace {

const std::string kSpaces(" \t\v\b\n\r\f");

std::string normalized(const std::string& text) {
    return ovPathString().assign(text.data(), text.size()).str();
}

// The rules applied literally, one erase at a time, until nothing changes.
std::string reference(std::string s) {
    for (;;) {
        std::string::size_type pos = s.find("//");
        if (pos != std::string::npos) {
            s.erase(pos, 1);
        } else if (!s.empty() && kSpaces.find(s.front()) != std::string::npos) {
            s.erase(0, 1);
        } else if (!s.empty() && kSpaces.find(s.back()) != std::string::npos) {
            s.pop_back();
        } else {
            return s;
        }
    }
}

}  // namespace

TEST(WellFormedNormalizer, SpaceSetIsExactlyTheSevenBytesBackspaceIncluded) {
    for (int c = 1; c < 256; ++c) {
        if (c == '/') continue;
        const std::string padded = std::string(1, char(c)) + "/x" + std::string(1, char(c));
        EXPECT_EQ(kSpaces.find(char(c)) != std::string::npos ? "/x" : padded, normalized(padded)) << "byte " << c;
    }
    EXPECT_EQ("/", normalized(std::string(10000, '/')));
}

TEST(WellFormedNormalizer, RandomTextMatchesTheLiteralRules) {
    const char alphabet[] = {'/', '/', '/', 'a', '.', ' ', '\t', '\b', '\n', '\x01', '\\', '\0', '\xff'};
    std::mt19937 rng(20261123);
    std::uniform_int_distribution<int> pick(0, sizeof(alphabet) - 1), len(0, 40);
    for (int i = 0; i < 20000; ++i) {
        std::string in;
        for (int n = len(rng); n > 0; --n) in.push_back(alphabet[pick(rng)]);
        const std::string out = normalized(in);
        ASSERT_EQ(reference(in), out) << "input #" << i;
        ASSERT_EQ(out, normalized(out));  // idempotent
    }
}
