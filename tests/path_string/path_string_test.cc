// ovPathString: normalizing construction and edits, joining with one
// separator between components, bundles, and detaching the normalizer.
#include <sstream>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "orvane/path_string.h"

typedef ovPathString::bundle_type Bundle;

namespace {

// raw: the normalizer is detached, so the join rules show unfiltered.
std::string appended(const char* start, const Bundle& parts, bool raw = false) {
    ovPathString p(start);
    if (!raw) return p.append(parts).str();
    ovPathString::normalizer_proxy guard(p);
    return p.append(parts).str();
}

}  // namespace

TEST(PathString, JoinPutsOneSeparatorBetweenComponents) {
    EXPECT_EQ("/a/b", appended("/a", "b"));
    EXPECT_EQ("/a/b/", appended("/a/", "/b/"));
    EXPECT_EQ("/a/b/c", appended("/a", Bundle("b").add("c")));
    EXPECT_EQ("a/b", appended("a", "b"));
    EXPECT_EQ("/dir/", appended("/dir", "//", true));  // the part adds nothing but its separator
    EXPECT_EQ("/dir/", appended("/dir", "", true));
    EXPECT_EQ("/dir/x/", appended("/dir", "///x///", true));
    EXPECT_EQ("/a/", appended("", "///a///", true));  // the first part keeps one root "/"
    EXPECT_EQ("/x", appended("", Bundle("").add("//x"), true));  // still empty: still first
    EXPECT_EQ("a/ b /c", appended("a", Bundle(" b ").add("c"), true));
}

TEST(PathString, BundlesChainCacheLengthsAndMayAliasThePath) {
    Bundle b("/root");
    EXPECT_EQ(&b, &b.add("x").add("yzzz", 1).add(static_cast<const char*>(nullptr)));
    EXPECT_EQ("/root/x/y/", ovPathString(b).str());
    EXPECT_EQ(5ul, b.parts()[0].length);  // measured once, then kept
    ovPathString q("/q");
    EXPECT_EQ(q.c_str(), Bundle(q).parts()[0].data);  // a view, not a copy
    EXPECT_EQ("/base/q", ovPathString("/base").append(q).str());

    // Long enough that growing the text must move the bytes a part points at.
    const std::string n = "/0123456789abcdefghij";
    ovPathString p(n);
    p.append(Bundle(p.c_str() + 1).add(p.c_str()));
    EXPECT_EQ(n + n + n, p.str());
    EXPECT_EQ("012", p.assign(Bundle(p.c_str() + 1, 3)).str());
    EXPECT_EQ("1", p.assign(p.c_str() + 1, 1).str());
}

TEST(PathString, ConstructionAssignmentAndEraseNormalize) {
    EXPECT_EQ("/tmp/x/", ovPathString("  /tmp//x/  ").str());
    EXPECT_EQ("/tmp/x", ovPathString(std::string("/tmp///x")).str());
    EXPECT_EQ("", ovPathString(static_cast<const char*>(nullptr)).str());
    ovPathString p;
    EXPECT_EQ("/a", p.assign(" //a", 4).str());
    EXPECT_THROW(p.assign(nullptr, 3), std::invalid_argument);
    EXPECT_EQ("/a", p.str());
    p.assign("ab\0cd", 5);
    std::ostringstream os;
    os << p << "|";
    EXPECT_EQ("ab|", os.str());  // streamed up to the first NUL

    ovPathString q("/a/b");
    EXPECT_EQ("/b", q.erase(1, 1).str());  // "//b" is not kept
    EXPECT_EQ("/", q.erase(1, 1000).str());
    EXPECT_THROW(q.erase(5, 1), std::out_of_range);
    EXPECT_EQ("/", q.str());
}

TEST(PathString, ProxyDetachesAndAlwaysReattaches) {
    ovPathString p("/a");
    {
        ovPathString::normalizer_proxy guard(p);
        EXPECT_EQ("//x//", p.assign("//x//", 5).str());  // verbatim while detached
        guard.normalize();
        EXPECT_EQ("/x/", p.str());
        p.assign(" //y", 4);
    }
    EXPECT_EQ(" //y", p.str());  // ending the guard does not normalize
    EXPECT_EQ("/y/z", p.append("z").str());  // but the normalizer is back
}
