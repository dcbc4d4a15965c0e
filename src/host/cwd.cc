#include <unistd.h>

#include "host/host.h"

char* hostGetcwd(char* buf, size_t size) {
    if (!buf || size == 0) return nullptr;
    // getcwd fails with ERANGE rather than writing past size.
    return ::getcwd(buf, size);
}
