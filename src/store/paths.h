// Where this tool may touch the filesystem. Logical paths (as the phone sees them) are
// mapped under CFGUPGRADE_ROOT, resolved as the kernel resolves them, and confined:
// nothing the tool reads as configuration or writes ever lies outside its area, whatever
// a link says.
//
// Areas: the tree under /config and the one file /tmp/VersionInfo.cfg are writable; every
// other path may only be read, and never outside the root. Links under /config are
// followed while they stay in /config; the version record is never reached through a link,
// and counts only when it is a regular file of this user that nobody else may write.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace store::fs {

// kRemove is kWrite for the name itself: a link in the last place is not followed, so
// removing a link removes the link, as remove(3) does, and never its target.
enum class Access { kRead, kWrite, kRemove };

// Refusals that are not system errors; errors elsewhere are errno values.
constexpr int kOutsideWritableAreas = -1;
constexpr int kLinkLeavesArea = -2;
constexpr int kNotRegularFile = -3;
constexpr int kUntrustedRecord = -4;
constexpr int kTooDeep = -5;
constexpr int kNotAbsolute = -6;
constexpr int kNulReference = -7;
constexpr int kSameFile = -8;
constexpr int kOverBudget = -9;

// Out of descriptors or memory: the process's or the system's want, which says nothing
// of the file, so it is reported as what it is, never taken for a missing file or a link.
bool isResourceShortage(int err);

// The text for an errno value or a refusal above.
const char* describe(int err);

// A descriptor closed with its scope, so that no early return leaks one.
class Fd {
public:
    explicit Fd(int fd = -1) : fd_(fd) {}
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    ~Fd() { reset(); }
    void reset(int fd = -1) {
        if (fd_ >= 0) close(fd_);
        fd_ = fd;
    }
    int get() const { return fd_; }
    int release() { return std::exchange(fd_, -1); }
    // Closes now and says whether the close itself failed (a deferred write error).
    int closeNow() {
        int err = fd_ >= 0 && close(fd_) != 0 ? errno : 0;
        fd_ = -1;
        return err;
    }

private:
    int fd_;
};

// A logical path resolved to the directory that holds it and its name there. The name
// is never a link (a link the area lets be followed has been followed) and never "."
// or "..". The file itself need not exist.
struct Location {
    int dir = -1;             // the directory as the store knows it (O_PATH: for names, not
                              // listing or fsync); the store's until its next commit
    std::string dirKey;       // the directory's device and inode, "DEV:INO/": one for every spelling
    std::string name;
    bool privateFile = false; // may hold a password: created 0600
    bool ownFileOnly = false; // the version record: see ownedAndGuarded()
};

// Fills `out` and returns 0, or returns why the path cannot be used for `access`.
int resolve(std::string_view logical, Access access, Location& out);

// What a path names, found as resolve() finds it but without opening anything: for the
// questions that need no descriptor (is something there, may it be written).
struct Lookup {
    bool present = false;      // the name is there, and `st` is its own status (a link
    struct stat st {};         // the area does not follow is described as the link)
    bool ownFileOnly = false;  // as Location's
};

// Fills `out` and returns 0, or returns why the path cannot be used for `access`,
// exactly as resolve() would.
int lookup(std::string_view logical, Access access, Lookup& out);

// A whole directory path resolved for reading (listing); the descriptor or -errno/refusal.
int openDirectory(std::string_view logical, int& dir);

// The version record counts only when it is a regular file of this user that group and
// others may not write: otherwise any local process could hand mode 2 its settings.
bool ownedAndGuarded(const struct stat& st);

// One key for every spelling of a file: its resolved directory and name. Nullopt when
// the path cannot be resolved for reading. `found`, when given, gets what the name
// holds now, as lookup() gives it: the look that resolving the name makes anyway.
std::optional<std::string> identity(std::string_view logical, Lookup* found = nullptr);

// The path under the root, for messages and tests; no check of any kind.
std::optional<std::string> physicalPath(std::string_view logical);

// Repeated slashes, "." and ".." taken out as the kernel takes them out at "/" when no
// link is involved. Used to pick a path's area; the resolution itself is the kernel's.
std::string canonicalPath(std::string_view logical);

// Logs a refusal once per path and run: "Cannot WHAT [PATH]: REASON"; later refusals
// of the same path, for reading or writing, add nothing.
void reportOnce(const char* what, std::string_view logical, int err);

// Drops the directories resolved so far: the store calls it at every commit, so that a
// step sees the tree as the previous steps left it. A staged run keeps them.
void forgetDirectories();

// Drops the open root and what is known of it (a new root, a new test).
void forgetRoot();

}  // namespace store::fs
