#include <cstring>

#include "host/host.h"

bool pathIsAbsolute(const char* path) { return path && path[0] == '/'; }

const char* pathSeparateName(const char* path, char* dir, size_t dirSize) {
    if (!path) path = "";
    const char* slash = std::strrchr(path, '/');
    const char* name = slash ? slash + 1 : path;
    size_t n = 0;
    if (slash) {
        // Drop the separators that end the directory part, keeping the root.
        const char* last = slash;
        while (last > path && last[-1] == '/') --last;
        n = last == path ? 1 : static_cast<size_t>(last - path);
    }
    if (dir && dirSize > 0) {
        if (n >= dirSize) n = dirSize - 1;
        std::memcpy(dir, path, n);
        dir[n] = '\0';
    }
    return name;
}

void pathConcatName(std::string& dir, const char* name) {
    while (*name == '/') ++name;
    if (!dir.empty() && dir.back() != '/') dir.push_back('/');
    dir.append(name);
}
