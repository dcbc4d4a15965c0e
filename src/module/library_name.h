#ifndef ORVANE_MODULE_LIBRARY_NAME_H
#define ORVANE_MODULE_LIBRARY_NAME_H

// How a file name tells that it is a loadable library.

namespace detail {

// The file name part of path: what follows its last "/".
const char* fileNameOf(const char* path);

// True for this platform's shared-library names: a file name ending in ".so"
// or in ".so." followed by dot-separated version numbers ("libz.so.1.2.13").
bool isPlatformLibraryName(const char* path);

// True when `what` occurs in the file name of path.
bool fileNameContains(const char* path, const char* what);

// Preference among candidate libraries: 2 for a ".dylib" or a platform
// library name, plus 1 for ".jnilib", both judged on the file name.
int libraryNameScore(const char* path);

}  // namespace detail

#endif
