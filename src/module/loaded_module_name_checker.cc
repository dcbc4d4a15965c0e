#include <cstring>
#include <string>

#include "host/loader.h"
#include "module/library_name.h"
#include "orvane/module.h"
#include "orvane/path_string.h"

namespace {

// Only files named as libraries are worth loading: loading runs a file's
// initialisers, and a program or data file has no business being loaded.
bool hasLibraryExtension(const char* path) {
    if (detail::isPlatformLibraryName(path)) return true;
    const ovPathString p(path);
    const unsigned long dot = p.nameEndIndex();
    if (dot >= p.length()) return false;
    const char* ext = p.c_str() + dot + 1;
    return std::strcmp(ext, "dylib") == 0 || std::strcmp(ext, "jnilib") == 0;
}

// Keeps a loaded library referenced for the span of one check.
class LoadedLibrary {
public:
    explicit LoadedLibrary(const char* path) : handle_(hostLoadLibrary(path, &error_)) {}
    ~LoadedLibrary() { hostUnloadLibrary(handle_); }
    LoadedLibrary(const LoadedLibrary&) = delete;
    LoadedLibrary& operator=(const LoadedLibrary&) = delete;

    bool loaded() const { return handle_ != nullptr; }
    bool hasSymbol(const char* symbol) const {
        return symbol && hostFindSymbolInLibrary(handle_, symbol) != nullptr;
    }

private:
    std::string error_;
    void* handle_;
};

}  // namespace

ovLoadedModuleNameChecker::ovLoadedModuleNameChecker(const char** symbols, unsigned long symbolCount)
    : symbols_(symbols), symbolCount_(symbols ? symbolCount : 0) {}

ovLoadedModuleNameChecker::~ovLoadedModuleNameChecker() {}

bool ovLoadedModuleNameChecker::operator()(const char* path) const {
    return verifyLibrarySymbols(path);
}

bool ovLoadedModuleNameChecker::verifyLibrarySymbols(const char* path) const {
    if (symbolCount_ == 0) return true;
    if (!path || !hasLibraryExtension(path)) return false;
    const LoadedLibrary library(path);
    if (!library.loaded()) return false;
    for (unsigned long i = 0; i < symbolCount_; ++i) {
        if (!library.hasSymbol(symbols_[i])) return false;
    }
    return true;
}
