#include "store/files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <set>

#include "platform/log.h"

namespace store::fs {

namespace {

const char kTempMarker[] = ".cfgupgrade-";
const size_t kTempSuffixLength = 6;  // the XXXXXX of mkstemp

std::string root() {
    const char* env = std::getenv("CFGUPGRADE_ROOT");
    std::string r = env ? env : "";
    while (!r.empty() && r.back() == '/') r.pop_back();
    return r;
}

void logFailure(const char* what, const std::string& logical, int err) {
    app_log(60, 4, "Cannot %s [%s]: %s\n", what, logical.c_str(), std::strerror(err));
}

std::string parentOf(const std::string& path) {
    size_t slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

std::string baseOf(const std::string& path) { return path.substr(path.rfind('/') + 1); }

mode_t currentUmask() {
    mode_t mask = umask(0);
    umask(mask);
    return mask;
}

// Reads a regular file whole; returns 0 or the errno that stopped it.
int readPhysical(const std::string& path, std::string& bytes) {
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return errno;
    struct stat st;
    int err = fstat(fd, &st) != 0 ? errno : S_ISDIR(st.st_mode) ? EISDIR : !S_ISREG(st.st_mode) ? EINVAL : 0;
    if (err) {
        close(fd);
        return err;
    }
    bytes.clear();
    bytes.reserve(static_cast<size_t>(st.st_size));
    char buffer[16384];
    for (;;) {
        ssize_t n = read(fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            err = errno;
            close(fd);
            return err;
        }
        if (n == 0) break;
        bytes.append(buffer, static_cast<size_t>(n));
    }
    close(fd);
    return 0;
}

int writeAll(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        ssize_t n = write(fd, bytes.data(), bytes.size());
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return errno;
        if (n == 0) return EIO;
        bytes.remove_prefix(static_cast<size_t>(n));
    }
    return 0;
}

// A rename or unlink is only durable once the directory that holds the name is synced.
int syncDirectory(const std::string& dir) {
    int fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return errno;
    int err = fsync(fd) == 0 ? 0 : errno;
    close(fd);
    return err;
}

// Every entry but "." and ".."; returns 0 or the errno that stopped the listing.
// readdir gives null both at the end and on an error (EOVERFLOW on a 32-bit build
// without large-file support, EIO): only errno tells them apart.
int listPhysical(const std::string& dir, std::vector<std::string>& names) {
    DIR* d = opendir(dir.c_str());
    if (!d) return errno;
    for (;;) {
        errno = 0;
        dirent* entry = readdir(d);
        if (!entry) break;
        std::string name = entry->d_name;
        if (name != "." && name != "..") names.push_back(std::move(name));
    }
    int err = errno;
    closedir(d);
    return err;
}

bool isOurTempFile(const std::string& name) {
    size_t marker = sizeof kTempMarker - 1;
    return name.size() > 1 + marker + kTempSuffixLength && name[0] == '.' &&
           name.compare(name.size() - kTempSuffixLength - marker, marker, kTempMarker) == 0;
}

// The logical form of a physical path under the root, for messages.
std::string logicalOf(const std::string& physical) {
    std::string r = root();
    char resolved[PATH_MAX];
    for (const std::string& prefix : {r, std::string(!r.empty() && realpath(r.c_str(), resolved) ? resolved : "")})
        if (!prefix.empty() && physical.compare(0, prefix.size() + 1, prefix + "/") == 0) return physical.substr(prefix.size());
    return physical;
}

// A run cut off by a power loss can leave a temporary file behind; it was never
// renamed into place, so it holds nothing anybody needs. Done once per directory.
// A directory that cannot be listed is reported; the write goes on without it.
void removeStaleTempFiles(const std::string& dir) {
    static std::set<std::string> cleaned;
    if (!cleaned.insert(dir).second) return;
    std::vector<std::string> names;
    int err = listPhysical(dir, names);
    if (err) {
        if (err != ENOENT && err != ENOTDIR) logFailure("list", logicalOf(dir), err);
        return;
    }
    bool removed = false;
    for (const std::string& name : names)
        if (isOurTempFile(name) && unlink((dir + "/" + name).c_str()) == 0) removed = true;
    if (removed) syncDirectory(dir);
}

// A configuration file may be a link: the link stays, its target is replaced.
// Under a root, a target that leaves the root is refused.
int resolveTarget(const std::string& path, std::string& target) {
    struct stat st;
    if (lstat(path.c_str(), &st) != 0 || !S_ISLNK(st.st_mode)) {
        target = path;
        return 0;
    }
    char resolved[PATH_MAX];
    if (!realpath(path.c_str(), resolved)) return errno;
    std::string r = root();
    if (!r.empty()) {
        char rootResolved[PATH_MAX];
        if (!realpath(r.c_str(), rootResolved)) return errno;
        std::string prefix = std::string(rootResolved) + "/";
        if (std::string(resolved).compare(0, prefix.size(), prefix) != 0) return EXDEV;
    }
    target = resolved;
    return 0;
}

// Replaces `target` with `bytes`: temporary file in the same directory, same mode
// and owner, data synced, renamed over the target, directory synced. The original
// is never moved away first, so the name always holds a complete file.
int replaceFile(const std::string& target, std::string_view bytes, mode_t newFileMode) {
    std::string dir = parentOf(target);
    struct stat old;
    bool exists = stat(target.c_str(), &old) == 0;
    if (exists && !S_ISREG(old.st_mode)) return S_ISDIR(old.st_mode) ? EISDIR : EINVAL;

    removeStaleTempFiles(dir);
    std::string temp = dir + "/." + baseOf(target) + kTempMarker + std::string(kTempSuffixLength, 'X');
    int fd = mkstemp(&temp[0]);
    if (fd < 0) return errno;

    int err = 0;
    // mkstemp makes the file 0600; readers of the configuration need the old mode.
    if (fchmod(fd, exists ? (old.st_mode & 07777) : newFileMode) != 0) err = errno;
    if (!err && exists && (old.st_uid != geteuid() || old.st_gid != getegid()) &&
        fchown(fd, old.st_uid, old.st_gid) != 0)
        err = errno;
    if (!err) err = writeAll(fd, bytes);
    // The data must be on the medium before the rename makes it the file; otherwise a
    // power cut after the rename could leave the name pointing at an empty file.
    if (!err && fsync(fd) != 0) err = errno;
    if (close(fd) != 0 && !err) err = errno;
    if (!err && rename(temp.c_str(), target.c_str()) != 0) err = errno;
    if (err) {
        unlink(temp.c_str());
        return err;
    }
    // The rename lives in the directory; until the directory is synced a power cut
    // may bring back the old name. The new content is complete either way.
    return syncDirectory(dir);
}

bool sameContent(const std::string& path, std::string_view bytes) {
    std::string current;
    return readPhysical(path, current) == 0 && current == bytes;
}

int writePhysical(const std::string& logical, std::string_view bytes, mode_t newFileMode) {
    auto path = physicalPath(logical);
    if (!path) return EINVAL;
    std::string target;
    if (int err = resolveTarget(*path, target)) return err;
    // Unchanged bytes are not written at all: flash wear, and the mtime stays.
    if (sameContent(target, bytes)) return 0;
    return replaceFile(target, bytes, newFileMode);
}

}  // namespace

std::optional<std::string> physicalPath(std::string_view logical) {
    if (logical.empty() || logical.front() != '/') return std::nullopt;
    for (size_t pos = 0; pos != std::string_view::npos;) {
        size_t next = logical.find('/', pos + 1);
        std::string_view part = logical.substr(pos + 1, next == std::string_view::npos ? next : next - pos - 1);
        if (part == "..") return std::nullopt;
        pos = next;
    }
    return root() + std::string(logical);
}

std::string canonicalPath(std::string_view logical) {
    std::string out;
    for (size_t pos = 0; pos < logical.size();) {
        size_t next = std::min(logical.find('/', pos), logical.size());
        std::string_view part = logical.substr(pos, next - pos);
        if (part != "." && !(part.empty() && pos > 0)) out.append(part).append(next < logical.size() ? "/" : "");
        pos = next + 1;
    }
    // A trailing slash is kept: "/a.ini/" names no file, "/a.ini" may.
    if (!logical.empty() && logical.back() == '/' && (out.empty() || out.back() != '/')) out += '/';
    return out;
}

bool readFile(const std::string& logical, std::string& bytes) {
    auto path = physicalPath(logical);
    if (!path) return false;
    int err = readPhysical(*path, bytes);
    if (err && err != ENOENT && err != ENOTDIR) logFailure("read", logical, err);
    return err == 0;
}

bool pathExists(const std::string& logical) {
    auto path = physicalPath(logical);
    struct stat st;
    return path && stat(path->c_str(), &st) == 0;
}

bool writeFileAtomically(const std::string& logical, std::string_view bytes) {
    int err = writePhysical(logical, bytes, 0666 & ~currentUmask());
    if (err) logFailure("write", logical, err);
    return err == 0;
}

bool copyFileAtomically(const std::string& dst, const std::string& src) {
    auto from = physicalPath(src);
    std::string bytes;
    int err = from ? readPhysical(*from, bytes) : EINVAL;
    struct stat st;
    mode_t mode = from && stat(from->c_str(), &st) == 0 ? (st.st_mode & 0777) : 0666;
    if (!err) err = writePhysical(dst, bytes, mode & ~currentUmask());
    if (err)
        app_log(60, 4, "Cannot copy [%s] to [%s]: %s\n", src.c_str(), dst.c_str(), std::strerror(err));
    return err == 0;
}

bool removeFile(const std::string& logical) {
    auto path = physicalPath(logical);
    int err = !path ? EINVAL : unlink(path->c_str()) != 0 ? errno : syncDirectory(parentOf(*path));
    if (err && err != ENOENT) logFailure("remove", logical, err);
    return err == 0;
}

bool listDirectory(const std::string& logical, std::vector<std::string>& names) {
    auto path = physicalPath(logical);
    int err = path ? listPhysical(*path, names) : EINVAL;
    if (err && err != ENOENT && err != ENOTDIR) logFailure("list", logical, err);
    return err == 0;
}

}  // namespace store::fs
