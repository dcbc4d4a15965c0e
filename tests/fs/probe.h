#ifndef ORVANE_TESTS_FS_PROBE_H
#define ORVANE_TESTS_FS_PROBE_H

#include <stdlib.h>

#include <string>
#include <vector>

#include "test_support.h"

namespace fstest {

struct Run {
    int status = -1;
    std::string out, err;  // out: diagnostics, the outcome line, "elapsed_ms <n>"
    long elapsedMs = -1;
};

// fs_probe with args, in a child with captured output and extra environment
// entries; no diagnostic switch or preload is inherited from this process.
inline Run runProbe(std::vector<std::string> args, const std::vector<std::string>& env = {}) {
    for (const char* v : {"ORVANE_FSLOCK_VERBOSE", "ORVANE_FSLOCK_WARNING", "ORVANE_FSLOCK_STALE_LOG", "LD_PRELOAD"})
        ::unsetenv(v);
    ::setenv("ASAN_OPTIONS", "verify_asan_link_order=0", 0);  // the shim goes ahead of a sanitizer runtime
    ovtest::TempDir scratch;
    args.insert(args.begin(), {ORVANE_FS_PROBE, scratch.path()});
    Run r;
    r.status = ovtest::spawn(args, env).wait(60);
    r.out = ovtest::readFile(scratch.file("out"));
    r.err = ovtest::readFile(scratch.file("err"));
    const std::string::size_type at = r.out.rfind("elapsed_ms ");
    if (at != std::string::npos) r.elapsedMs = std::atol(r.out.c_str() + at + 11);
    return r;
}

}  // namespace fstest

#endif
