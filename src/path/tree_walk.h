#ifndef ORVANE_PATH_TREE_WALK_H
#define ORVANE_PATH_TREE_WALK_H

#include <sys/stat.h>

#include "orvane/path.h"

namespace detail {

// A walk callback that can use the status the walker has just read for the
// entry (links followed, as ovIsDirectory reads it) and whether the entry
// itself is a link, instead of asking the file system again. The walker
// calls visit() when it has the status and operator() when it has not.
class ovStatProcedure : public ovStringProcedure {
public:
    virtual void visit(const char* path, const struct stat& st, bool isLink) const = 0;
};

}  // namespace detail

#endif
