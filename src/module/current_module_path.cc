#include <algorithm>
#include <cstring>
#include <new>
#include <vector>

#include "host/loader.h"
#include "orvane/module.h"

module_info::~module_info() {}

bool GetCurrentModulePath(void* address, char* buf, unsigned long size) {
    if (!buf) return false;
    std::memset(buf, 0, size);
    try {
        const HostImageList images;
        std::vector<module_info> modules;
        modules.reserve(images.count());
        for (unsigned long i = 0; i < images.count(); ++i) modules.emplace_back(images.name(i), images.header(i));
        std::sort(modules.begin(), modules.end());

        const module_info probe(nullptr, address);
        if (modules.empty() || probe < modules.front()) return false;
        // The image with the greatest header not above the address. Images'
        // extents are not looked at: an address past the end of the highest
        // image is attributed to it.
        const auto above = std::upper_bound(modules.begin(), modules.end(), probe);
        const char* path = std::prev(above)->path;

        // The buffer is still all zeros, so a path that fits with its NUL is
        // terminated by it; one that does not fit is not cut short, it is
        // not written at all.
        const size_t length = std::strlen(path);
        if (length >= size) return false;
        std::memcpy(buf, path, length);
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

extern "C" bool ovGetCurrentModulePath(void* address, char* buf, unsigned long size) {
    return GetCurrentModulePath(address, buf, size);
}
