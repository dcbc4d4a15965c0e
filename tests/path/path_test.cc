// Path text, single files, temporary names and directory trees.
#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "orvane/path.h"
#include "test_support.h"

// The library's gettimeofday and mkdir resolve to these; unarmed, they pass
// straight to the kernel.
namespace {
bool clockFixed = false;
long fixedUsec = 0;
std::string racePath;  // the next mkdir of this path is beaten to it
}  // namespace

extern "C" int gettimeofday(struct timeval* tv, void* tz) noexcept {
    if (!clockFixed) return static_cast<int>(::syscall(SYS_gettimeofday, tv, tz));
    tv->tv_sec = 0;
    tv->tv_usec = fixedUsec;
    return 0;
}

extern "C" int mkdir(const char* path, mode_t mode) noexcept {
    if (!racePath.empty() && racePath == path) {
        racePath.clear();
        ::syscall(SYS_mkdirat, AT_FDCWD, path, mode);
    }
    return static_cast<int>(::syscall(SYS_mkdirat, AT_FDCWD, path, mode));
}

namespace {

std::string collapse(const std::string& in) {
    std::vector<char> out(in.size() + 1);
    return ovCollapsePath(out.data(), in.c_str(), in.size());
}

std::string canonical(const std::string& in, size_t dstSize = PATH_MAX) {
    std::vector<char> out(dstSize);
    return ovCanonicalizePath(out.data(), dstSize, in.data(), in.size());
}

std::string real(const std::string& p) {
    char buf[PATH_MAX];
    return ::realpath(p.c_str(), buf) ? buf : "";
}

// The component-stack reading of collapse, written independently.
std::string referenceCollapse(const std::string& in) {
    std::vector<std::string> parts;
    std::string c, last;
    std::istringstream s(in);
    while (std::getline(s, c, '/')) {
        if (c == ".." && !parts.empty()) parts.pop_back();
        if (!c.empty() && c != "." && c != "..") parts.push_back(c);
        if (!c.empty()) last = c;
    }
    std::string out = !in.empty() && in[0] == '/' ? "/" : "";
    for (size_t k = 0; k < parts.size(); ++k) out += (k ? "/" : "") + parts[k];
    const bool trailing = (!in.empty() && in.back() == '/') || last == "." || last == "..";
    return !parts.empty() && trailing ? out + "/" : out;
}

TEST(PathText, SeparatorEditsAndCollapseKeepTheirQuirks) {
    char s[16] = "abc";
    EXPECT_EQ(1, ovAddPathSepAt(s, 0));  // nothing precedes index 0, yet it counts
    EXPECT_EQ(0, ovAddPathSepAt(s, 9));  // past the terminator
    EXPECT_STREQ("/abc", s);

    const char* cases[][2] = {{"/a/./b//../c", "/a/c"}, {"a/..", ""},       {"/../..", "/"},
                              {"//a", "/a"},            {"/a/b/.", "/a/b/"}, {"/a/b/..", "/a/"},
                              {"../a", "a"},            {"a/../../b", "b"}, {".../.x", ".../.x"}};
    for (auto& c : cases) EXPECT_EQ(c[1], collapse(c[0])) << c[0];
    char buf[] = "/a/../b/c";  // only n bytes count, and in place
    EXPECT_STREQ("/b", ovCollapsePath(buf, buf, 7));
}

TEST(PathText, CollapseAgreesWithReferenceOnRandomPaths) {
    const char* pieces[] = {"a", "bc", ".", "..", "...", ".x", "/", "//"};
    std::mt19937 rng(20240611);
    for (int iter = 0; iter < 5000; ++iter) {
        std::string in;
        for (int k = rng() % 9; k > 0; --k) in += pieces[rng() % 8] + std::string(rng() % 3 ? "/" : "");
        const std::string out = collapse(in);
        ASSERT_EQ(referenceCollapse(in), out) << '"' << in << '"';
        ASSERT_EQ(out, collapse(out)) << in;  // a fixed point
        ASSERT_LE(out.size(), in.size());
    }
}

TEST(PathText, CanonicalizeResolvesWhatExistsKeepsTheRestAndStaysInItsBuffers) {
    ovtest::TempDir t;
    const std::string base = real(t.path());
    ASSERT_EQ(0, ::mkdir(t.file("real").c_str(), 0755));
    ASSERT_EQ(0, ::symlink("real", t.file("link").c_str()));
    ovtest::writeFile(t.file("x "));  // a name that really ends in a space

    EXPECT_EQ(base + "/real/not/yet", canonical("  " + t.file("link/not/../not/yet") + "\t"));
    // The first lookup sees trailing white space; the fallback drops it.
    EXPECT_EQ(base + "/x ", canonical(t.file("x ")));
    EXPECT_EQ(base + "/missing", canonical(t.file("missing  ")));
    EXPECT_EQ("/no/such/thing", canonical("/no/such//./thing"));
    EXPECT_EQ(real("/root") + "/no-such-zz", canonical("~root/no-such-zz"));

    std::vector<char> dst(16, '#');  // realpath would write PATH_MAX bytes; we write 8
    ovCanonicalizePath(dst.data(), 8, t.path().c_str(), t.path().size());
    EXPECT_EQ(real(t.path()).substr(0, 7), dst.data());
    EXPECT_EQ(std::string(8, '#'), std::string(dst.begin() + 8, dst.end()));
    ASSERT_EQ(0, ::mkdir(t.file("..hidden").c_str(), 0755));  // a cut never leaves the ".." of a longer name
    EXPECT_EQ(base + "/", canonical(t.file("..hidden"), base.size() + 4));

    // Unterminated inputs, short and beyond both 2561 bytes and PATH_MAX,
    // exactly sized on the heap so the sanitizers catch a read past them.
    const char shortSrc[] = {'/', 't', 'm', 'p', 'X'};
    std::vector<char> out(8192);
    EXPECT_EQ(real("/tmp"), ovCanonicalizePath(out.data(), out.size(), shortSrc, 4));
    std::string longText;
    while (longText.size() < 5000) longText += "/no-such-dir";
    std::unique_ptr<char[]> exact(new char[longText.size()]);
    std::memcpy(exact.get(), longText.data(), longText.size());
    EXPECT_EQ(longText, ovCanonicalizePath(out.data(), out.size(), exact.get(), longText.size()));
    EXPECT_EQ(longText.substr(0, 2999), ovCanonicalizePath(out.data(), 3000, exact.get(), longText.size()));
}

TEST(FileQueries, AvailableSpaceCountsAllFreeBlocks) {
    ovtest::TempDir t;
    uint64_t bytes = 0;
    EXPECT_FALSE(ovGetFileSystemAvailableSpace(t.file("missing").c_str(), &bytes));
    EXPECT_EQ(UINT64_MAX, bytes);
    // All free blocks (the superuser's reserve too) times f_bsize; others
    // write meanwhile, so allow slack.
    struct statvfs v;
    ASSERT_TRUE(ovGetFileSystemAvailableSpace(t.path().c_str(), &bytes));
    ASSERT_EQ(0, ::statvfs(t.path().c_str(), &v));
    EXPECT_NEAR(double(v.f_bfree) * v.f_bsize, double(bytes), 64.0 * 1024 * 1024);
    EXPECT_EQ(0u, bytes % v.f_bsize);
}

TEST(TempNames, DirectoryComesFromTmpOnceAndIsBounded) {
    // TMP is read once per process, so each case runs in a fresh child.
    const std::string fits(PATH_MAX - 10, 'd'), tooLong(PATH_MAX - 9, 'd'), huge(100000, 'd');
    const std::pair<const char*, std::string> cases[] = {{nullptr, "/tmp/"}, {"/var/x", "/var/x/"},
        {"/var/x/", "/var/x/"}, {fits.c_str(), fits + "/"}, {tooLong.c_str(), "/tmp/"}, {huge.c_str(), "/tmp/"}};
    for (const auto& c : cases) {
        EXPECT_EQ(0, ovtest::forkChild([&] {
            if (c.first) ::setenv("TMP", c.first, 1); else ::unsetenv("TMP");
            if (c.second != ovGetTempDir()) return 1;
            ::setenv("TMP", "/elsewhere", 1);
            return c.second == ovGetTempDir() ? 0 : 2;
        }).wait(30)) << c.second.size();
    }
}

// The first number tried for buf at 0 s + usec, the process counter at c.
uint64_t firstCandidate(const char* buf, uint64_t usec, uint64_t c) {
    const int64_t a = reinterpret_cast<intptr_t>(buf);
    return ((usec + c) * 131073 + (static_cast<uint64_t>(a) << 7) + static_cast<uint64_t>(a >> 21) + 1) % 1000000;
}

TEST(TempNames, TakenNamesAreSkippedWrappingAfter999999) {
    ovtest::TempDir t;
    ovtest::Child c = ovtest::forkChild([&] {
        ::setenv("TMP", t.path().c_str(), 1);
        char buf[PATH_MAX];
        const std::string dir = t.path() + "/";
        uint64_t usec = 0;  // a moment whose first candidate is the last number
        while (firstCandidate(buf, usec, 1) != 999999 && usec < 1000000) ++usec;
        ovtest::writeFile(dir + "tp999999");
        fixedUsec = static_cast<long>(usec);
        clockFixed = true;
        const std::string first = ovGetTempName(buf);
        if (first != dir + "tp000000") return 1;
        const std::string second = ovGetTempName(buf);  // same microsecond: the counter differs
        clockFixed = false;
        return second != first && second.size() == first.size() && second.rfind(dir + "tp", 0) == 0 ? 0 : 2;
    });
    EXPECT_EQ(0, c.wait(60));
}


// What a walk reports, in order, relative to base; directories end in "/".
struct Recorder {
    std::vector<std::string> seen;
    std::string base;
    ovStringProcedureAdapter<std::function<void(const char*)>> file{[this](const char* p) { add(p, ""); }};
    ovStringProcedureAdapter<std::function<void(const char*)>> dir{[this](const char* p) { add(p, "/"); }};
    void add(const char* p, const char* mark) { seen.push_back(std::string(p).substr(base.size() + 1) + mark); }
    unsigned run(const std::string& pattern, int depth, bool stop = false) {
        seen.clear();
        return ovFindMatchingFilesAndDirs(pattern.c_str(), file, dir, depth, stop);
    }
    size_t at(const std::string& s) const { return std::find(seen.begin(), seen.end(), s) - seen.begin(); }
};

// d/{a.txt, b.tmp, sub/{c.tmp, deep/{e}}}
void makeTree(const ovtest::TempDir& t) {
    ASSERT_TRUE(ovMkdirP(t.file("sub/deep").c_str()));
    ovtest::writeFile(t.file("a.txt"), "aaaa");
    ovtest::writeFile(t.file("b.tmp"), "bb");
    ovtest::writeFile(t.file("sub/c.tmp"), "c");
    ovtest::writeFile(t.file("sub/deep/e"), "eeeeeeee");
}

TEST(TreeMatch, DepthPreOrderPatternRulesAndSizes) {
    ovtest::TempDir t;
    makeTree(t);
    Recorder r{{}, t.path()};
    EXPECT_EQ(3u, r.run(t.file("*"), 0));
    EXPECT_EQ(5u, r.run(t.file("*"), 1));
    EXPECT_EQ(6u, r.run(t.file("*"), 1024));
    EXPECT_LT(r.at("sub/"), r.at("sub/c.tmp"));
    EXPECT_LT(r.at("sub/deep/"), r.at("sub/deep/e"));
    EXPECT_LT(r.at("sub/deep/e"), r.seen.size());
    EXPECT_EQ(1u, r.run(t.file("*"), 1024, true));
    EXPECT_EQ(1u, r.run(t.file("*.tmp"), 0));
    EXPECT_EQ(0u, r.run(t.file("*/c.tmp"), 0));  // wildcards only at the end

    // The 1024-byte limit, on a pattern that names an existing file.
    std::string longer = t.path();
    while (longer.size() + 2 + 6 <= 1024) longer += "/.";
    EXPECT_EQ(1u, r.run(longer + "/a.txt", 0));
    EXPECT_EQ(0u, r.run(longer + "/./a.txt", 0));

    // Sizes follow links, yet a link cycle ends.
    ASSERT_EQ(0, ::symlink("..", t.file("sub/up").c_str()));
    ASSERT_EQ(0, ::symlink("../a.txt", t.file("sub/alias").c_str()));
    EXPECT_EQ(4u + 2 + 1 + 8 + 4, ovGetDirectorySize(t.path().c_str()));
}

TEST(MkdirP, CreatesMissingPartsAndFailsOnARace) {
    ovtest::TempDir t;
    EXPECT_TRUE(ovMkdirP((" " + t.file("a//b/c/") + " ").c_str()));
    EXPECT_TRUE(ovIsDirectory(t.file("a/b/c").c_str()));
    ovtest::writeFile(t.file("a/file"));
    EXPECT_FALSE(ovMkdirP(t.file("a/file/x").c_str()));
    EXPECT_FALSE(ovMkdirP(nullptr));
    // Another creator wins the race between the test and mkdir: no retry.
    racePath = t.file("r1");
    EXPECT_FALSE(ovMkdirP(t.file("r1/r2").c_str()));
    EXPECT_TRUE(ovIsDirectory(t.file("r1").c_str()));
    EXPECT_FALSE(ovFileOrDirExists(t.file("r1/r2").c_str()));
}

TEST(RemoveRF, RemovesWhatMatchesButNeverThroughLinks) {
    ovtest::TempDir t, outside;
    makeTree(t);
    EXPECT_TRUE(ovRemoveRF(t.file("*.tmp").c_str()));
    EXPECT_FALSE(ovFileOrDirExists(t.file("b.tmp").c_str()));
    EXPECT_TRUE(ovFileExists(t.file("sub/c.tmp").c_str()));

    ovtest::writeFile(outside.file("keep"), "k");
    ASSERT_EQ(0, ::chmod(outside.file("keep").c_str(), 0444));
    ASSERT_EQ(0, ::symlink(outside.path().c_str(), t.file("sub/dirlink").c_str()));
    ASSERT_EQ(0, ::link(outside.file("keep").c_str(), t.file("sub/hardlink").c_str()));
    EXPECT_TRUE(ovRemoveRF(t.file("sub").c_str()));
    EXPECT_FALSE(ovFileOrDirExists(t.file("sub").c_str()));
    EXPECT_EQ(0100444, ovGetFilePermissions(outside.file("keep").c_str()));
}

TEST(RemoveRF, UnprivilegedRemovesReadOnlyEntriesAndRestoresWhatStays) {
    ovtest::TempDir t;
    const std::string tree = t.file("tree");
    ASSERT_TRUE(ovMkdirP((tree + "/mine/inner").c_str()));
    ASSERT_TRUE(ovMkdirP((tree + "/roots").c_str()));
    ovtest::writeFile(tree + "/mine/inner/ro", "x");
    ovtest::writeFile(tree + "/roots/f", "x");  // root's, in root's directory
    const std::pair<const char*, mode_t> ownModes[] = {{"", 0555}, {"/mine", 0555}, {"/mine/inner", 0555},
                                                       {"/mine/inner/ro", 0444}};
    for (const auto& m : ownModes) {
        ASSERT_EQ(0, ::chown((tree + m.first).c_str(), ovtest::kUnprivilegedId, ovtest::kUnprivilegedId));
        ASSERT_EQ(0, ::chmod((tree + m.first).c_str(), m.second));
    }

    EXPECT_EQ(0, ovtest::runAsUnprivileged([&] { return ovRemoveRF(tree.c_str()) ? 1 : 0; }));
    EXPECT_FALSE(ovFileOrDirExists((tree + "/mine").c_str()));  // read-only, yet gone
    EXPECT_TRUE(ovFileExists((tree + "/roots/f").c_str()));
    EXPECT_EQ(040555, ovGetFilePermissions(tree.c_str()));  // stayed, mode put back
    EXPECT_EQ(040755, ovGetFilePermissions((tree + "/roots").c_str()));
}

}  // namespace
