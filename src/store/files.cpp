#include "store/files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <set>
#include <utility>

#include "store/pages.h"
#include "store/report.h"
#include "store/staging.h"

namespace store::fs {

namespace {

// Temporary files are ".cfgupgrade-" and eight letters or digits: the same length for
// every target, so any name the directory can hold can be written, and the clean-up of
// a cut run removes that pattern and nothing else.
const char kTempPrefix[] = ".cfgupgrade-";
const size_t kTempPrefixLength = sizeof kTempPrefix - 1;
const size_t kTempRandomLength = 8;
const int kTempAttempts = 100;

void logFailure(const char* what, const std::string& logical, int err) {
    report("Cannot %s [%s]: %s", what, logical.c_str(), describe(err));
}

std::string parentOf(const std::string& logical) {
    size_t slash = logical.rfind('/');
    return slash == 0 || slash == std::string::npos ? "/" : logical.substr(0, slash);
}

// Opens a file of `at` for reading. The type is looked at before the open, so a FIFO is
// never waited on and a device is never opened, and again after it, on the descriptor.
int openRegular(const Location& at, Fd& fd, struct stat& st) {
    if (fstatat(at.dir, at.name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) return errno;
    if (at.ownFileOnly && !ownedAndGuarded(st)) return kUntrustedRecord;
    if (S_ISDIR(st.st_mode)) return EISDIR;
    if (!S_ISREG(st.st_mode)) return kNotRegularFile;
    int opened = openat(at.dir, at.name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (opened < 0) return errno;
    fd.reset(opened);
    struct stat now;
    if (fstat(opened, &now) != 0) return errno;
    if (now.st_dev != st.st_dev || now.st_ino != st.st_ino || !S_ISREG(now.st_mode)) return kNotRegularFile;
    st = now;
    return 0;
}

// Reads at most `limit` bytes; a longer file (one that grew, too) is refused whole.
// The bytes go straight into the text, sized by the file's status with a byte to spare
// to see the end: no second copy of the file, and two reads for a file that did not
// change meanwhile.
int readLimited(int fd, const struct stat& st, size_t limit, std::string& bytes) {
    if (st.st_size < 0 || static_cast<uint64_t>(st.st_size) > limit) return EFBIG;
    bytes.clear();
    bytes.reserve(static_cast<size_t>(st.st_size) + 1);
    prefaultPages(&bytes[0], bytes.capacity());
    bytes.resize(static_cast<size_t>(st.st_size) + 1);
    size_t size = 0;
    for (;;) {
        if (size == bytes.size()) bytes.resize(std::min(limit + 1, 2 * bytes.size()));  // it grew
        ssize_t n = readUninterrupted(fd, &bytes[size], bytes.size() - size);
        if (n < 0) return errno;
        if (n == 0) break;
        size += static_cast<size_t>(n);
        if (size > limit) return EFBIG;
    }
    bytes.resize(size);
    return 0;
}

// A staged file, for a read under staging: its bytes, or ENOENT for a staged removal.
// -1 when the disk has the answer.
int readStaged(const Location& at, std::string& bytes, struct stat& st) {
    const StagedFile* staged = staging() ? stagedFile(stagingKey(at)) : nullptr;
    if (!staged) return -1;
    if (!staged->exists) return ENOENT;
    bytes = staged->bytes;
    st = {};
    st.st_mode = S_IFREG | staged->mode;
    st.st_size = static_cast<off_t>(bytes.size());
    return 0;
}

int readAt(const Location& at, std::string& bytes, size_t limit, struct stat& st) {
    int staged = readStaged(at, bytes, st);
    if (staged >= 0) return staged;
    Fd fd;
    if (int err = openRegular(at, fd, st)) return err;
    return readLimited(fd.get(), st, limit, bytes);
}

// True when the open file holds exactly `bytes`; read in pieces, so the comparison
// costs no second copy of the file.
bool holdsExactly(int fd, const struct stat& st, std::string_view bytes) {
    if (static_cast<uint64_t>(st.st_size) != bytes.size()) return false;
    char buffer[16384];
    size_t seen = 0;
    for (;;) {
        ssize_t n = readUninterrupted(fd, buffer, sizeof buffer);
        if (n <= 0) return n == 0 && seen == bytes.size();
        if (seen + static_cast<size_t>(n) > bytes.size() || std::memcmp(buffer, bytes.data() + seen, static_cast<size_t>(n)) != 0)
            return false;
        seen += static_cast<size_t>(n);
    }
}

int writeAll(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        ssize_t n = writeUninterrupted(fd, bytes.data(), bytes.size());
        if (n < 0) return errno;
        if (n == 0) return EIO;
        bytes.remove_prefix(static_cast<size_t>(n));
    }
    return 0;
}

bool isTempName(const char* name) {
    if (std::strlen(name) != kTempPrefixLength + kTempRandomLength) return false;
    if (std::strncmp(name, kTempPrefix, kTempPrefixLength) != 0) return false;
    for (const char* c = name + kTempPrefixLength; *c; ++c)
        if (!((*c >= 'a' && *c <= 'z') || (*c >= 'A' && *c <= 'Z') || (*c >= '0' && *c <= '9'))) return false;
    return true;
}

// A temporary name nobody guesses by chance; O_EXCL makes a clash harmless, not fatal.
std::string tempName() {
    static uint64_t state = [] {
        timespec now{};
        clock_gettime(CLOCK_MONOTONIC, &now);
        return static_cast<uint64_t>(now.tv_nsec) ^ (static_cast<uint64_t>(now.tv_sec) << 32) ^ static_cast<uint64_t>(getpid());
    }();
    static const char kChars[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
    uint64_t z = (state += 0x9E3779B97F4A7C15ull);  // splitmix64
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    z ^= z >> 31;
    std::string name = kTempPrefix;
    for (size_t i = 0; i < kTempRandomLength; ++i, z /= 62) name += kChars[z % 62];
    return name;
}

int createTemp(int dir, mode_t mode, std::string& name) {
    for (int attempt = 0; attempt < kTempAttempts; ++attempt) {
        name = tempName();
        int fd = openat(dir, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
        if (fd >= 0 || errno != EEXIST) return fd < 0 ? -errno : fd;
    }
    return -EEXIST;
}

// A rename or unlink is only durable once the directory that holds the name is synced.
// `dir` may be a bare O_PATH descriptor, which fsync refuses: the sync takes its own.
int syncDirectory(int dir) {
    Fd readable(openat(dir, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (readable.get() < 0) return errno;
    return fsync(readable.get()) == 0 ? 0 : errno;
}

// Every entry but "." and ".."; returns 0 or the errno that stopped the listing.
// readdir gives null both at the end and on an error (EOVERFLOW on a 32-bit build
// without large-file support, EIO): only errno tells them apart.
// With `plainOnly`, links and entries of a type the system does not give are left out.
int listOpen(int dir, std::vector<std::string>& names, bool plainOnly = false) {
    int own = openat(dir, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (own < 0) return errno;
    DIR* d = fdopendir(own);
    if (!d) {
        int err = errno;
        close(own);
        return err;
    }
    for (;;) {
        errno = 0;
        dirent* entry = readdir(d);
        if (!entry) break;
        if (plainOnly && (entry->d_type == DT_LNK || entry->d_type == DT_UNKNOWN)) continue;
        std::string name = entry->d_name;
        if (name != "." && name != "..") names.push_back(std::move(name));
    }
    int err = errno;
    closedir(d);
    if (staging()) applyStagedEntries(dir, names);
    return err;
}

// Only what this tool could have left: a regular file of its own user, of the exact
// pattern. A name that merely matches may belong to someone else.
bool isOwnTempFile(int dir, const char* name) {
    struct stat st;
    return isTempName(name) && fstatat(dir, name, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(st.st_mode) &&
           st.st_uid == geteuid();
}

// A run cut off by a power loss can leave a temporary file behind; it was never
// renamed into place, so it holds nothing anybody needs. Done once per directory.
// A directory that cannot be listed is reported; the write goes on without it.
void removeStaleTempFiles(int dir, const std::string& logicalDir) {
    static std::set<std::string> cleaned;
    if (!cleaned.insert(physicalPath(logicalDir).value_or(logicalDir)).second) return;
    std::vector<std::string> names;
    if (int err = listOpen(dir, names)) {
        logFailure("list", logicalDir, err);
        return;
    }
    // No fsync of its own: the replacement this cleaning comes before syncs the directory,
    // and a removal a cut takes back only leaves the file for the next run to remove.
    for (const std::string& name : names)
        if (isOwnTempFile(dir, name.c_str())) unlinkat(dir, name.c_str(), 0);
}

struct Attribute {
    std::string name, value;
};

// Names in a NUL-separated list as flistxattr gives it.
std::vector<std::string> splitNames(const std::string& list) {
    std::vector<std::string> names;
    for (size_t pos = 0; pos < list.size(); pos = list.find('\0', pos) + 1) names.emplace_back(list.c_str() + pos);
    return names;
}

int listAttributeNames(int fd, std::vector<std::string>& names) {
    for (;;) {
        ssize_t size = flistxattr(fd, nullptr, 0);
        if (size < 0) return errno == ENOTSUP ? 0 : errno;  // no attributes on this filesystem
        std::string list(static_cast<size_t>(size), '\0');
        size = flistxattr(fd, &list[0], list.size());
        if (size < 0) {
            if (errno == ERANGE) continue;  // grew in between
            return errno;
        }
        list.resize(static_cast<size_t>(size));
        names = splitNames(list);
        return 0;
    }
}

// Every extended attribute of the file: security labels, ACLs, user and trusted data
// (the last only where this process may see them).
int readAttributes(int fd, std::vector<Attribute>& attributes) {
    std::vector<std::string> names;
    if (int err = listAttributeNames(fd, names)) return err;
    for (const std::string& name : names) {
        ssize_t size = fgetxattr(fd, name.c_str(), nullptr, 0);
        if (size < 0) {
            if (errno == ENODATA) continue;  // removed in between
            return errno;
        }
        std::string value(static_cast<size_t>(size), '\0');
        size = fgetxattr(fd, name.c_str(), &value[0], value.size());
        if (size < 0) return errno;
        value.resize(static_cast<size_t>(size));
        attributes.push_back({name, std::move(value)});
    }
    return 0;
}

// Gives the new file exactly the old file's attributes. One that cannot be set means
// the file is not replaced: a daemon may no longer be allowed to read it without its
// label or ACL. What the new file got by default (a directory's default ACL) and the
// old one lacked is taken away again, as far as it may be.
int applyAttributes(int fd, const std::vector<Attribute>& attributes) {
    std::vector<std::string> present;
    if (listAttributeNames(fd, present) == 0)
        for (const std::string& name : present) {
            bool kept = false;
            for (const Attribute& a : attributes) kept = kept || a.name == name;
            if (!kept) fremovexattr(fd, name.c_str());
        }
    for (const Attribute& a : attributes)
        if (fsetxattr(fd, a.name.c_str(), a.value.data(), a.value.size(), 0) != 0) return errno;
    return 0;
}

// What the replaced file had and the new one must keep.
struct Kept {
    bool exists = false;
    struct stat st {};
    std::vector<Attribute> attributes;
};

// Looks at what the name holds now. A non-file is never written over; a version record
// that does not count is replaced without taking anything from it.
int examineTarget(const Location& at, Kept& kept, std::string_view bytes, bool& unchanged) {
    unchanged = false;
    Fd fd;
    int err = openRegular(at, fd, kept.st);
    if (err == ENOENT || err == kUntrustedRecord) return 0;
    if (err) return err;
    kept.exists = true;
    // Unchanged bytes are not written at all: flash wear, and the mtime stays.
    unchanged = holdsExactly(fd.get(), kept.st, bytes);
    return unchanged ? 0 : readAttributes(fd.get(), kept.attributes);
}

// The write of a staged run: every check a real write makes before its temporary file
// (what the name holds, whether the directory takes a new file), then the bytes kept
// for later reads instead of written.
int stageReplacement(const Location& at, std::string_view bytes, mode_t newFileMode) {
    const std::string key = stagingKey(at);
    const StagedFile* staged = stagedFile(key);
    StagedFile next{true, std::string(bytes), newFileMode};
    if (staged && staged->exists) {
        if (staged->bytes == bytes) return 0;
        next.mode = staged->mode;
    } else if (!staged) {
        Kept kept;
        bool unchanged = false;
        if (int err = examineTarget(at, kept, bytes, unchanged)) return err;
        if (unchanged) return 0;
        if (kept.exists) next.mode = kept.st.st_mode & 07777;
    }
    if (faccessat(at.dir, ".", W_OK, AT_EACCESS) != 0) return errno;
    stageFile(key, std::move(next));
    return 0;
}

// A staged removal: refused as unlinkat would refuse it.
int stageRemoval(const Location& at) {
    const std::string key = stagingKey(at);
    if (const StagedFile* staged = stagedFile(key)) {
        if (!staged->exists) return ENOENT;
    } else {
        struct stat st;
        if (fstatat(at.dir, at.name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) return errno;
        if (S_ISDIR(st.st_mode)) return EISDIR;
    }
    if (faccessat(at.dir, ".", W_OK, AT_EACCESS) != 0) return errno;
    stageFile(key, StagedFile{});
    return 0;
}

// Replaces the file of `at` with `bytes`: temporary file in the same directory, same
// owner, mode and extended attributes, data synced, renamed over the name, directory synced. The original
// is never moved away first, so the name always holds a complete file.
int replaceFile(const Location& at, const std::string& logical, std::string_view bytes, mode_t newFileMode,
                struct stat* written) {
    if (staging()) {
        // Nothing reaches the disk: the name still holds what it held, which is what the
        // store must find there at the next step (nothing: a zero mode).
        if (written && fstatat(at.dir, at.name.c_str(), written, AT_SYMLINK_NOFOLLOW) != 0) *written = {};
        return stageReplacement(at, bytes, newFileMode);
    }
    Kept kept;
    bool unchanged = false;
    if (int err = examineTarget(at, kept, bytes, unchanged)) return err;
    if (unchanged) {
        if (written) *written = kept.st;
        return 0;
    }

    // Only in the /config tree: the version record's directory is /tmp, which every user
    // shares, and nothing outside the writable areas is ever removed.
    if (!at.ownFileOnly) removeStaleTempFiles(at.dir, parentOf(logical));
    std::string temp;
    // A new file is created with its final mode, so a default ACL of the directory
    // applies as it would to any new file; a replacement starts private until it has
    // the old file's owner and mode.
    int created = createTemp(at.dir, kept.exists ? 0600 : newFileMode, temp);
    if (created < 0) return -created;
    Fd fd(created);

    int err = 0;
    if (kept.exists && (kept.st.st_uid != geteuid() || kept.st.st_gid != getegid()) &&
        fchown(fd.get(), kept.st.st_uid, kept.st.st_gid) != 0)
        err = errno;
    if (!err && kept.exists && fchmod(fd.get(), kept.st.st_mode & 07777) != 0) err = errno;
    // After the mode: an access ACL sets the group bits from its mask, as the old file had them.
    if (!err && kept.exists) err = applyAttributes(fd.get(), kept.attributes);
    if (!err) err = writeAll(fd.get(), bytes);
    // The data must be on the medium before the rename makes it the file; otherwise a
    // power cut after the rename could leave the name pointing at an empty file.
    if (!err && fsync(fd.get()) != 0) err = errno;
    // Taken from the new file itself, so no other writer can come between it and the rename.
    if (!err && written && fstat(fd.get(), written) != 0) err = errno;
    int closed = fd.closeNow();
    if (!err) err = closed;
    if (!err && renameat(at.dir, temp.c_str(), at.dir, at.name.c_str()) != 0) err = errno;
    if (err) {
        unlinkat(at.dir, temp.c_str(), 0);
        return err;
    }
    // The rename lives in the directory; until the directory is synced a power cut
    // may bring back the old name. The new content is complete either way.
    return syncDirectory(at.dir);
}

int writeResolved(const std::string& logical, std::string_view bytes, mode_t newFileMode, struct stat* written = nullptr) {
    Location at;
    if (int err = resolve(logical, Access::kWrite, at)) return err;
    return replaceFile(at, logical, bytes, at.privateFile ? 0600 : newFileMode, written);
}

// The file's bytes before a change, for the listener; nothing when nobody listens or
// there is no file to read. Read quietly: the change itself reports what fails.
std::optional<std::string> contentBefore(const std::string& logical) {
    if (!listening()) return std::nullopt;
    Location at;
    std::string bytes;
    struct stat st;
    if (resolve(logical, Access::kWrite, at) != 0 || readAt(at, bytes, sizeLimit(FileKind::kXml), st) != 0) return std::nullopt;
    return bytes;
}

void tellChanged(const std::string& logical, const std::optional<std::string>& before,
                 std::optional<std::string_view> after, ChangeKind kind, const std::string* source = nullptr) {
    if (listening() && (before.has_value() != after.has_value() || (before && *before != *after)))
        tellListener(FileChange{logical, before, after, kind, source});
}

}  // namespace

size_t sizeLimit(FileKind) { return 4u << 20; }

int readFile(const std::string& logical, std::string& bytes, FileKind kind) {
    Location at;
    struct stat st;
    int err = resolve(logical, Access::kRead, at);
    if (!err) err = readAt(at, bytes, sizeLimit(kind), st);
    if (err == ENOTDIR) err = ENOENT;
    if (err && err != ENOENT) reportOnce("read", logical, err);
    // A version record that does not count is absent, once its refusal is logged.
    return err == kUntrustedRecord ? ENOENT : err;
}

// One look at the name (500 certificates are tested at a boot): no descriptor is opened.
bool pathExists(const std::string& logical) {
    if (staging()) {
        std::optional<std::string> id = identity(logical);
        const StagedFile* staged = id ? stagedFile(*id) : nullptr;
        if (staged) return staged->exists;
    }
    Lookup found;
    int err = lookup(logical, Access::kRead, found);
    if (err == kLinkLeavesArea || isResourceShortage(err)) {
        // Something is, or may well be, there: reading it is refused or fails the same, and
        // nothing is written over it.
        reportOnce("read", logical, err);
        return true;
    }
    if (err || !found.present) return false;
    if (found.ownFileOnly && !ownedAndGuarded(found.st)) {
        reportOnce("read", logical, kUntrustedRecord);
        return false;
    }
    return true;
}

bool mayWrite(const std::string& logical) {
    Lookup found;
    int err = lookup(logical, Access::kWrite, found);
    // A missing directory too: nothing creates one, so the write that was asked for will
    // not happen, and that is said once.
    if (err) reportOnce("write", logical, err);
    return err == 0;
}

namespace {

// The umask new files are created under. Read once (reading it means setting it): nothing
// in the process changes it.
mode_t processUmask() {
    static const mode_t mask = [] {
        mode_t m = umask(0);
        umask(m);
        return m;
    }();
    return mask;
}

}  // namespace

bool writeFileAtomically(const std::string& logical, std::string_view bytes, struct stat* written) {
    std::optional<std::string> before = contentBefore(logical);
    const mode_t mask = processUmask();
    // A file grown past what a read accepts (a key added to a file at its limit) would be
    // unreadable from the next run on: it stays as it was.
    int err = bytes.size() > sizeLimit(FileKind::kIni) ? EFBIG : writeResolved(logical, bytes, 0666 & ~mask, written);
    if (err) logFailure("write", logical, err);
    else tellChanged(logical, before, bytes, ChangeKind::kWritten);
    return err == 0;
}

namespace {

// A copy onto its own source (two names of one file, through a link or a hard link) is
// refused, as cp refuses it: it would change nothing, yet a caller would take it for a
// copy and remove its source, which is the only place the bytes are.
int refuseSameFile(const std::string& dst, const struct stat& src) {
    Lookup found;
    if (lookup(dst, Access::kWrite, found) != 0 || !found.present) return 0;  // the write reports it
    return found.st.st_dev == src.st_dev && found.st.st_ino == src.st_ino ? kSameFile : 0;
}

}  // namespace

bool copyFileAtomically(const std::string& dst, const std::string& src) {
    Location from;
    std::string bytes;
    struct stat st {};
    std::optional<std::string> before = contentBefore(dst);
    int err = resolve(src, Access::kRead, from);
    if (!err) err = readAt(from, bytes, sizeLimit(FileKind::kCopy), st);
    // A new copy gets its source's permissions, as cp gives them, unless it may hold a password.
    if (!err) err = refuseSameFile(dst, st);
    if (!err) err = writeResolved(dst, bytes, st.st_mode & 0777 & ~processUmask());
    if (err)
        report("Cannot copy [%s] to [%s]: %s", src.c_str(), dst.c_str(), describe(err));
    else tellChanged(dst, before, bytes, ChangeKind::kCopied, &src);
    return err == 0;
}

bool removeFile(const std::string& logical) {
    std::optional<std::string> before = contentBefore(logical);
    Location at;
    int err = resolve(logical, Access::kRemove, at);
    // Without AT_REMOVEDIR, unlinkat refuses a directory with EISDIR: no stat of our own.
    if (!err && staging()) err = stageRemoval(at);
    else if (!err) err = unlinkat(at.dir, at.name.c_str(), 0) != 0 ? errno : syncDirectory(at.dir);
    if (err && err != ENOENT) logFailure("remove", logical, err);
    if (!err) tellChanged(logical, before, std::nullopt, ChangeKind::kRemoved);
    return err == 0;
}

bool sameFile(const std::string& a, const std::string& b) {
    Lookup first, second;
    std::optional<std::string> firstId = identity(a, &first), secondId = identity(b, &second);
    if (!firstId || !secondId) return false;
    // One resolved name is one file even before it exists: a write through a dangling
    // link creates the file the other name stands for.
    if (*firstId == *secondId) return true;
    return first.present && second.present && first.st.st_dev == second.st.st_dev && first.st.st_ino == second.st.st_ino;
}

namespace {

void listLogical(const std::string& logical, std::vector<std::string>& names, bool plainOnly) {
    int dir = -1;
    int err = openDirectory(logical, dir);
    if (!err) {
        err = listOpen(dir, names, plainOnly);
        close(dir);
    }
    std::string shown = logical;  // named as a directory is named in other lines: no trailing slash
    while (shown.size() > 1 && shown.back() == '/') shown.pop_back();
    if (err && err != ENOENT && err != ENOTDIR) logFailure("list", shown, err);
}

}  // namespace

void listPlainEntries(const std::string& logical, std::vector<std::string>& names) {
    listLogical(logical, names, true);
}

void listDirectory(const std::string& logical, std::vector<std::string>& names) {
    listLogical(logical, names, false);
}

// A call a signal interrupted before it moved a byte left nothing behind: made again.
ssize_t readUninterrupted(int fd, void* buffer, size_t size) {
    ssize_t n;
    while ((n = read(fd, buffer, size)) < 0 && errno == EINTR) {
    }
    return n;
}

ssize_t writeUninterrupted(int fd, const void* bytes, size_t size) {
    ssize_t n;
    while ((n = write(fd, bytes, size)) < 0 && errno == EINTR) {
    }
    return n;
}

}  // namespace store::fs
