// Names of the read/write lock's files, and the creation of a read-lock file
// whose name no other process sharing the directory is using.

#include <errno.h>
#include <pthread.h>
#include <stdint.h>
#include <stdlib.h>
#include <unistd.h>

#include <sstream>

#include <boost/thread/exceptions.hpp>

#include "orvane/rw_lock.h"

std::string READ_LOCK_BASE;
std::string WRITE_LOCK_BASE;

namespace {

// Set before main() like every other load-time setting of the library.
struct LockBaseNames {
    LockBaseNames() {
        READ_LOCK_BASE = ".deploy_read_lock.";
        WRITE_LOCK_BASE = ".deploy_write_lock";
    }
} lockBaseNames;

// 2038074743 is prime: any non-zero step walks through every residue once
// before repeating, so the attempt limit below equals one full cycle.
const uint64_t kModulus = 2038074743u;

// The number sequence is process-wide and guarded by a plain pthread mutex,
// created once; the file creation itself needs no guard, it is exclusive.
pthread_once_t sequenceOnce = PTHREAD_ONCE_INIT;
pthread_mutex_t sequenceMutex;
int sequenceInitError = 0;
uint64_t nextNumber = 0;
uint64_t step = 0;

void destroySequenceMutex() { pthread_mutex_destroy(&sequenceMutex); }

void initSequence() {
    sequenceInitError = pthread_mutex_init(&sequenceMutex, 0);
    if (sequenceInitError != 0) return;
    const uint64_t pid = static_cast<uint64_t>(getpid());
    nextNumber = pid % kModulus;
    step = pid % kModulus;
    atexit(destroySequenceMutex);
}

uint64_t takeNumber() {
    const int rc = pthread_mutex_lock(&sequenceMutex);
    if (rc != 0) throw boost::lock_error(rc, "createReadLock: cannot lock the sequence mutex");
    const uint64_t n = nextNumber;
    nextNumber = (nextNumber + step) % kModulus;
    pthread_mutex_unlock(&sequenceMutex);
    return n;
}

}  // namespace

std::pair<bool, std::string> createReadLock(const ovPathString& dir,
                                            const boost::shared_ptr<ovAbstractFS>& fs) {
    pthread_once(&sequenceOnce, initSequence);
    if (sequenceInitError != 0) {
        throw boost::thread_resource_error(sequenceInitError,
                                           "createReadLock: cannot create the sequence mutex");
    }
    ovPathString base(dir);
    base.append(ovPathString::bundle_type(READ_LOCK_BASE.c_str(),
                                          static_cast<unsigned long>(READ_LOCK_BASE.size())));
    std::ostringstream name;
    for (uint64_t attempts = 0;;) {
        const uint64_t n = takeNumber();
        name.str(std::string());
        name << base << static_cast<unsigned long>(n);
        if (fs->createFile(name.str().c_str())) return std::make_pair(true, name.str());
        if (++attempts == kModulus) return std::make_pair(false, name.str());
    }
}
