// Module lookup: the image holding an address, and the loaded library chosen
// by name, library suffix and required symbols.
#include <dlfcn.h>
#include <sys/stat.h>

#include <algorithm>
#include <climits>
#include <cstring>

#include "host/loader.h"
#include "module/library_name.h"
#include "module_fixture.h"
#include "orvane/module.h"

// The test program exports the fixture's symbols as well (see CMakeLists.txt).
extern "C" __attribute__((visibility("default"))) int ovtfoo_answer() { return 7; }
extern "C" __attribute__((visibility("default"))) int ovtfoo_twice(int x) { return x; }

namespace {

const char* kSymbols[] = {"ovtfoo_answer", "ovtfoo_twice"};

// The chosen path, relative to dir when it lies there; "<null>" for none.
std::string lookup(const char* name, const char** symbols, unsigned long count,
                   const std::string& dir = "") {
    char out[PATH_MAX];
    std::memset(out, 'x', sizeof out);
    const char* r = ovGetLoadedModuleFullPath(out, name, symbols, count);
    if (!r) return "<null>";
    if (r != out) return "<result is not out>";
    const std::string prefix = dir.empty() ? "" : modtest::resolved(dir) + "/";
    std::string s(out);
    return !prefix.empty() && s.compare(0, prefix.size(), prefix) == 0 ? s.substr(prefix.size()) : s;
}

std::string libraryPath() {
    Dl_info info;
    EXPECT_NE(::dladdr(reinterpret_cast<void*>(&ovGetCurrentModulePath), &info), 0);
    return modtest::resolved(info.dli_fname);
}

std::string modulePath(void* address) {
    char buf[PATH_MAX];
    return ovGetCurrentModulePath(address, buf, sizeof buf) ? modtest::resolved(buf) : "<false>";
}

}  // namespace

TEST(CurrentModulePath, AddressInsideAnImageYieldsItsFile) {
    ovtest::TempDir dir;
    const std::string copy = modtest::fixtureCopy(dir, "libovtfoo.so");
    void* h = ::dlopen(copy.c_str(), RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(modulePath(::dlsym(h, "ovtfoo_twice")), copy);
    EXPECT_EQ(modulePath(reinterpret_cast<void*>(&ovGetLoadedModuleFullPath)), libraryPath());
    EXPECT_EQ(modulePath(reinterpret_cast<void*>(&ovtfoo_answer)), modtest::resolved(ovtest::selfExe()));
    ::dlclose(h);
}

TEST(CurrentModulePath, OutsideTheImagesAndBufferBounds) {
    char buf[PATH_MAX + 8];
    std::memset(buf, 'x', sizeof buf);
    EXPECT_FALSE(ovGetCurrentModulePath(reinterpret_cast<void*>(16), buf, PATH_MAX));
    EXPECT_EQ(std::count(buf, buf + PATH_MAX, '\0'), PATH_MAX);

    // Deliberately, an address past the end of the highest image is its.
    const HostImageList images;
    unsigned long top = 0;
    for (unsigned long i = 1; i < images.count(); ++i) top = images.header(i) > images.header(top) ? i : top;
    EXPECT_EQ(modulePath(const_cast<char*>(static_cast<const char*>(images.header(top))) + (1UL << 32)),
              modtest::resolved(images.name(top)));

    // A path that does not fit with its NUL is not written at all.
    void* inLibrary = reinterpret_cast<void*>(&ovGetLoadedModuleFullPath);
    ASSERT_TRUE(ovGetCurrentModulePath(inLibrary, buf, sizeof buf));
    const long length = static_cast<long>(std::strlen(buf));
    std::memset(buf, 'x', sizeof buf);
    EXPECT_FALSE(ovGetCurrentModulePath(inLibrary, buf, length));
    EXPECT_EQ(std::count(buf, buf + length, '\0'), length);
    EXPECT_EQ(buf[length], 'x');
    EXPECT_TRUE(ovGetCurrentModulePath(inLibrary, buf, length + 1));
    EXPECT_EQ(static_cast<long>(std::strlen(buf)), length);
}

TEST(LoadedModuleFullPath, ChoosesByNamePrefixScoreAndSymbols) {
    const char* missing[] = {"ovtfoo_answer", "ovtfoo_no_such_symbol"};
    const struct {
        std::vector<std::string> loaded;  // in this order, in a fresh child
        const char* name;
        const char** symbols;
        unsigned long count;
        std::string expected;
    } cases[] = {
        // Begins with the name: taken at once, though the last would outscore it.
        {{"xlibovtfoo.so", "libovtfoo.so", "libovtfoo.dylib.jnilib"}, "libovtfoo", kSymbols, 2, "libovtfoo.so"},
        // Without symbols: scored by library suffix, ties keep the earlier.
        {{"a_ovtfoo.txt", "b_ovtfoo.jnilib", "c_ovtfoo.dylib", "d_ovtfoo.so.4"}, "ovtfoo", nullptr, 0, "c_ovtfoo.dylib"},
        {{"d_ovtfoo.so.4", "c_ovtfoo.dylib"}, "ovtfoo", nullptr, 0, "d_ovtfoo.so.4"},
        {{"a_ovtfoo.txt", "e_ovtfoo.so.4a", "b_ovtfoo.jnilib"}, "ovtfoo", nullptr, 0, "b_ovtfoo.jnilib"},
        {{"a_ovtfoo.txt", "f_ovtfoo.so"}, "ovtfoo", nullptr, 0, "f_ovtfoo.so"},
        // With symbols: every one must be there, in a file with a library name.
        {{"libovtfoo.so", "x_ovtfoo.bin"}, "ovtfoo", missing, 2, "<null>"},
        {{"libovtfoo.so", "x_ovtfoo.bin"}, "ovtfoo", kSymbols, 2, "libovtfoo.so"},
        {{"libovtfoo.so", "x_ovtfoo.bin"}, "x_ovtfoo", kSymbols, 1, "<null>"},
        {{"libovtfoo.so", "x_ovtfoo.bin"}, "x_ovtfoo", nullptr, 0, "x_ovtfoo.bin"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.expected, modtest::inChild(c.loaded, [&](const ovtest::TempDir& d) {
            return lookup(c.name, c.symbols, c.count, d.path());
        })) << c.loaded[0] << " " << c.name;
    }
}

TEST(LoadedModuleFullPath, MainProgramOnlyWhenNoSymbolsAreRequired) {
    const std::string exe = modtest::resolved(ovtest::selfExe());
    ASSERT_EQ(::dlsym(RTLD_DEFAULT, "ovtfoo_answer"), reinterpret_cast<void*>(&ovtfoo_answer));
    const char* base = detail::fileNameOf(exe.c_str());  // occurs in no other image's path
    EXPECT_EQ(lookup(base, nullptr, 0), exe);
    EXPECT_EQ(lookup(base, kSymbols, 1), "<null>");
    // With no name the main program (first, score 0) loses to any library.
    for (const char* none : {static_cast<const char*>(nullptr), ""}) {
        const std::string any = lookup(none, nullptr, 0);
        EXPECT_NE(any, exe);
        EXPECT_EQ(detail::libraryNameScore(any.c_str()), 2) << any;
    }
    EXPECT_EQ(ovGetLoadedModuleFullPath(nullptr, base, nullptr, 0), nullptr);
}

TEST(SymbolCheck, ExtensionLoadAndSymbolsAndNothingLeftLoaded) {
    ovtest::TempDir dir;
    ASSERT_EQ(::mkdir(dir.file("x.dylib").c_str(), 0755), 0);
    const ovLoadedModuleNameChecker withSymbols(kSymbols, 2);
    const ovStringPredicate& check = withSymbols;
    for (const char* name : {"c.so", "c.so.3", "c.dylib", "c.jnilib"}) {
        const std::string copy = modtest::fixtureCopy(dir, name);
        EXPECT_TRUE(check(copy.c_str())) << name;
        EXPECT_EQ(::dlopen(copy.c_str(), RTLD_NOW | RTLD_NOLOAD), nullptr) << name << " left loaded";
    }
    for (const char* name : {"c.bin", "c.so.3a", "x.dylib/lib"}) {
        const std::string copy = modtest::fixtureCopy(dir, name);
        EXPECT_FALSE(check(copy.c_str())) << name;
    }
    const char* missing[] = {"ovtfoo_twice", "ovtfoo_no_such_symbol"};
    EXPECT_FALSE(ovLoadedModuleNameChecker(missing, 2).verifyLibrarySymbols(dir.file("c.so").c_str()));
    EXPECT_EQ(::dlopen(dir.file("c.so").c_str(), RTLD_NOW | RTLD_NOLOAD), nullptr);
    EXPECT_FALSE(check(dir.file("absent.so").c_str()));
    EXPECT_TRUE(ovLoadedModuleNameChecker(nullptr, 3)("/nonexistent/x.txt"));
}
