#ifndef ORVANE_HOST_HOST_H
#define ORVANE_HOST_HOST_H

// The host layer under the path primitives: current directory, home
// directories, directory listings and plain path-name arithmetic. Internal to
// the library; these names are not exported.

#include <stddef.h>

#include <string>
#include <vector>

// Writes the current directory into buf (capacity size, terminator included).
// Null when it cannot be had or does not fit.
char* hostGetcwd(char* buf, size_t size);

// Expands a leading "~" (HOME, else the password database) or "~user" (the
// password database) of the first len bytes of path (which need not be
// terminated) into out, terminated. Returns path itself, untouched, when the
// text does not start with "~", the user is unknown, or the expansion does
// not fit in outSize bytes.
const char* pathTildeExpand(const char* path, size_t len, char* out, size_t outSize);

// True for a path beginning with "/".
bool pathIsAbsolute(const char* path);

// The plain build has no multibyte encodings to care about: always false.
bool hostIsMultiByteLead(int c);

// Names (not paths) of the entries of the directory part of pattern whose
// names match its last component (fnmatch, "*" matching any name, "." and
// ".." included). One malloc'd block of NUL-terminated names ended by an
// empty name; release it with hostFree. Null when the directory cannot be
// listed. A last component without wildcards is looked up directly rather
// than by reading the whole directory. flags is reserved and must be 0.
char* dirGetList(const char* pattern, unsigned flags);

// Names of the entries of dir ("" for the current directory) matching
// namePattern (fnmatch), "." and ".." left out. dir is used as it is: no
// character of it is read as a wildcard or a separator to wash. Stops after
// the first match when stopAtFirst. Returns 0, or the errno with which
// opening or reading the directory failed.
int dirListMatching(const std::string& dir, const char* namePattern, bool stopAtFirst,
                    std::vector<std::string>& names);

// Splits path at its last separator: the directory part (without trailing
// separators, "/" for the root, "" when there is none) goes into dir
// (capacity dirSize, always terminated, cut if too small); returns a pointer
// into path at the name part ("" when path ends in a separator).
const char* pathSeparateName(const char* path, char* dir, size_t dirSize);

// Appends name to dir with exactly one separator between them (an empty dir
// takes the name as it is).
void pathConcatName(std::string& dir, const char* name);

// Releases what the host layer handed out (dirGetList's block); null is fine.
void hostFree(void* p);

#endif
