// Takes the write lock on a directory, holds it, turns it into a read lock
// without letting go in between, holds that, then releases.
//   orvane-downgrade-demo DIR WRITE_SECONDS READ_SECONDS

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <iostream>

#include "orvane/rw_lock.h"

namespace {

void say(const char* what) {
    std::cout << "downgrader[" << getpid() << "]: " << what << std::endl;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::cerr << "usage: orvane-downgrade-demo DIR WRITE_SECONDS READ_SECONDS\n";
        return 64;
    }
    const double writeSeconds = std::atof(argv[2]);
    const double readSeconds = std::atof(argv[3]);
    try {
        ovDirectoryReadWriteLock rw(argv[1]);
        ovDirectoryReadWriteLock::WriteLock writer = rw.getWriteLock();
        if (!writer.acquire()) {
            say("could not take the write lock");
            return 1;
        }
        say("holds the WRITE lock");
        usleep(static_cast<useconds_t>(writeSeconds * 1e6));
        ovDirectoryReadWriteLock::ReadLock reader = writer.downgrade();
        if (!reader.isAcquired()) {
            say("downgrade failed; still the writer");
            writer.release();
            return 1;
        }
        say("downgraded: now holds a READ lock (readers may join, writers still wait)");
        usleep(static_cast<useconds_t>(readSeconds * 1e6));
        reader.release();
        say("released");
    } catch (const std::exception& e) {
        std::cerr << "orvane-downgrade-demo: " << e.what() << "\n";
        return 74;
    }
    return 0;
}
