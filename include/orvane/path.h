#ifndef ORVANE_PATH_H
#define ORVANE_PATH_H

// Path and file primitives. Every function works on caller-owned,
// NUL-terminated buffers, never allocates what it returns and never throws:
// failure is reported as false, 0 or a null pointer.

#include <stddef.h>
#include <stdint.h>

#include "orvane/export.h"

// Per-entry callback of the directory walkers.
class OV_API ovStringProcedure {
public:
    virtual ~ovStringProcedure();
    virtual void operator()(const char* path) const = 0;
};

// Wraps any callable taking a path (a function pointer such as ovRemoveRF,
// a lambda, a bound member); its result, if any, is dropped.
template <class F>
class ovStringProcedureAdapter : public ovStringProcedure {
public:
    explicit ovStringProcedureAdapter(const F& f) : f_(f) {}
    void operator()(const char* path) const override { f_(path); }

private:
    F f_;
};

// Heap-allocated adapter around f; the caller owns and deletes it.
template <class F>
ovStringProcedure* ovNewStringProcedure(const F& f) {
    return new ovStringProcedureAdapter<F>(f);
}

// Does nothing with the path it is given.
class OV_API ovIgnoreString : public ovStringProcedure {
public:
    void operator()(const char* path) const override;
};

// A yes/no question about a string (the base of the loaded-module check).
class OV_API ovStringPredicate {
public:
    virtual ~ovStringPredicate();
    virtual bool operator()(const char* s) const = 0;
};

extern "C" {

// ---- Separators and path text ------------------------------------------

typedef bool (*ovIsMultiByteLeadFn)(int c);

// The host's multibyte lead-byte predicate; nothing in the library calls it.
OV_API extern ovIsMultiByteLeadFn ovIsMultiByteLead_vector;

// Only "/" is a separator; the set is fixed.
OV_API bool ovIsPathSep(int c);
OV_API bool ovIsPathSepByPtr(const char* p);
OV_API ovIsMultiByteLeadFn ovSetIsMultiByteLead(ovIsMultiByteLeadFn f);
OV_API void ovReplacePathSeps(char* s, int c);
OV_API const char* ovFindLastSep(const char* begin, const char* last);
OV_API const char* ovFindLastNotSep(const char* begin, const char* last);
OV_API bool ovAddPathSep(char* s);
// Inserts "/" at pos unless the byte before pos already is one; returns the
// number of bytes inserted (1 at pos 0 always). A pos past the terminator
// inserts nothing and returns 0.
OV_API int ovAddPathSepAt(char* s, size_t pos);
OV_API void ovWashPathSep(char* s);
OV_API bool ovIsRootDir(const char* s);
// Lexical clean-up of the first n bytes of src (or up to its NUL) into dst,
// which may be src: "." goes, ".." removes the component before it (at the
// root and at the front of a relative path it simply goes), runs of "/"
// become one, a trailing "/" stays. Never longer than the input.
OV_API char* ovCollapsePath(char* dst, const char* src, size_t n);
// Canonical absolute path of src into dst; never fails. The input ends at its
// first NUL or after srcLen bytes, and nothing beyond either is read; white
// space at both ends is dropped, except that the first lookup of the whole
// text still sees the trailing white space. Writes at most dstSize bytes:
// unlike realpath, dst needs no PATH_MAX room, and a longer result is cut to
// dstSize - 1 bytes; with dstSize 0 dst is left alone. An input of PATH_MAX
// bytes or more that has no NUL within srcLen is not looked up as a whole
// (only its prefixes are). src may be dst when shorter than PATH_MAX bytes.
OV_API char* ovCanonicalizePath(char* dst, size_t dstSize, const char* src, size_t srcLen);

// ---- Single-file queries, permissions, temporary names ------------------

OV_API bool ovFileOrDirExists(const char* path);
OV_API bool ovFileExists(const char* path);
OV_API bool ovIsDirectory(const char* path);
OV_API uint64_t ovGetFileSize(const char* path);
OV_API bool ovGetFileSystemAvailableSpace(const char* path, uint64_t* bytes);
// st_mode, type bits included; 0 for a path that cannot be queried.
OV_API uint16_t ovGetFilePermissions(const char* path);
OV_API int ovSetFilePermissions(const char* path, int mode);
// Add (remove) the write bits 0222 and return the mode as it was, for
// ovSetFilePermissions to restore; 0, changing nothing, when unreadable.
OV_API uint16_t ovEnableWritePermission(const char* path);
OV_API uint16_t ovDisableWritePermission(const char* path);
// "TMP" (read on the first call only), else "/tmp", with a trailing "/". A
// value too long to leave room for a temporary name within PATH_MAX bytes is
// not cut to some other directory's name: "/tmp/" is used instead.
OV_API const char* ovGetTempDir(void);
// Writes ovGetTempDir() + "tp" + six digits naming nothing that exists yet
// (only tested, not created). The result never exceeds PATH_MAX bytes with
// its terminator, so a PATH_MAX buffer always suffices. Should a million
// consecutive names all be taken, the last one tried is returned.
OV_API char* ovGetTempName(char* buf);

// ---- Directory trees ---------------------------------------------------

// Reports each entry matching pattern (wildcards in the last component only;
// at most 1024 bytes, else 0) and, for directories, their contents down to
// depth more levels, pre-order; returns the count. Links are followed, but a
// directory met again below itself is reported and not entered again.
OV_API unsigned ovFindMatchingFilesAndDirs(const char* pattern, const ovStringProcedure& onFile,
                                           const ovStringProcedure& onDir, int depth,
                                           bool stopAtFirst);
// Creates every missing directory of path (mode 0775 before the umask);
// false at the first mkdir that fails, even one that lost a race to another
// creator. Null, empty or white-space-only paths give false.
OV_API bool ovMkdirP(const char* path);
// Removes everything pattern matches, making entries writable first and
// restoring the mode of whatever could not be removed; true when all went
// (or nothing matched). A symbolic link is removed as a link: neither its
// target nor the target's permissions are touched.
OV_API bool ovRemoveRF(const char* pattern);
// Sum of the sizes of the files below dir (links followed); 0 for a null or
// empty dir, which would otherwise mean the whole file system.
OV_API uint64_t ovGetDirectorySize(const char* dir);
OV_API bool ovMatchingFileOrDirExists(const char* pattern);

}  // extern "C"

#endif
