#include "store/paths.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <set>
#include <utility>
#include <vector>

#include "store/report.h"
#include "store/staging.h"

namespace store::fs {

namespace {

// The writable areas. Nothing outside them is ever created, written, renamed or removed.
struct Area {
    const char* path;   // logical
    bool tree;          // the whole tree under `path`, or that one file
    bool followLinks;   // links in it are followed while they stay in it
    bool ownFileOnly;   // the file counts only when ownedAndGuarded()
};
const Area kWritableAreas[] = {
    {"/config", true, true, false},
    {"/tmp/VersionInfo.cfg", false, false, true},
};

// Files that may hold a password (account files, the direct-IP file, the user file with
// its admin password and PIN, the version record) are created readable by the owner only.
const char* const kPrivatePrefixes[] = {"/config/user/", "/tmp/VersionInfo.cfg"};

// As the kernel's own limit on links followed in one lookup.
const int kMaxLinks = 40;
// No directory tree on a phone is this deep; a loop of bind mounts would be.
const int kMaxDepth = 256;

struct FileId {
    dev_t dev = 0;
    ino_t ino = 0;
    bool operator==(const FileId& o) const { return dev == o.dev && ino == o.ino; }
};

std::optional<FileId> idOf(int fd) {
    struct stat st;
    if (fstat(fd, &st) != 0) return std::nullopt;
    return FileId{st.st_dev, st.st_ino};
}

// The root, opened once per run: every lookup starts from this descriptor.
struct Root {
    int fd = -1;
    int openError = 0;  // why the root could not be opened (out of descriptors, say); 0 when it was
    FileId id;
    std::set<std::string> reported;  // refusals already logged
};

Root& rootState() {
    static Root r;
    return r;
}

// The root of this run (CFGUPGRADE_ROOT, or "/"), opened at its first use after the store
// was last reset: a reset is the only thing that forgets it.
// A root that could not be opened is tried once per reset, and every path under it
// fails with that reason: the refusals are logged once each, not taken for missing files.
Root& root() {
    Root& r = rootState();
    if (r.fd >= 0 || r.openError) return r;
    forgetRoot();
    const char* path = std::getenv("CFGUPGRADE_ROOT");
    r.fd = open(path && *path ? path : "/", O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (r.fd >= 0) r.id = idOf(r.fd).value_or(FileId{});
    else r.openError = isResourceShortage(errno) ? errno : 0;
    return r;
}

// Relative form of a logical path (no leading slashes); "." for the root itself.
std::string relative(std::string_view logical) {
    size_t start = logical.find_first_not_of('/');
    return start == std::string_view::npos ? "." : std::string(logical.substr(start));
}

// Kernels before 5.6 have no openat2, and some sandboxes refuse it; the walk below then
// does the same work. CFGUPGRADE_NO_OPENAT2 forces the walk, so that tests run both.
bool openat2Missing = false;

bool useOpenat2() {
    const char* force = std::getenv("CFGUPGRADE_NO_OPENAT2");
    return !openat2Missing && !(force && *force);
}

// The kernel resolves `rel` below the root, the root standing for "/": ".." stops at it,
// absolute links start from it, and /proc's magic links are refused.
int openat2InRoot(int rootFd, const std::string& rel, int& out) {
    struct open_how how {};
    how.flags = O_PATH | O_DIRECTORY | O_CLOEXEC;
    how.resolve = RESOLVE_IN_ROOT | RESOLVE_NO_MAGICLINKS;
    long fd = syscall(SYS_openat2, rootFd, rel.c_str(), &how, sizeof how);
    if (fd < 0) return errno;
    out = static_cast<int>(fd);
    return 0;
}

// The same without openat2, component by component in the manner of systemd's path
// chasing: each name is opened with O_NOFOLLOW, a link's text is read and spliced into
// what remains, an absolute one restarting at the root, and ".." never climbs above it.
int walkInRoot(int rootFd, const FileId& rootId, const std::string& rel, int& out) {
    Fd current(fcntl(rootFd, F_DUPFD_CLOEXEC, 0));
    if (current.get() < 0) return errno;
    std::vector<std::string> todo;  // components still to resolve, the next one last
    auto push = [&todo](std::string_view path) {
        std::vector<std::string> parts;
        for (size_t pos = 0; pos <= path.size();) {
            size_t next = std::min(path.find('/', pos), path.size());
            if (next > pos) parts.emplace_back(path.substr(pos, next - pos));
            pos = next + 1;
        }
        todo.insert(todo.end(), parts.rbegin(), parts.rend());
    };
    push(rel);
    int links = 0;
    while (!todo.empty()) {
        std::string part = std::move(todo.back());
        todo.pop_back();
        if (part == ".") continue;
        if (part == "..") {
            if (idOf(current.get()) == std::optional<FileId>(rootId)) continue;
            int up = openat(current.get(), "..", O_PATH | O_DIRECTORY | O_CLOEXEC);
            if (up < 0) return errno;
            current.reset(up);
            continue;
        }
        Fd next(openat(current.get(), part.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
        if (next.get() < 0) return errno;
        struct stat st;
        if (fstat(next.get(), &st) != 0) return errno;
        if (S_ISDIR(st.st_mode)) {
            current.reset(next.release());
            continue;
        }
        if (!S_ISLNK(st.st_mode)) return ENOTDIR;
        if (++links > kMaxLinks) return ELOOP;
        char target[4096];
        ssize_t n = readlinkat(current.get(), part.c_str(), target, sizeof target - 1);
        if (n < 0) return errno;
        if (n == 0) return ENOENT;
        if (target[0] == '/') {
            int fresh = fcntl(rootFd, F_DUPFD_CLOEXEC, 0);
            if (fresh < 0) return errno;
            current.reset(fresh);
        }
        push(std::string_view(target, static_cast<size_t>(n)));
    }
    out = current.release();
    return 0;
}

// A directory path below the root, resolved by the kernel where it can.
int openDirInRoot(const std::string& rel, int& out) {
    Root& r = root();
    if (r.fd < 0) return r.openError ? r.openError : ENOENT;
    if (useOpenat2()) {
        int err = openat2InRoot(r.fd, rel, out);
        if (err != ENOSYS && err != EPERM && err != E2BIG) return err;
        openat2Missing = true;
    }
    return walkInRoot(r.fd, r.id, rel, out);
}

// Directories resolved since the store last committed, by the relative path that reached
// them, with the areas they were found within. The files of one directory (fifty
// certificates, seventeen account files) then cost a lookup of their own name each, not a
// walk from the root and a climb to the area's home. Dropped at every commit, as the
// store drops what it knows of spellings, and with the root.
struct KnownDir {
    int fd = -1;  // O_PATH, as openDirInRoot gave it; owned here
    std::vector<std::pair<const Area*, bool>> within;  // verdicts of isWithin, by area
    std::string key;  // "DEV:INO/", asked once: an open descriptor's file never changes
};

// The directory's key, or nullopt when its status cannot be had.
std::optional<std::string> keyOf(KnownDir& dir) {
    if (dir.key.empty())
        if (std::optional<FileId> id = idOf(dir.fd)) dir.key = std::to_string(id->dev) + ":" + std::to_string(id->ino) + "/";
    return dir.key.empty() ? std::nullopt : std::optional<std::string>(dir.key);
}

std::vector<std::pair<std::string, KnownDir>>& knownDirs() {
    static std::vector<std::pair<std::string, KnownDir>> dirs;
    return dirs;
}

void dropKnownDirs() {
    for (auto& entry : knownDirs()) close(entry.second.fd);
    knownDirs().clear();
}

// The directory `rel` names, opened once per step; null when it cannot be opened (`err`).
KnownDir* knownDir(const std::string& rel, int& err) {
    root();  // a new root forgets the directories of the old one
    for (auto& entry : knownDirs())
        if (entry.first == rel) return &entry.second;
    int fd = -1;
    if ((err = openDirInRoot(rel, fd)) != 0) return nullptr;
    knownDirs().emplace_back(rel, KnownDir{fd, {}, {}});
    return &knownDirs().back().second;
}

// 0 when `dir` is `home` or lies below it, kLinkLeavesArea when it does not, or the
// errno that kept the climb from telling (no descriptor left: not a link's doing).
// Climbs with ".." as the kernel sees the tree (through mount points), so no spelling
// of a path can pass for another.
int isWithin(int dir, const FileId& home, const FileId& rootId) {
    Fd current(fcntl(dir, F_DUPFD_CLOEXEC, 0));
    if (current.get() < 0) return errno;
    for (int depth = 0; depth < kMaxDepth; ++depth) {
        std::optional<FileId> id = idOf(current.get());
        if (!id) return errno;
        if (*id == home) return 0;
        if (*id == rootId) return kLinkLeavesArea;
        Fd up(openat(current.get(), "..", O_PATH | O_DIRECTORY | O_CLOEXEC));
        if (up.get() < 0) return errno;
        if (idOf(up.get()) == id) return kLinkLeavesArea;  // the top of the filesystem
        current.reset(up.release());
    }
    return kLinkLeavesArea;
}

const Area* areaOf(std::string_view logical) {
    std::string canonical = canonicalPath(logical);
    for (const Area& area : kWritableAreas) {
        size_t n = std::strlen(area.path);
        if (canonical.compare(0, n, area.path) != 0) continue;
        if (canonical.size() == n ? !area.tree : area.tree && canonical[n] == '/') return &area;
    }
    return nullptr;
}

bool isPrivate(std::string_view logical) {
    std::string canonical = canonicalPath(logical);
    for (const char* prefix : kPrivatePrefixes)
        if (canonical.compare(0, std::strlen(prefix), prefix) == 0) return true;
    return false;
}

// The directory every file of the area must lie in (a tree) or be named in (one file).
int areaHome(const Area& area, FileId& home) {
    std::string rel = relative(area.tree ? std::string(area.path) : canonicalPath(std::string(area.path) + "/.."));
    int fd = -1;
    if (int err = openDirInRoot(rel, fd)) return err;
    Fd guard(fd);
    std::optional<FileId> id = idOf(fd);
    if (!id) return errno;
    home = *id;
    return 0;
}

std::string baseName(std::string_view path) { return std::string(path.substr(path.rfind('/') + 1)); }

void splitLast(const std::string& rel, std::string& dir, std::string& name) {
    size_t slash = rel.rfind('/');
    dir = slash == std::string::npos ? "." : rel.substr(0, slash);
    name = slash == std::string::npos ? rel : rel.substr(slash + 1);
    if (dir.empty()) dir = ".";
}

}  // namespace

bool isResourceShortage(int err) { return err == EMFILE || err == ENFILE || err == ENOMEM; }

const char* describe(int err) {
    switch (err) {
        case kOutsideWritableAreas: return "outside the areas this tool may write";
        case kLinkLeavesArea: return "a symbolic link leads out of its area";
        case kNotRegularFile: return "not a regular file";
        case kUntrustedRecord: return "not a regular file of this user guarded from others";
        case kTooDeep: return "nested too deep";
        case kNotAbsolute: return "not an absolute path";
        case kNulReference: return "a character reference to NUL";
        case kSameFile: return "they are the same file";
        case kOverBudget: return "too large to hold within the memory the run allows itself";
        default: return std::strerror(err);
    }
}

namespace {

// Where a path leads, found without opening anything of its own: the directory (one of
// the known directories), the name in it, its area, and the name's own status.
struct Found {
    KnownDir* dir = nullptr;
    std::string name;
    const Area* area = nullptr;
    Lookup lookup;
};

// A path whose last part only a directory can have ("a/", "a/.", "a/..") is refused as the
// kernel refuses it: "Is a directory"; "Not a directory" when what it names is a file, and
// missing when nothing is there.
int directoryNameError(const std::string& rel) {
    int fd = -1;
    int err = openDirInRoot(rel, fd);
    Fd guard(fd);
    return err == ENOTDIR || err == ENOENT ? err : EISDIR;
}

int locate(std::string_view logical, Access access, Found& out) {
    if (logical.empty() || logical.front() != '/') return kNotAbsolute;
    const Area* area = areaOf(logical);
    if (access != Access::kRead && !area) return kOutsideWritableAreas;
    std::string rel = relative(logical), dirRel, name;
    splitLast(rel, dirRel, name);
    if (name.empty() || name == "." || name == "..") return directoryNameError(rel);

    // The directory is resolved by the kernel; a link in the last place is followed here,
    // one at a time, so that its target's directory and name are known.
    KnownDir* dir = nullptr;
    struct stat st;
    bool present = false;
    for (int links = 0;; ++links) {
        int err = 0;
        if (!(dir = knownDir(dirRel, err))) {
            // A link whose target is not there still says where it leads.
            bool leaves = links > 0 && area && !isResourceShortage(err) && areaOf("/" + dirRel + "/" + name) != area;
            return leaves ? kLinkLeavesArea : err;
        }
        int fd = dir->fd;
        present = fstatat(fd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0;
        if (!present || !S_ISLNK(st.st_mode)) break;
        if (area && !area->followLinks) break;  // never followed: the record is judged as found
        if (access == Access::kRemove) break;   // the link is the name removed
        if (links >= kMaxLinks) return ELOOP;
        char target[4096];
        ssize_t n = readlinkat(fd, name.c_str(), target, sizeof target - 1);
        if (n <= 0) return n < 0 ? errno : ENOENT;
        std::string text(target, static_cast<size_t>(n));
        std::string targetRel = text[0] == '/' ? relative(text) : dirRel + "/" + text;
        splitLast(targetRel, dirRel, name);
        if (name.empty() || name == "." || name == "..") return directoryNameError(targetRel);
    }
    if (area) {
        auto known = std::find_if(dir->within.begin(), dir->within.end(), [area](const auto& w) { return w.first == area; });
        if (known == dir->within.end()) {
            FileId home;
            if (int err = areaHome(*area, home)) return err;
            int within = area->tree ? isWithin(dir->fd, home, root().id) : idOf(dir->fd) == std::optional<FileId>(home) ? 0 : kLinkLeavesArea;
            if (within > 0) return within;  // not known either way: asked again next time
            known = dir->within.insert(dir->within.end(), {area, within == 0});
        }
        if (!known->second || (!area->tree && name != baseName(area->path))) return kLinkLeavesArea;
    }
    out.dir = dir;
    out.name = std::move(name);
    out.area = area;
    out.lookup.present = present;
    if (present) out.lookup.st = st;
    out.lookup.ownFileOnly = area && area->ownFileOnly;
    return 0;
}

}  // namespace

int resolve(std::string_view logical, Access access, Location& out) {
    Found found;
    if (int err = locate(logical, access, found)) return err;
    // fsync and listing need a descriptor opened for reading, not a bare O_PATH one.
    std::optional<std::string> key = keyOf(*found.dir);
    if (!key) return errno;
    out.dir = found.dir->fd;
    out.dirKey = std::move(*key);
    out.name = std::move(found.name);
    out.privateFile = isPrivate(logical);
    out.ownFileOnly = found.lookup.ownFileOnly;
    return 0;
}

// A question about a name costs the one look at it that resolving it makes anyway.
int lookup(std::string_view logical, Access access, Lookup& out) {
    Found found;
    if (int err = locate(logical, access, found)) return err;
    out = found.lookup;
    return 0;
}

int openDirectory(std::string_view logical, int& dir) {
    if (logical.empty() || logical.front() != '/') return kNotAbsolute;
    int fd = -1;
    if (int err = openDirInRoot(relative(logical), fd)) return err;
    Fd guard(fd);
    // Configuration directories are listed only inside their own area.
    const Area* area = areaOf(logical);
    FileId home;
    if (area && area->tree) {
        if (int err = areaHome(*area, home)) return err;
        if (int within = isWithin(fd, home, root().id)) return within;
    }
    dir = openat(fd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    return dir < 0 ? errno : 0;
}

bool ownedAndGuarded(const struct stat& st) {
    return S_ISREG(st.st_mode) && st.st_uid == geteuid() && (st.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

std::optional<std::string> identity(std::string_view logical, Lookup* seen) {
    Found found;
    if (locate(logical, Access::kRead, found) != 0) return std::nullopt;
    std::optional<std::string> key = keyOf(*found.dir);
    if (!key) return std::nullopt;
    if (seen) *seen = found.lookup;
    return *key + found.name;
}

std::optional<std::string> physicalPath(std::string_view logical) {
    if (logical.empty() || logical.front() != '/') return std::nullopt;
    const char* env = std::getenv("CFGUPGRADE_ROOT");
    std::string r = env ? env : "";
    while (!r.empty() && r.back() == '/') r.pop_back();
    return r + canonicalPath(logical);
}

std::string canonicalPath(std::string_view logical) {
    // ".." of "/" is "/", as the kernel has it: nothing climbs above the root.
    std::vector<std::string_view> parts;
    for (size_t pos = 0; pos <= logical.size();) {
        size_t next = std::min(logical.find('/', pos), logical.size());
        std::string_view part = logical.substr(pos, next - pos);
        if (part == "..") {
            if (!parts.empty()) parts.pop_back();
        } else if (!part.empty() && part != ".") {
            parts.push_back(part);
        }
        pos = next + 1;
    }
    std::string out = logical.empty() || logical.front() != '/' ? "" : "/";
    for (size_t i = 0; i < parts.size(); ++i) out.append(i ? "/" : "").append(parts[i]);
    // A trailing slash, dot or dot-dot is kept as a slash: "/a.ini/" names no file, "/a.ini" may.
    std::string_view last = logical.substr(logical.rfind('/') + 1);  // npos + 1 is 0: no slash, all of it
    bool endsInDirectory = !logical.empty() && (logical.back() == '/' || last == "." || last == "..");
    if (endsInDirectory && (out.empty() || out.back() != '/')) out += '/';
    return out;
}

void reportOnce(const char* what, std::string_view logical, int err) {
    // One line per path: a file refused for reading is not refused again for writing.
    if (!root().reported.insert(std::string(logical)).second) return;
    report("Cannot %s [%.*s]: %s", what, static_cast<int>(logical.size()), logical.data(), describe(err));
}

void forgetDirectories() {
    // A staged run changes nothing on disk (it creates no directory, and its files are
    // kept in memory): what it resolved stays true to its end.
    if (staging()) return;
    dropKnownDirs();
}

void forgetRoot() {
    dropKnownDirs();
    Root& r = rootState();
    if (r.fd >= 0) close(r.fd);
    r.fd = -1;
    r.openError = 0;
    r.reported.clear();
}

}  // namespace store::fs
