// Preloaded into cfgupgrade by the reliability tests (never into the tests themselves).
// It counts the calls through which the tool reads or changes files under
// CFGUPGRADE_ROOT and acts on one of them: it ends the process right there, as a
// power cut would, or makes that one call fail with a chosen errno, as a full or
// failing disk would. The tool has no test hooks; everything happens here.
//
//   FAULT_OPS     kinds counted, comma separated: write,fsync,rename,unlink,mkstemp,opendir,read
//                 (rename and unlink include renameat and unlinkat; mkstemp is the creation
//                 of a file with O_CREAT|O_EXCL; opendir includes fdopendir)
//   FAULT_AT      the counted call to act on, from 1 (unset: act on none, only record)
//   FAULT_DO      cut: _exit(86) right after the call; tear: a write stops halfway, then
//                 _exit(86); an errno name (ENOSPC, EIO, EACCES, EROFS): the call fails
//   FAULT_REPORT  file that receives the records below
//
// Records: a line "TAG OP N PATHLEN DATALEN" then PATHLEN bytes of logical path and
// DATALEN bytes of data (DATALEN -1: no such file). Tags: "renamed" (a file renamed
// into place and its bytes), "unlinked", "fault" (the acted-on call, its target and
// the target's bytes then), "after" (the target's bytes when the failure is logged;
// N counts temporary files left in its directory), "count" (calls of kind OP at exit).
#define _GNU_SOURCE
// The tool is built with 64-bit offsets, so it calls the "64" names (openat64,
// mkstemp64, fstatat64); this file defines both names of each, spelt out.
#undef _FILE_OFFSET_BITS
#define _LARGEFILE64_SOURCE
#include <dirent.h>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

enum { kWrite, kFsync, kRename, kUnlink, kMkstemp, kOpendir, kRead, kKinds };
static const char* const kKindNames[kKinds] = {"write", "fsync", "rename", "unlink", "mkstemp", "opendir", "read"};

static struct {
    int ready;
    char root[4096], realRoot[4096];
    int counted[kKinds];    // kinds that FAULT_AT counts
    long calls[kKinds];     // calls seen per kind
    long counter, at;       // counted calls so far; the one to act on
    int failErrno, cut, tear;
    char report[4096];
    int faulted;            // the failure happened and awaits its log line
    char target[4096];      // logical path the failed call was about
    char lastChanged[4096]; // the last path renamed or unlinked: what a directory fsync makes durable
    char lastLooked[4096];  // the last file looked at or opened: the target of a new temporary file
} s;

static ssize_t (*realWrite)(int, const void*, size_t);
static ssize_t (*realRead)(int, void*, size_t);
static int (*realFsync)(int);
static int (*realRename)(const char*, const char*);
static int (*realUnlink)(const char*);
static int (*realMkstemp)(char*);
static DIR* (*realOpendir)(const char*);
static int (*realOpenat)(int, const char*, int, ...);
static int (*realFstatat)(int, const char*, struct stat*, int);
static int (*realFstatat64)(int, const char*, struct stat64*, int);
static int (*realMkstemp64)(char*);
static int (*realRenameat)(int, const char*, int, const char*);
static int (*realUnlinkat)(int, const char*, int);
static DIR* (*realFdopendir)(int);

static int errnoByName(const char* name) {
    static const struct { const char* name; int value; } names[] = {
        {"ENOSPC", ENOSPC}, {"EIO", EIO}, {"EACCES", EACCES}, {"EROFS", EROFS}, {"EDQUOT", EDQUOT}, {"EPERM", EPERM}};
    for (size_t i = 0; i < sizeof names / sizeof names[0]; ++i)
        if (strcmp(names[i].name, name) == 0) return names[i].value;
    return EIO;
}

// The next definition of a libc function; assigned through void* as dlsym(3) advises.
#define NEXT(pointer, name) (*(void**)&(pointer) = dlsym(RTLD_NEXT, name))

static void setUp(void) {
    if (s.ready) return;
    s.ready = 1;
    NEXT(realWrite, "write");
    NEXT(realRead, "read");
    NEXT(realFsync, "fsync");
    NEXT(realRename, "rename");
    NEXT(realUnlink, "unlink");
    NEXT(realMkstemp, "mkstemp");
    NEXT(realOpendir, "opendir");
    NEXT(realOpenat, "openat");
    NEXT(realFstatat, "fstatat");
    NEXT(realFstatat64, "fstatat64");
    NEXT(realMkstemp64, "mkstemp64");
    NEXT(realRenameat, "renameat");
    NEXT(realUnlinkat, "unlinkat");
    NEXT(realFdopendir, "fdopendir");
    const char* env = getenv("CFGUPGRADE_ROOT");
    snprintf(s.root, sizeof s.root, "%s", env ? env : "");
    if (!realpath(s.root, s.realRoot)) s.realRoot[0] = 0;
    const char* ops = getenv("FAULT_OPS");
    for (int k = 0; k < kKinds; ++k) {
        const char* hit = ops ? strstr(ops, kKindNames[k]) : NULL;
        s.counted[k] = hit && (hit == ops || hit[-1] == ',');
    }
    env = getenv("FAULT_AT");
    s.at = env ? atol(env) : 0;
    env = getenv("FAULT_DO");
    s.cut = env && strcmp(env, "cut") == 0;
    s.tear = env && strcmp(env, "tear") == 0;
    s.failErrno = env && !s.cut && !s.tear ? errnoByName(env) : 0;
    env = getenv("FAULT_REPORT");
    snprintf(s.report, sizeof s.report, "%s", env ? env : "");
}

// The logical path of a physical one under the root, or NULL outside it.
static const char* logicalOf(const char* path) {
    const char* roots[] = {s.root, s.realRoot};
    for (int i = 0; i < 2; ++i) {
        size_t n = strlen(roots[i]);
        if (n && strncmp(path, roots[i], n) == 0 && path[n] == '/') return path + n;
    }
    return NULL;
}

// The file an open descriptor refers to, by way of /proc.
static const char* pathOfFd(int fd, char* buffer, size_t size) {
    char link[64];
    snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    ssize_t n = readlink(link, buffer, size - 1);
    if (n < 0) return NULL;
    buffer[n] = 0;
    return buffer;
}

static void record(const char* tag, const char* op, long n, const char* logical, const char* data, long size) {
    if (!s.report[0]) return;
    int fd = (int)syscall(SYS_openat, AT_FDCWD, s.report, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) return;
    char head[256];
    int len = snprintf(head, sizeof head, "%s %s %ld %zu %ld\n", tag, op, n, strlen(logical), size);
    realWrite(fd, head, (size_t)len);
    realWrite(fd, logical, strlen(logical));
    if (size > 0) realWrite(fd, data, (size_t)size);
    close(fd);
}

// Records a file's bytes under its logical name (size -1 when it cannot be read).
static void recordFile(const char* tag, const char* op, long n, const char* physical, const char* logical) {
    int fd = (int)syscall(SYS_openat, AT_FDCWD, physical, O_RDONLY | O_CLOEXEC);
    char* data = NULL;
    long size = -1;
    struct stat st;
    if (fd >= 0 && fstat(fd, &st) == 0 && S_ISREG(st.st_mode)) {
        data = malloc((size_t)st.st_size + 1);
        size = 0;
        for (ssize_t got; data && (got = realRead(fd, data + size, (size_t)st.st_size - (size_t)size)) > 0;) size += got;
    }
    if (fd >= 0) close(fd);
    record(tag, op, n, logical, data, size);
    free(data);
}

static int isTemp(const char* path) {
    const char* slash = strrchr(path, '/');
    return strncmp(slash ? slash + 1 : path, ".cfgupgrade-", 12) == 0;
}

// A temporary file stands for the file last looked at in its directory: the writer
// looks at its target before it makes the temporary file.
static void targetOfTemp(const char* path, char* out, size_t size) {
    snprintf(out, size, "%s", path);
    const char* slash = strrchr(path, '/');
    size_t dirLength = slash ? (size_t)(slash - path) : 0;
    if (isTemp(path) && strncmp(s.lastLooked, path, dirLength) == 0 && s.lastLooked[dirLength] == '/')
        snprintf(out, size, "%s", s.lastLooked);
}

// DIRFD/NAME as a physical path.
static const char* pathAt(int dirfd, const char* name, char* buffer, size_t size) {
    if (name[0] == '/') return name;
    char dir[4096];
    if (!pathOfFd(dirfd, dir, sizeof dir)) return NULL;
    size_t n = strlen(dir);
    if (n + 1 + strlen(name) + 1 > size) return NULL;
    memcpy(buffer, dir, n);
    buffer[n] = '/';
    memcpy(buffer + n + 1, name, strlen(name) + 1);
    return buffer;
}

static void noteLooked(const char* physical) {
    if (physical && !isTemp(physical) && logicalOf(physical)) snprintf(s.lastLooked, sizeof s.lastLooked, "%s", physical);
}

// Counts a call about a path under the root. Returns 1 when this is the call to act on.
static int counts(int kind, const char* physical) {
    setUp();
    if (!physical || !logicalOf(physical)) return 0;
    s.calls[kind]++;
    if (!s.counted[kind]) return 0;
    return ++s.counter == s.at;
}

// The call to act on fails: remembers what it was about, for the "after" record.
static int fail(int kind, const char* targetPhysical) {
    char target[4096];
    targetOfTemp(targetPhysical, target, sizeof target);
    const char* logical = logicalOf(target);
    snprintf(s.target, sizeof s.target, "%s", logical ? logical : target);
    recordFile("fault", kKindNames[kind], s.at, target, s.target);
    s.faulted = 1;
    errno = s.failErrno;
    return -1;
}

static void cutNow(void) { _exit(86); }

// When the tool logs the failure, records what the target holds then.
static void afterFailureLogged(const void* buffer, size_t size) {
    static const char kLine[] = "app_log[60/4] Cannot ";
    if (!s.faulted || size < sizeof kLine - 1 || memcmp(buffer, kLine, sizeof kLine - 1) != 0) return;
    s.faulted = 0;
    char physical[8192], dir[8192];
    snprintf(physical, sizeof physical, "%s%s", s.root, s.target);
    snprintf(dir, sizeof dir, "%s", physical);
    char* slash = strrchr(dir, '/');
    if (slash) *slash = 0;
    long temps = 0;
    DIR* d = realOpendir(dir);
    for (struct dirent* e; d && (e = readdir(d));) temps += strstr(e->d_name, ".cfgupgrade-") != NULL;
    if (d) closedir(d);
    recordFile("after", "-", temps, physical, s.target);
}

ssize_t write(int fd, const void* buffer, size_t size) {
    setUp();
    char path[4096];
    const char* physical = pathOfFd(fd, path, sizeof path);
    if (!counts(kWrite, physical)) {
        if (!physical || !logicalOf(physical)) afterFailureLogged(buffer, size);
        return realWrite(fd, buffer, size);
    }
    if (s.failErrno) return fail(kWrite, physical);
    if (s.tear) {
        realWrite(fd, buffer, size / 2);
        cutNow();
    }
    ssize_t result = realWrite(fd, buffer, size);
    cutNow();
    return result;
}

ssize_t read(int fd, void* buffer, size_t size) {
    char path[4096];
    const char* physical = pathOfFd(fd, path, sizeof path);
    if (counts(kRead, physical) && s.failErrno) return fail(kRead, physical);
    return realRead(fd, buffer, size);
}

int fsync(int fd) {
    char path[4096];
    const char* physical = pathOfFd(fd, path, sizeof path);
    if (!counts(kFsync, physical)) return realFsync(fd);
    struct stat st;
    if (s.failErrno && fstat(fd, &st) == 0 && S_ISDIR(st.st_mode)) return fail(kFsync, s.lastChanged);
    if (s.failErrno) return fail(kFsync, physical);
    realFsync(fd);
    cutNow();
    return 0;
}

int rename(const char* from, const char* to) {
    setUp();
    const char* logical = logicalOf(to);
    if (logical) recordFile("renamed", "rename", 0, from, logical);
    snprintf(s.lastChanged, sizeof s.lastChanged, "%s", to);
    if (!counts(kRename, to)) return realRename(from, to);
    if (s.failErrno) return fail(kRename, to);
    realRename(from, to);
    cutNow();
    return 0;
}

int renameat(int dirFrom, const char* nameFrom, int dirTo, const char* nameTo) {
    setUp();
    char from[4096], to[4096];
    const char* pFrom = pathAt(dirFrom, nameFrom, from, sizeof from);
    const char* pTo = pathAt(dirTo, nameTo, to, sizeof to);
    if (!pFrom || !pTo) return realRenameat(dirFrom, nameFrom, dirTo, nameTo);
    const char* logical = logicalOf(pTo);
    if (logical) recordFile("renamed", "rename", 0, pFrom, logical);
    snprintf(s.lastChanged, sizeof s.lastChanged, "%s", pTo);
    if (!counts(kRename, pTo)) return realRenameat(dirFrom, nameFrom, dirTo, nameTo);
    if (s.failErrno) return fail(kRename, pTo);
    realRenameat(dirFrom, nameFrom, dirTo, nameTo);
    cutNow();
    return 0;
}

static void noteUnlinked(const char* path) {
    const char* logical = logicalOf(path);
    if (logical && !isTemp(path)) {
        record("unlinked", "unlink", 0, logical, NULL, -1);
        snprintf(s.lastChanged, sizeof s.lastChanged, "%s", path);
    }
}

int unlink(const char* path) {
    setUp();
    noteUnlinked(path);
    if (!counts(kUnlink, path)) return realUnlink(path);
    if (s.failErrno) return fail(kUnlink, path);
    realUnlink(path);
    cutNow();
    return 0;
}

int unlinkat(int dirfd, const char* name, int flags) {
    setUp();
    char buffer[4096];
    const char* path = pathAt(dirfd, name, buffer, sizeof buffer);
    if (!path) return realUnlinkat(dirfd, name, flags);
    noteUnlinked(path);
    if (!counts(kUnlink, path)) return realUnlinkat(dirfd, name, flags);
    if (s.failErrno) return fail(kUnlink, path);
    realUnlinkat(dirfd, name, flags);
    cutNow();
    return 0;
}

int mkstemp(char* pattern) {
    setUp();
    if (!counts(kMkstemp, pattern)) return realMkstemp(pattern);
    if (s.failErrno) return fail(kMkstemp, pattern);
    realMkstemp(pattern);
    cutNow();
    return -1;
}

int mkstemp64(char* pattern) {
    setUp();
    if (!counts(kMkstemp, pattern)) return realMkstemp64(pattern);
    if (s.failErrno) return fail(kMkstemp, pattern);
    realMkstemp64(pattern);
    cutNow();
    return -1;
}

// Creating a file exclusively is making a temporary file; any other open of a file is
// the writer or a reader looking at it.
int openat(int dirfd, const char* name, int flags, ...) {
    setUp();
    mode_t mode = 0;
    if (flags & (O_CREAT | __O_TMPFILE)) {
        va_list args;
        va_start(args, flags);
        mode = va_arg(args, mode_t);
        va_end(args);
    }
    char buffer[4096];
    const char* path = pathAt(dirfd, name, buffer, sizeof buffer);
    if ((flags & O_CREAT) && (flags & O_EXCL)) {
        if (!counts(kMkstemp, path)) return realOpenat(dirfd, name, flags, mode);
        if (s.failErrno) return fail(kMkstemp, path);
        realOpenat(dirfd, name, flags, mode);
        cutNow();
    }
    if (!(flags & (O_DIRECTORY | O_PATH)) && strcmp(name, ".") != 0) noteLooked(path);
    return realOpenat(dirfd, name, flags, mode);
}

int openat64(int dirfd, const char* name, int flags, ...) {
    mode_t mode = 0;
    if (flags & (O_CREAT | __O_TMPFILE)) {
        va_list args;
        va_start(args, flags);
        mode = va_arg(args, mode_t);
        va_end(args);
    }
    return openat(dirfd, name, flags | O_LARGEFILE, mode);
}

int fstatat(int dirfd, const char* name, struct stat* st, int flags) {
    setUp();
    char buffer[4096];
    if (name[0]) noteLooked(pathAt(dirfd, name, buffer, sizeof buffer));
    return realFstatat(dirfd, name, st, flags);
}

int fstatat64(int dirfd, const char* name, struct stat64* st, int flags) {
    setUp();
    char buffer[4096];
    if (name[0]) noteLooked(pathAt(dirfd, name, buffer, sizeof buffer));
    return realFstatat64(dirfd, name, st, flags);
}

DIR* opendir(const char* path) {
    setUp();
    if (!counts(kOpendir, path)) return realOpendir(path);
    if (!s.failErrno) cutNow();
    fail(kOpendir, path);
    return NULL;
}

DIR* fdopendir(int fd) {
    setUp();
    char buffer[4096];
    const char* path = pathOfFd(fd, buffer, sizeof buffer);
    if (!counts(kOpendir, path)) return realFdopendir(fd);
    if (!s.failErrno) cutNow();
    fail(kOpendir, path);
    return NULL;
}

__attribute__((destructor)) static void reportCounts(void) {
    setUp();
    for (int k = 0; k < kKinds; ++k) record("count", kKindNames[k], s.calls[k], "", NULL, 0);
}
