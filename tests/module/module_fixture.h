#ifndef ORVANE_TESTS_MODULE_FIXTURE_H
#define ORVANE_TESTS_MODULE_FIXTURE_H

// Copies of the fixture library under chosen names, and a child process to
// load them in, so that what one test loads never shows in another's lookup.

#include <dlfcn.h>
#include <stdlib.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "test_support.h"

namespace modtest {

inline std::string resolved(const std::string& path) {
    std::unique_ptr<char, void (*)(void*)> r(::realpath(path.c_str(), nullptr), ::free);
    return r ? r.get() : path;
}

// A distinct file (so a distinct image to the loader) at dir/name.
inline std::string fixtureCopy(const ovtest::TempDir& dir, const std::string& name) {
    ovtest::writeFile(dir.file(name), ovtest::readFile(OVTFOO_FIXTURE));
    return resolved(dir.file(name));
}

// In a child: loads copies named `names`, in order, and returns fn's answer.
inline std::string inChild(const std::vector<std::string>& names,
                           const std::function<std::string(const ovtest::TempDir&)>& fn) {
    ovtest::TempDir dir;
    ovtest::Child child = ovtest::forkChild([&] {
        for (const std::string& n : names) {
            if (!::dlopen(fixtureCopy(dir, n).c_str(), RTLD_NOW | RTLD_LOCAL)) return 2;
        }
        ovtest::writeFile(dir.file("result"), fn(dir));
        return 0;
    });
    EXPECT_EQ(child.wait(60), 0);
    return ovtest::readFile(dir.file("result"));
}

}  // namespace modtest

#endif
