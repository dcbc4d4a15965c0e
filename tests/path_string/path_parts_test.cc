// Part queries on ovPathString: reverse part iterators, part boundaries on raw
// text, name and parent ends.
#include <climits>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "orvane/path_string.h"

typedef ovPathString::const_reverse_part_iterator RIter;

namespace {

// "text:length" of the part at rpart(i), "-:length" for an invalid position.
std::string partAt(const ovPathString& p, int i) {
    RIter it = p.rpart(i);
    return (it.valid() ? it.str() : std::string("-")) + ":" + std::to_string(it.length());
}

std::string trimmed(const char* piece, bool first, bool keepTrailingSep) {
    const char* data = piece;
    unsigned long length = std::strlen(piece);
    ovPathString::trimPart_(data, length, first, keepTrailingSep, true);
    return std::string(data, length);
}

}  // namespace

TEST(PathParts, RpartRunsOffTheFrontButNotOffTheEnd) {
    ovPathString abs("/a/b");
    const char* expected[] = {"-:1", "-:1", "/:1", "a:1", "b:1", "/:1", "a:1", "b:1", "b:1", "b:1"};
    for (int i = 4; i >= -5; --i) EXPECT_EQ(expected[4 - i], partAt(abs, i)) << "rpart(" << i << ")";
    EXPECT_EQ("b:1", partAt(abs, INT_MIN));
    EXPECT_EQ("-:1", partAt(abs, INT_MAX));

    ovPathString rel("ab/cde");
    EXPECT_EQ("-:1", partAt(rel, 2));
    EXPECT_EQ("ab:2", partAt(rel, -1));
}

TEST(PathParts, AwkwardPaths) {
    EXPECT_EQ("/:1", partAt(ovPathString("/"), -3));
    EXPECT_EQ("-:1", partAt(ovPathString("/"), 1));
    EXPECT_EQ("-:1", partAt(ovPathString(""), -1));
    EXPECT_EQ("b:1", partAt(ovPathString("/a/b//"), 0));
    ovPathString raw;  // separator runs everywhere, stored verbatim
    {
        ovPathString::normalizer_proxy guard(raw);
        raw.assign("///x////yy///", 13);
    }
    EXPECT_EQ("yy:2", partAt(raw, 0));
    EXPECT_EQ("/:1", partAt(raw, 2));
    EXPECT_EQ("x:1", partAt(raw, -2));
}

TEST(PathParts, ReverseWalkAndStepping) {
    ovPathString p("/usr/local/lib/");
    std::vector<std::string> seen;
    for (RIter it = p.rpartsBegin(); it != p.rpartsEnd() && seen.size() < 10; ++it) seen.push_back(*it);
    EXPECT_EQ((std::vector<std::string>{"lib", "local", "usr", "/"}), seen);

    RIter it = p.rpartsBegin();
    it += 2;
    it += -1;
    EXPECT_EQ("local", it.str());
    EXPECT_EQ(p.c_str() + 11, it.at(p.c_str() + 6, -1));  // from inside a part
    EXPECT_EQ(nullptr, it.at(p.c_str(), 1));

    it.setPos(p.c_str() + p.length());  // the terminating NUL
    EXPECT_EQ(1ul, it.length());
    EXPECT_EQ("", it.str());
    it += 1;
    EXPECT_EQ("lib", it.str());
    it.setPos(nullptr);
    EXPECT_EQ(1ul, it.length());
}

TEST(PathParts, PartBeginsAndTrimmingOnRawText) {
    const char buf[] = "x/a//bc";
    const char* base = buf + 1;  // "/a//bc"
    EXPECT_EQ(base, ovPathString::nextPartBegin(buf, base));  // before the start
    EXPECT_EQ(base + 4, ovPathString::nextPartBegin(base + 1, base));
    EXPECT_EQ(base + 5, ovPathString::nextPartBegin(base + 4, base));  // one byte inside a part
    EXPECT_EQ(base + 6, ovPathString::nextPartBegin(base + 6, base));  // at the NUL
    EXPECT_EQ(buf, ovPathString::thisPartBegin(buf, base));
    EXPECT_EQ(base, ovPathString::thisPartBegin(base, base));  // root
    EXPECT_EQ(base + 4, ovPathString::thisPartBegin(base + 5, base));
    EXPECT_EQ(base + 1, ovPathString::thisPartBegin(base + 1, base));

    EXPECT_EQ("/a/", trimmed("///a///", true, true));
    EXPECT_EQ("a", trimmed("///a///", false, false));
    EXPECT_EQ("/", trimmed("////", true, true));
    EXPECT_EQ("", trimmed("////", true, false));
}

TEST(PathParts, SlashNameAndParent) {
    EXPECT_EQ("/a/", ovPathString("/a").slash());
    EXPECT_EQ("/a/", ovPathString("/a/").slash());
    EXPECT_EQ("", ovPathString("").slash());

    EXPECT_EQ(7ul, ovPathString("/d/file.txt").nameEndIndex());
    EXPECT_EQ(9ul, ovPathString("/d.x/file").nameEndIndex());
    EXPECT_EQ(8ul, ovPathString(".profile").nameEndIndex());
    EXPECT_EQ(3ul, ovPathString("/d/.profile").nameEndIndex());
    EXPECT_EQ(7ul, ovPathString("/d/name.").nameEndIndex());

    EXPECT_EQ(2ul, ovPathString("/d/lock").parentEndIndex(ovExcludePathSep));
    EXPECT_EQ(3ul, ovPathString("/d/lock").parentEndIndex(ovIncludePathSep));
    EXPECT_EQ(0ul, ovPathString("lock").parentEndIndex(ovIncludePathSep));
    EXPECT_EQ(1ul, ovPathString("/lock").parentEndIndex(ovIncludePathSep));
}
