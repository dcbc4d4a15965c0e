// Recursive removal of everything a pattern matches.

#include <sys/stat.h>

#include <cstdio>
#include <memory>

#include "orvane/path.h"
#include "orvane/path_string.h"
#include "path/tree_walk.h"

namespace detail {

// Removes one matched entry and everything below it. The flag starts true
// and goes false for good at the first entry that stays.
class RemoveSubtree : public ovStatProcedure {
public:
    void operator()(const char* path) const override;
    void visit(const char* path, const struct stat& st, bool isLink) const override;
    bool succeeded() const { return ok_; }

private:
    void removeDirectory(const char* path, uint16_t mode) const;
    void removeOne(const char* path) const {
        if (::remove(path) != 0) ok_ = false;
    }

    mutable bool ok_ = true;
};

void RemoveSubtree::operator()(const char* path) const {
    struct stat st;
    if (::lstat(path, &st) != 0) {
        ok_ = false;  // matched, yet cannot even be looked at
        return;
    }
    const bool isLink = S_ISLNK(st.st_mode);
    if (isLink && ::stat(path, &st) != 0) {
        removeOne(path);  // a dangling link
        return;
    }
    visit(path, st, isLink);
}

void RemoveSubtree::visit(const char* path, const struct stat& st, bool isLink) const {
    if (isLink) {
        // A link goes as a link: neither what it points at nor that object's
        // permissions are ours to change.
        removeOne(path);
    } else if (S_ISDIR(st.st_mode)) {
        removeDirectory(path, static_cast<uint16_t>(st.st_mode));
    } else {
        // Unlinking needs no permission on the file itself, only on its
        // directory, so the file's own mode is left as it is (it may have
        // other links that would keep a changed mode).
        removeOne(path);
    }
}

void RemoveSubtree::removeDirectory(const char* path, uint16_t oldMode) const {
    // Write permission lets us empty the directory; it is put back should the
    // directory stay. oldMode was read just now by the walker.
    ::chmod(path, (oldMode | 0222) & 07777);

    // Each child goes through a full ovRemoveRF of its own.
    ovPathString inside(path);
    inside.append(ovStringBundle<char, unsigned long>("*"));
    std::unique_ptr<ovStringProcedure> removeChild(ovNewStringProcedure(&ovRemoveRF));
    ovFindMatchingFilesAndDirs(inside.c_str(), *removeChild, *removeChild, 0, false);

    if (::remove(path) != 0) {
        // A child that stayed keeps its parent too, which reports it here.
        ovSetFilePermissions(path, oldMode);
        ok_ = false;
    }
}

}  // namespace detail

bool ovRemoveRF(const char* pattern) {
    detail::RemoveSubtree removeEach;
    ovFindMatchingFilesAndDirs(pattern, removeEach, removeEach, 0, false);
    return removeEach.succeeded();  // true when nothing matched
}
