#ifndef ORVANE_BENCH_LOCK_DIRS_H
#define ORVANE_BENCH_LOCK_DIRS_H

// The directories the lock benchmarks contend in: ORVANE_BENCH_LOCK_DIRS,
// colon-separated names of one shared directory (say, two network mounts of
// it), contender i using the (i mod count)-th; or, when unset, one fresh
// directory under /tmp.

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <sys/xattr.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench_clock.h"
#include "bench_env.h"
#include "orvane/path.h"

namespace benchutil {

class LockDirs {
public:
    LockDirs() {
        std::string list = env("ORVANE_BENCH_LOCK_DIRS", "");
        if (list.empty()) {
            char templ[] = "/tmp/orvane-lockbench-XXXXXX";
            if (!mkdtemp(templ)) std::abort();
            own_ = templ;
            dirs_.push_back(own_);
            return;
        }
        size_t start = 0;
        while (start <= list.size()) {
            size_t end = list.find(':', start);
            if (end == std::string::npos) end = list.size();
            if (end > start) dirs_.push_back(list.substr(start, end - start));
            start = end + 1;
        }
        // A run whose contenders died leaves their files; start clean.
        for (const std::string& name : entries()) unlink((dirs_[0] + "/" + name).c_str());
    }
    ~LockDirs() {
        if (!own_.empty()) ovRemoveRF(own_.c_str());
    }
    LockDirs(const LockDirs&) = delete;
    LockDirs& operator=(const LockDirs&) = delete;

    size_t count() const { return dirs_.size(); }
    const std::string& forContender(int i) const { return dirs_[i % dirs_.size()]; }
    // Anything still in the directory after a run (should be nothing).
    std::string leftovers() const {
        std::string out;
        for (const std::string& name : entries()) out += name + " ";
        return out;
    }

    // A new subdirectory `name`, made through the first name and returned
    // under every name once each of them shows it. A name never used before
    // keeps one run clear of what the clients still cache of the last one.
    std::vector<std::string> makeSubdir(const std::string& name) const {
        std::vector<std::string> out;
        for (const std::string& d : dirs_) out.push_back(d + "/" + name);
        if (mkdir(out[0].c_str(), 0777) != 0) throw std::runtime_error("cannot make " + out[0]);
        for (const std::string& d : out) {
            const long long end = nowNs() + 20000000000LL;
            struct stat st;
            while (stat(d.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
                if (nowNs() > end) throw std::runtime_error(d + " did not appear within 20 s");
                sleepNs(10000000);
            }
        }
        return out;
    }
    // Removes a subdirectory made above, through the first name.
    void removeSubdir(const std::string& name) const { ovRemoveRF((dirs_[0] + "/" + name).c_str()); }

private:
    // A name the client still lists after another client removed it (an
    // sshfs client keeps its listing for 20 s): the server, asked by
    // attribute (GlusterFS) or by an open (sshfs), says it is gone.
    static bool removedElsewhere(const std::string& path) {
        char value[1];
        if (lgetxattr(path.c_str(), "user.orvane.probe", value, sizeof value) < 0 &&
            (errno == ENOENT || errno == ESTALE))
            return true;
        const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY);
        if (fd >= 0) {
            close(fd);
            return false;
        }
        return errno == ENOENT;
    }

    // The directory's entries, without the names a FUSE client gives files
    // that were removed while a (killed) process still had them open, and
    // without names removed through another client.
    std::vector<std::string> entries() const {
        std::vector<std::string> out;
        if (DIR* d = opendir(dirs_[0].c_str())) {
            while (dirent* e = readdir(d)) {
                const std::string name = e->d_name;
                if (name != "." && name != ".." && name.compare(0, 12, ".fuse_hidden") != 0 &&
                    !removedElsewhere(dirs_[0] + "/" + name)) {
                    out.push_back(name);
                }
            }
            closedir(d);
        }
        return out;
    }

    std::vector<std::string> dirs_;
    std::string own_;
};

}  // namespace benchutil

#endif
