#include "host/loader.h"

#include <dlfcn.h>
#include <link.h>
#include <sys/auxv.h>
#include <unistd.h>

#include <climits>
#include <cstdint>
#include <new>

namespace {

// The loader reports the main program with an empty name; its file is the
// one /proc/self/exe points at. It cannot change while we run, so read once.
const std::string& mainProgramPath() {
    static const std::string path = [] {
        char buf[PATH_MAX];
        ssize_t n = ::readlink("/proc/self/exe", buf, sizeof buf);
        return n > 0 && static_cast<size_t>(n) < sizeof buf ? std::string(buf, static_cast<size_t>(n))
                                                             : std::string();
    }();
    return path;
}

// Where the image's ELF header lies in memory: the segment that maps file
// offset 0 carries it. Should no segment start at offset 0, the header would
// sit where the lowest segment's file offset 0 maps to.
const void* headerAddress(const dl_phdr_info& info) {
    const ElfW(Phdr)* lowest = nullptr;
    for (ElfW(Half) i = 0; i < info.dlpi_phnum; ++i) {
        const ElfW(Phdr)& ph = info.dlpi_phdr[i];
        if (ph.p_type != PT_LOAD) continue;
        if (ph.p_offset == 0) return reinterpret_cast<const void*>(info.dlpi_addr + ph.p_vaddr);
        if (!lowest || ph.p_vaddr < lowest->p_vaddr) lowest = &ph;
    }
    uintptr_t a = info.dlpi_addr;
    if (lowest) a += lowest->p_vaddr - lowest->p_offset;
    return reinterpret_cast<const void*>(a);
}

}  // namespace

HostImageList::HostImageList() {
    struct Collector {
        std::vector<Image>* out;
        const void* mainPhdr;
        bool outOfMemory;
    } collector = {&images_, reinterpret_cast<const void*>(::getauxval(AT_PHDR)), false};

    // dl_iterate_phdr holds the loader's lock for the whole walk, so this is
    // one consistent picture of the list. Copying names is what keeps them
    // valid should a library be unloaded right after.
    ::dl_iterate_phdr(
        [](dl_phdr_info* info, size_t, void* data) -> int {
            Collector* c = static_cast<Collector*>(data);
            const bool isMain = info->dlpi_phdr == c->mainPhdr;
            const char* name = info->dlpi_name ? info->dlpi_name : "";
            // No exception may unwind through the loader while it holds its
            // lock: stop the walk and report afterwards.
            try {
                c->out->push_back(Image{isMain && !*name ? mainProgramPath() : std::string(name),
                                        headerAddress(*info)});
            } catch (const std::bad_alloc&) {
                c->outOfMemory = true;
                return 1;
            }
            return 0;
        },
        &collector);
    if (collector.outOfMemory) throw std::bad_alloc();
}

const char* HostImageList::name(unsigned long i) const {
    return i < images_.size() ? images_[i].name.c_str() : "";
}

const void* HostImageList::header(unsigned long i) const {
    return i < images_.size() ? images_[i].header : nullptr;
}

void* hostLoadLibrary(const char* path, std::string* error) {
    if (!path || !*path) {
        // dlopen("") would hand back the main program, which is not a library
        // at that path.
        if (error) *error = "no library path given";
        return nullptr;
    }
    // Local binding: checking a candidate must not let its symbols take part
    // in the resolution of everything loaded later.
    void* h = ::dlopen(path, RTLD_LAZY | RTLD_LOCAL);
    if (!h && error) {
        const char* msg = ::dlerror();
        *error = msg ? msg : "cannot load library";
    }
    return h;
}

void* hostFindSymbolInLibrary(void* library, const char* symbol) {
    if (!library || !symbol) return nullptr;
    return ::dlsym(library, symbol);
}

void hostUnloadLibrary(void* library) {
    if (library) ::dlclose(library);
}
