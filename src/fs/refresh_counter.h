#ifndef ORVANE_FS_REFRESH_COUNTER_H
#define ORVANE_FS_REFRESH_COUNTER_H

// The value the next refresh writes at the start of a lock file, shared by
// every lock file and file-system instance of the process.

#include <stdint.h>

namespace detail {

uint32_t nextRefreshValue();

}  // namespace detail

#endif
