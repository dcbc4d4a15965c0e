#include "lock_status.h"

#include <dirent.h>

#include <algorithm>
#include <chrono>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <thread>
#include <tuple>

#include <boost/date_time/posix_time/posix_time.hpp>

#include "orvane/lock_file.h"
#include "orvane/path_string.h"
#include "orvane/rw_lock.h"

namespace orvane_tool {

namespace {

const char kLevelPrefix[] = ".deploy_lock.";

bool allDigits(const std::string& s) {
    return !s.empty() && s.size() <= 9 &&
           std::all_of(s.begin(), s.end(), [](char c) { return c >= '0' && c <= '9'; });
}

bool startsWith(const std::string& s, const std::string& prefix) {
    return s.compare(0, prefix.size(), prefix) == 0;
}

// Role of a directory entry, or false when it is no lock file of ours.
bool classify(const std::string& name, LockFileInfo& info) {
    info.name = name;
    info.level = -1;
    if (startsWith(name, kLevelPrefix) && allDigits(name.substr(sizeof kLevelPrefix - 1))) {
        info.level = std::atol(name.c_str() + sizeof kLevelPrefix - 1);
        info.role = info.level == 0 ? "queue holder" : "queue waiter";
        return true;
    }
    if (name == WRITE_LOCK_BASE) {
        info.role = "writer";
        return true;
    }
    if (startsWith(name, READ_LOCK_BASE) && allDigits(name.substr(READ_LOCK_BASE.size()))) {
        info.role = "reader";
        return true;
    }
    return false;
}

// Queue levels in order, then the writer, then readers by number.
int group(const LockFileInfo& f) { return f.level >= 0 ? 0 : f.role == "writer" ? 1 : 2; }

bool before(const LockFileInfo& a, const LockFileInfo& b) {
    return std::make_tuple(group(a), a.level, a.name.size(), a.name) <
           std::make_tuple(group(b), b.level, b.name.size(), b.name);
}

std::string joinPath(const std::string& dir, const std::string& name) {
    return (!dir.empty() && dir.back() == '/') ? dir + name : dir + "/" + name;
}

// Sets `refreshing` on each file whose content changes while watched. The
// content is read through fresh opens, so even a client that caches file
// times sees each rewrite; a file that vanishes counts as not refreshed.
void watchForRefreshes(const std::string& dir, const boost::shared_ptr<ovAbstractFS>& fs,
                       std::vector<LockFileInfo>& files) {
    auto read = [&](const LockFileInfo& f, std::string& content) {
        try {
            return fs->readLockFileContent(joinPath(dir, f.name), content);
        } catch (const ovFileAccessError&) {
            return false;  // unreadable: nothing to watch
        }
    };
    std::vector<std::string> first(files.size());
    std::vector<bool> watched(files.size());
    for (size_t i = 0; i < files.size(); ++i) watched[i] = read(files[i], first[i]);
    const auto end = std::chrono::steady_clock::now() +
                     std::chrono::milliseconds(static_cast<long>(kRefreshWatchSeconds * 1000));
    for (bool pending = true; pending && std::chrono::steady_clock::now() < end;) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        pending = false;
        for (size_t i = 0; i < files.size(); ++i) {
            if (!watched[i] || files[i].refreshing) continue;
            std::string now;
            if (!read(files[i], now)) {
                watched[i] = false;  // gone
            } else if (now != first[i]) {
                files[i].refreshing = true;
            } else {
                pending = true;
            }
        }
    }
}

}  // namespace

std::vector<LockFileInfo> collectLockFiles(const std::string& dir,
                                           const boost::shared_ptr<ovAbstractFS>& fs) {
    std::vector<LockFileInfo> found;
    {
        std::unique_ptr<DIR, int (*)(DIR*)> d(opendir(dir.c_str()), closedir);
        if (!d) {
            const int err = errno;
            if (err == ENOENT || err == ENOTDIR)
                throw ovNoSuchDirectory("Tried to obtain a lock on a non-existent directory: " + dir);
            if (err == EACCES) throw ovPermissionDenied("Cannot list directory: " + dir);
            throw ovFileAccessError("File system error occurred: " + dir + " (" + std::strerror(err) + ")");
        }
        while (struct dirent* e = readdir(d.get())) {
            LockFileInfo info;
            if (classify(e->d_name, info)) found.push_back(info);
        }
    }
    if (found.empty()) return found;
    watchForRefreshes(dir, fs, found);

    using namespace boost::posix_time;
    // Ages are read off the file server's clock, measured once with a probe
    // file exactly as the staleness test does it, so `stale` here agrees with
    // what a waiting lock would decide.
    const FileTimeCalibration toUtc(ovPathString(dir), ovSteadyNow() + seconds(5), fs);
    std::vector<LockFileInfo> judged;
    for (LockFileInfo& info : found) {
        const ptime now = microsec_clock::universal_time();
        time_t modified;
        try {
            modified = fs->getFileLastModifiedTime(joinPath(dir, info.name).c_str());
        } catch (const ovFileNotFoundError&) {
            continue;  // released while we looked
        }
        const ptime written = toUtc(static_cast<long>(modified));
        info.ageSeconds = static_cast<long>((now - written).total_seconds());
        info.stale = written + seconds(kStaleSeconds) < now;
        judged.push_back(info);
    }
    std::sort(judged.begin(), judged.end(), before);
    return judged;
}

void printTable(std::ostream& out, const std::string& dir, const std::vector<LockFileInfo>& files) {
    if (files.empty()) {
        out << "No lock files in " << dir << "\n";
        return;
    }
    size_t width = 4;
    for (const LockFileInfo& f : files) width = std::max(width, f.name.size());
    char line[512];
    std::snprintf(line, sizeof line, "%-*s  %-16s %8s  %-5s  %s\n", int(width), "FILE", "ROLE", "AGE", "STATE",
                  "HOLDER");
    out << "Lock files in " << dir << ":\n" << line;
    for (const LockFileInfo& f : files) {
        std::string role = f.role;
        if (f.level > 0) role += " " + std::to_string(f.level);
        std::snprintf(line, sizeof line, "%-*s  %-16s %7lds  %-5s  %s\n", int(width), f.name.c_str(), role.c_str(),
                      f.ageSeconds, f.stale ? "stale" : "live", f.refreshing ? "refreshing" : "silent");
        out << line;
    }
}

std::string jsonString(const std::string& text) {
    std::string s = "\"";
    for (unsigned char c : text) {
        switch (c) {
            case '"': s += "\\\""; break;
            case '\\': s += "\\\\"; break;
            case '\n': s += "\\n"; break;
            case '\r': s += "\\r"; break;
            case '\t': s += "\\t"; break;
            case '\b': s += "\\b"; break;
            case '\f': s += "\\f"; break;
            default:
                if (c < 0x20 || c == 0x7f) {
                    char esc[8];
                    std::snprintf(esc, sizeof esc, "\\u%04x", c);
                    s += esc;
                } else {
                    s += char(c);
                }
        }
    }
    return s + "\"";
}

void printJson(std::ostream& out, const std::string& dir, const std::vector<LockFileInfo>& files) {
    out << "{\"directory\": " << jsonString(dir) << ", \"stale_after_seconds\": " << kStaleSeconds
        << ", \"locks\": [";
    for (size_t i = 0; i < files.size(); ++i) {
        const LockFileInfo& f = files[i];
        out << (i ? ", " : "") << "{\"file\": " << jsonString(f.name) << ", \"role\": " << jsonString(f.role)
            << ", \"level\": ";
        if (f.level >= 0)
            out << f.level;
        else
            out << "null";
        out << ", \"age_seconds\": " << f.ageSeconds << ", \"state\": " << (f.stale ? "\"stale\"" : "\"live\"")
            << ", \"refreshing\": " << (f.refreshing ? "true" : "false") << "}";
    }
    out << "]}\n";
}

}  // namespace orvane_tool
