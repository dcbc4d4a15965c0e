#ifndef ORVANE_TESTS_LOCK_EXCLUSIVE_TEST_UTIL_H
#define ORVANE_TESTS_LOCK_EXCLUSIVE_TEST_UTIL_H

// Helpers of the exclusive-lock suites that start worker processes.

#include <string>
#include <vector>

#include "test_support.h"

namespace exctest {

// Path of the level-n file of the lock on dir.
inline std::string level(const ovtest::TempDir& dir, int n) {
    return dir.file(".deploy_lock." + std::to_string(n));
}

// Starts tests/lock/exclusive_worker on dir with the given arguments.
inline ovtest::Child worker(const ovtest::TempDir& dir, std::vector<std::string> args) {
    args.insert(args.begin(), {std::string(ORVANE_WORKER_DIR) + "/exclusive_worker", "--dir", dir.path()});
    return ovtest::spawn(args);
}

}  // namespace exctest

#endif
