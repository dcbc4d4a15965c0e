#ifndef ORVANE_MODULE_H
#define ORVANE_MODULE_H

// Finding the file of a loaded library: by an address inside it, or by name
// and a set of symbols it must export.

#include "orvane/export.h"
#include "orvane/path.h"

extern "C" {
// Writes the path of the image containing `address` into buf (zero-filled
// first); false when the address lies below every loaded image.
// At most `size` bytes of buf are ever written: when the path and its NUL do
// not fit, buf stays all zeros and the result is false, so a caller never
// sees a cut-off path. A null buf gives false.
OV_API bool ovGetCurrentModulePath(void* address, char* buf, unsigned long size);
// Writes the best-matching loaded library's path into out and returns out,
// or null when none is accepted. symbols may be null (count taken as 0).
// out must hold PATH_MAX bytes; no more than that is ever written (an image
// whose path would not fit is passed over). A null out gives null.
OV_API char* ovGetLoadedModuleFullPath(char* out, const char* name, const char** symbols,
                                       unsigned long symbolCount);
}

bool GetCurrentModulePath(void* address, char* buf, unsigned long size);

// One loaded image. Records order by header address, ascending.
struct OV_API module_info {
    module_info(const char* path, const void* header) : path(path), header(header), reserved(0) {}
    virtual ~module_info();

    bool operator<(const module_info& other) const {
        return reinterpret_cast<uintptr_t>(header) < reinterpret_cast<uintptr_t>(other.header);
    }

    const char* path;     // as the loader reports it; not owned
    const void* header;   // the image's header in memory
    unsigned long reserved;  // always 0
};

// Accepts a library path when the library can be loaded and exports every
// required symbol. The symbol list is not owned and must outlive the checker.
// With no symbols required, every path is accepted.
class OV_API ovLoadedModuleNameChecker : public ovStringPredicate {
public:
    ovLoadedModuleNameChecker(const char** symbols, unsigned long symbolCount);
    ~ovLoadedModuleNameChecker() override;

    bool operator()(const char* path) const override;
    bool verifyLibrarySymbols(const char* path) const;

private:
    const char** symbols_;
    unsigned long symbolCount_;
};

#endif
