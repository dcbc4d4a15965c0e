#include <limits.h>
#include <stdlib.h>

#include <cstring>
#include <memory>
#include <new>

#include "host/loader.h"
#include "module/library_name.h"
#include "orvane/module.h"

namespace {

// realpath's answer, freed with the object; null when it could not resolve.
struct FreeDeleter {
    void operator()(char* p) const { ::free(p); }
};
typedef std::unique_ptr<char, FreeDeleter> ResolvedPath;

// Bonus for a name found in the file name but not at its start: it outweighs
// any naming score (at most 3).
const int kNameInFileName = 8;

}  // namespace

extern "C" char* ovGetLoadedModuleFullPath(char* out, const char* name, const char** symbols,
                                           unsigned long symbolCount) {
    if (!out) return nullptr;
    try {
        const ovLoadedModuleNameChecker accepts(symbols, symbols ? symbolCount : 0);
        const bool byName = name && *name;
        const HostImageList images;
        int best = -1;
        char* result = nullptr;

        for (unsigned long i = 0; i < images.count(); ++i) {
            const char* reported = images.name(i);
            const ResolvedPath resolved(::realpath(reported, nullptr));
            const char* path = resolved ? resolved.get() : reported;
            const size_t length = std::strlen(path);
            if (length >= PATH_MAX) continue;  // out holds PATH_MAX bytes, no more

            const char* found = nullptr;
            if (byName) {
                found = std::strstr(path, name);
                if (!found) continue;
            }
            if (!accepts(path)) continue;

            int score = detail::libraryNameScore(path);
            if (found && !std::strchr(found, '/')) {
                // A file name that begins with the name is taken as the answer
                // without looking any further.
                if (found == path || ovIsPathSep(static_cast<unsigned char>(found[-1]))) {
                    std::memcpy(out, path, length + 1);
                    return out;
                }
                score += kNameInFileName;
            }
            // Strictly greater: on equal scores the loader's earlier image stays.
            if (score > best) {
                best = score;
                std::memcpy(out, path, length + 1);
                result = out;
            }
        }
        return result;
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}
