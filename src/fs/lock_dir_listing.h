#ifndef ORVANE_FS_LOCK_DIR_LISTING_H
#define ORVANE_FS_LOCK_DIR_LISTING_H

// The pattern search behind ovNetworkFS's matching slots. Locks find each
// other's files with it, so unlike ovFindMatchingFilesAndDirs it never
// reports "nothing" for a directory it could not read.

#include "orvane/path.h"

namespace detail {

// Entries of the directory part of pattern whose names match its last
// component, reported as ovFindMatchingFilesAndDirs reports them (directories,
// links to them included, through onDir; everything else through onFile).
// The directory part is taken literally: "\", "?", "[" or "*" in it are
// ordinary characters. A last component without wildcards is looked up with
// lstat alone, so it needs no read permission on the directory. A missing
// directory matches nothing; any other failure to list or look up throws
// ovFileAccessError naming the directory and the cause. Depths above 0 and
// patterns ending in a separator go to ovFindMatchingFilesAndDirs as before.
unsigned findInLockDirectory(const char* pattern, const ovStringProcedure& onFile,
                             const ovStringProcedure& onDir, int depth, bool stopAtFirst);

}  // namespace detail

#endif
