// A consumer of the installed library: takes the exclusive lock and a write
// lock on a directory, with the standard guards, and shows them on disk.
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>

#include <orvane/orvane.h>

int main(int argc, char** argv) {
    std::string dir = argc > 1 ? argv[1] : "";
    if (dir.empty()) {
        char tmpl[] = "/tmp/orvane-example-XXXXXX";
        if (!mkdtemp(tmpl)) return 1;
        dir = tmpl;
    }
    std::printf("liborvane %s, locking %s\n", liborvane_version, dir.c_str());

    ovDirectoryExclusiveLock queue(dir, "example");
    {
        std::lock_guard<ovDirectoryExclusiveLock> guard(queue);
        std::printf("exclusive lock held: %s\n", ovFileExists((dir + "/.deploy_lock.0").c_str()) ? "yes" : "no");
    }

    ovDirectoryReadWriteLock rw(dir);
    ovDirectoryReadWriteLock::WriteLock writer = rw.getWriteLock();
    {
        std::unique_lock<ovDirectoryReadWriteLock::WriteLock> guard(writer);
        std::printf("write lock held: %s\n", ovFileExists((dir + "/.deploy_write_lock").c_str()) ? "yes" : "no");
    }
    const bool clean = !ovFileExists((dir + "/.deploy_write_lock").c_str()) &&
                       !ovFileExists((dir + "/.deploy_lock.0").c_str());
    std::printf("released: %s\n", clean ? "yes" : "no");
    if (argc <= 1) ovRemoveRF(dir.c_str());
    return clean ? 0 : 1;
}
