// Runs one file-system operation in a fresh process (under the fault shim,
// with diagnostic variables set, or with a refresh counter never moved); its
// output goes to DIR/out and DIR/err: the outcome line, then "elapsed_ms <n>".
//   fs_probe DIR create PATH
//   fs_probe DIR remove|refresh PATH MS     (deadline MS from now; -1: none)
//   fs_probe DIR remove-interrupted PATH    (no deadline; interrupted after 50 ms)
//   fs_probe DIR channels [late]            (late: variables set after load)
#include <stdlib.h>

#include <cstdio>
#include <iostream>
#include <string>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <boost/thread/thread.hpp>

#include "orvane/log_channel.h"
#include "outcome.h"

namespace pt = boost::posix_time;

int main(int argc, char** argv) {
    if (argc < 3) return 2;
    const std::string dir = argv[1], op = argv[2];
    if (!std::freopen((dir + "/out").c_str(), "w", stdout) || !std::freopen((dir + "/err").c_str(), "w", stderr))
        return 2;
    if (op == "channels") {
        if (argc > 3) {
            for (const char* v : {"ORVANE_FSLOCK_VERBOSE", "ORVANE_FSLOCK_WARNING", "ORVANE_FSLOCK_STALE_LOG"})
                ::setenv(v, "", 1);
        }
        std::cout << "flags " << verbose.enabled << warning.enabled << stale_log.enabled << std::endl;
        verbose << "verbose-line " << 1 << std::endl;
        warning << "warning-line " << 2 << std::endl;
        stale_log << "stale-line " << std::string("3") << std::endl;
        return 0;
    }
    if (argc < 4) return 2;
    const std::string path = argv[3];
    const long ms = argc > 4 ? std::atol(argv[4]) : -1;
    const pt::ptime start = ovSteadyNow();
    const pt::ptime deadline = ms < 0 ? pt::ptime(pt::pos_infin) : start + pt::milliseconds(ms);
    ovNetworkFS fs;
    std::string result;
    if (op == "create") {
        result = fstest::outcome([&] { return fs.createFile(path.c_str()); });
    } else if (op == "remove") {
        result = fstest::outcome([&] { return fs.removeFile(path, deadline); });
    } else if (op == "refresh") {
        result = fstest::outcome([&] { return fs.refreshLockFile(path, deadline); });
    } else if (op == "remove-interrupted") {
        boost::thread worker([&] { result = fstest::outcome([&] { return fs.removeFile(path, deadline); }); });
        boost::this_thread::sleep(pt::milliseconds(50));
        worker.interrupt();
        worker.join();
    } else {
        return 2;
    }
    std::cout << result << "\nelapsed_ms " << (ovSteadyNow() - start).total_milliseconds() << "\n";
    return 0;
}
