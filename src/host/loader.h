#ifndef ORVANE_HOST_LOADER_H
#define ORVANE_HOST_LOADER_H

// The dynamic loader, as the module lookup needs it: the list of loaded
// images (count, name, header address) and load / symbol / unload by path.
// Internal to the library.

#include <string>
#include <vector>

// A consistent copy of the loader's image list, in the loader's order (the
// main program first). The list is read in one pass under the loader's own
// lock, so count, names and headers always agree with each other even when
// another thread loads or unloads a library meanwhile; the names are copies
// and stay valid for the life of this object.
class HostImageList {
public:
    HostImageList();

    unsigned long count() const { return static_cast<unsigned long>(images_.size()); }
    // Path of image i as the loader reports it; the main program's comes from
    // /proc/self/exe, since the loader reports it empty. "" when i is out of
    // range or the loader gave no name.
    const char* name(unsigned long i) const;
    // Address of image i's ELF header in memory; null when i is out of range.
    const void* header(unsigned long i) const;

private:
    struct Image {
        std::string name;
        const void* header;
    };
    std::vector<Image> images_;
};

// Loads (or adds a reference to) the library at path. Null on failure, and
// then *error (when error is not null) receives the loader's message.
void* hostLoadLibrary(const char* path, std::string* error);
// Address of the named symbol as seen from the library (which, as with any
// lookup by handle, includes the libraries it depends on); null when absent.
void* hostFindSymbolInLibrary(void* library, const char* symbol);
// Drops the reference hostLoadLibrary took; null is ignored.
void hostUnloadLibrary(void* library);

#endif
