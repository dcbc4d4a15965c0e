// The loader's image list: the main program first, ELF headers, following
// loads and unloads.
#include <dlfcn.h>

#include <cstring>

#include "host/loader.h"
#include "module_fixture.h"

TEST(HostImageList, MainProgramFirstElfHeadersAndFollowsLoads) {
    ovtest::TempDir dir;
    const std::string copy = modtest::fixtureCopy(dir, "libovtfoo.so");
    auto headersOf = [&copy] {
        const HostImageList images;
        EXPECT_EQ(modtest::resolved(images.name(0)), modtest::resolved(ovtest::selfExe()));
        std::vector<const void*> found;
        for (unsigned long i = 0; i < images.count(); ++i) {
            EXPECT_EQ(std::memcmp(images.header(i), "\177ELF", 4), 0) << images.name(i);
            if (modtest::resolved(images.name(i)) == copy) found.push_back(images.header(i));
        }
        EXPECT_EQ(images.header(images.count()), nullptr);
        return found;
    };
    EXPECT_TRUE(headersOf().empty());
    void* h = ::dlopen(copy.c_str(), RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(h, nullptr);
    Dl_info info;
    ASSERT_NE(::dladdr(::dlsym(h, "ovtfoo_answer"), &info), 0);
    EXPECT_EQ(headersOf(), std::vector<const void*>{info.dli_fbase});
    ::dlclose(h);
    EXPECT_TRUE(headersOf().empty());
}
