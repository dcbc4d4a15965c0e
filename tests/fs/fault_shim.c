/* Preloaded into fs_probe (LD_PRELOAD): makes open and remove of the path
 * ORVANE_FAULT_PATH fail with ORVANE_FAULT_ERRNO for the first
 * ORVANE_FAULT_COUNT calls (-1: all). Each call on the path appends "inject <op>" or
 * "pass <op>" to ORVANE_FAULT_LOG, so a test can prove the failures happened. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

static atomic_long injected;

static int shouldFail(const char* op, const char* path) {
    const char* target = getenv("ORVANE_FAULT_PATH");
    const char* count = getenv("ORVANE_FAULT_COUNT");
    const char* log = getenv("ORVANE_FAULT_LOG");
    if (!target || !path || strcmp(target, path) != 0) return 0;
    const long limit = count ? strtol(count, NULL, 10) : -1;
    const int fail = limit < 0 || atomic_fetch_add(&injected, 1) < limit;
    if (log) {
        char line[32];
        const int n = snprintf(line, sizeof line, "%s %s\n", fail ? "inject" : "pass", op);
        /* The raw system call: open() would come back here. */
        const int fd = (int)syscall(SYS_openat, AT_FDCWD, log, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
        if (fd >= 0 && write(fd, line, (size_t)n) != n) { /* the test sees a short count */ }
        if (fd >= 0) close(fd);
    }
    if (fail) errno = getenv("ORVANE_FAULT_ERRNO") ? atoi(getenv("ORVANE_FAULT_ERRNO")) : EIO;
    return fail;
}

#define API __attribute__((visibility("default")))
#define REAL(name, type) ((type)dlsym(RTLD_NEXT, #name))

#define OPEN_LIKE(name)                                                      \
    API int name(const char* path, int flags, ...) {                         \
        va_list ap;                                                          \
        va_start(ap, flags);                                                 \
        const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) ? (mode_t)va_arg(ap, int) : 0; \
        va_end(ap);                                                          \
        if (shouldFail("open", path)) return -1;                             \
        return REAL(name, int (*)(const char*, int, ...))(path, flags, mode); \
    }
OPEN_LIKE(open)
OPEN_LIKE(open64)

#define REMOVE_LIKE(name)                                                    \
    API int name(const char* path) {                                         \
        if (shouldFail("remove", path)) return -1;                           \
        return REAL(name, int (*)(const char*))(path);                       \
    }
REMOVE_LIKE(remove)
REMOVE_LIKE(unlink)
