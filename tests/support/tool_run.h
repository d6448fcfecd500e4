// Runs the cfgupgrade binary on a phone root and reads back what it left: the files
// under the root (and beside it, where links may lead), its log and its output.
//
// A work directory holds the root ("root") and the run's "log" and "out". Trees show
// protected values by what they protect ("pw1(PLAIN)"; "pw1(?)" when the test's key
// cannot open them), since each protection draws a fresh nonce.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "platform/pw_data.h"

extern char** environ;

namespace tool {

namespace fs = std::filesystem;

// The words that start the tool: the binary, behind the emulator in a cross build
// (CMake's CMAKE_CROSSCOMPILING_EMULATOR, split at blanks).
inline std::vector<std::string> command() {
    std::vector<std::string> words;
    std::istringstream emulator(CFGUPGRADE_EMULATOR);
    for (std::string word; emulator >> word;) words.push_back(word);
    words.push_back(CFGUPGRADE_BINARY);
    return words;
}

inline bool emulated() { return *CFGUPGRADE_EMULATOR != '\0'; }

inline std::string slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

// The case directories of a golden table, in name order.
inline std::vector<std::string> caseNames(const std::string& dir) {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(dir)) names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
}

// A case's name as a test's name: letters and digits, the rest '_'.
inline std::string testName(std::string name) {
    std::replace_if(name.begin(), name.end(), [](char ch) { return !isalnum(static_cast<unsigned char>(ch)); }, '_');
    return name;
}

inline bool updatingGolden() {
    const char* golden = std::getenv("CFGUPGRADE_GOLDEN");
    return golden && std::string(golden) == "update";
}

// The expected text of a golden file; under CFGUPGRADE_GOLDEN=update, `actual` first
// becomes it.
inline std::string expected(const std::string& path, const std::string& actual) {
    if (updatingGolden()) std::ofstream(path, std::ios::binary) << actual;
    return slurp(path);
}

// A fresh directory, removed with the object.
struct WorkDir {
    std::string path;
    explicit WorkDir(const std::string& under = "/tmp") {
        std::string pattern = under + "/cfgupgrade-test-XXXXXX";
        path = mkdtemp(&pattern[0]) ? pattern : "";
        fs::create_directories(path + "/root/tmp");
    }
    ~WorkDir() {
        std::error_code ec;
        fs::remove_all(path, ec);
    }
    std::string root() const { return path + "/root"; }
};

// How the tool is started: its arguments, more environment, a command it runs under
// (strace), a limit on its address space, other resource limits (prlimit's options,
// "--nofile=5"), a memory cgroup to run in (its cgroup.procs), and what its output
// streams are.
enum class Streams { kFiles, kClosedPipes, kFullPipes, kClosed };
struct Options {
    std::vector<std::string> args, env, wrap, limits;
    unsigned long addressSpace = 0;
    std::string cgroupProcs;
    bool peakRss = false;  // measured by the peak_rss helper (not under an emulator)
    Streams streams = Streams::kFiles;
};

struct Run {
    int status = -1;  // the exit status; 128 + N when signal N ended it; -1 when it hung
    long peakRssKib = 0;  // the tool's peak resident size (a wrapper's if larger); 0 unmeasured
    std::string log, out, err;
};

// A memory cgroup below this process's own, limited to `bytes` and removed with the object.
// `procs` is empty, and `why` says why, where the machine gives this process none to make.
struct MemoryCgroup {
    std::string dir, procs, why;
    explicit MemoryCgroup(unsigned long bytes) {
        std::ifstream self("/proc/self/cgroup");
        std::string base, limitFile;
        for (std::string line; std::getline(self, line);) {
            size_t v1 = line.find(":memory:");
            if (v1 != std::string::npos) base = "/sys/fs/cgroup/memory" + line.substr(v1 + 8), limitFile = "memory.limit_in_bytes";
            else if (line.rfind("0::", 0) == 0 && base.empty()) base = "/sys/fs/cgroup" + line.substr(3), limitFile = "memory.max";
        }
        std::string made = base + "/cfgupgrade-test-" + std::to_string(getpid());
        if (base.empty() || mkdir(made.c_str(), 0755) != 0) {
            why = "no memory cgroup can be made here (" + (base.empty() ? "none in /proc/self/cgroup" : made + ": " + strerror(errno)) + ")";
            return;
        }
        dir = made;
        std::ofstream limit(dir + "/" + limitFile);
        if (!(limit << bytes << std::flush)) why = "the memory cgroup takes no limit (" + dir + "/" + limitFile + ")";
        else procs = dir + "/cgroup.procs";
    }
    ~MemoryCgroup() {
        if (!dir.empty()) rmdir(dir.c_str());
    }
};

// The tool's command line and environment: the wrapper (strace), a limit on its address
// space (prlimit, which limits the tool alone), the tool, its arguments.
inline void commandLine(const std::string& work, const Options& o, std::vector<std::string>& words,
                        std::vector<std::string>& env) {
    env = o.env;  // first: the first of a name is the one getenv finds, so a case may set the log
    env.push_back("CFGUPGRADE_ROOT=" + work + "/root");
    if (o.streams == Streams::kFiles) env.push_back("CFGUPGRADE_LOG=" + work + "/log");
    // LeakSanitizer cannot stop a process that strace traces.
    if (!o.wrap.empty()) env.push_back("ASAN_OPTIONS=detect_leaks=0");
    for (char** e = environ; *e; ++e)
        if (std::string(*e).rfind("CFGUPGRADE_", 0) != 0 && std::string(*e).rfind("ASAN_OPTIONS=", 0) != 0) env.push_back(*e);
    words.clear();
    if (o.peakRss) words = {CFGUPGRADE_PEAK_RSS, work + "/rss"};
    words.insert(words.end(), o.wrap.begin(), o.wrap.end());
    // The shell moves itself into the cgroup, then becomes the tool.
    if (!o.cgroupProcs.empty()) words.insert(words.end(), {"sh", "-c", "echo $$ > \"$0\" && exec \"$@\"", o.cgroupProcs});
    std::vector<std::string> limits = o.limits;
    if (o.addressSpace) limits.push_back("--as=" + std::to_string(o.addressSpace));
    if (!limits.empty()) {
        words.push_back("prlimit");
        words.insert(words.end(), limits.begin(), limits.end());
        words.push_back("--");
    }
    for (const auto& w : command()) words.push_back(w);
    words.insert(words.end(), o.args.begin(), o.args.end());
}

// Lowers this process's CPU limit to its own use plus a minute while the tool is spawned, so
// that the tool inherits a limit: a tool that loops then ends even when this test process,
// killed first by ctest's timeout, cannot end it. Cheaper than a prlimit exec per run.
struct ChildCpuLimit {
    struct rlimit saved {};
    ChildCpuLimit() {
        getrlimit(RLIMIT_CPU, &saved);
        struct rusage used {};
        getrusage(RUSAGE_SELF, &used);
        struct rlimit limit = saved;
        limit.rlim_cur = std::min<rlim_t>(saved.rlim_cur, used.ru_utime.tv_sec + used.ru_stime.tv_sec + 60);
        setrlimit(RLIMIT_CPU, &limit);
    }
    ~ChildCpuLimit() { setrlimit(RLIMIT_CPU, &saved); }
};

// Starts the tool in the root. posix_spawn rather than fork: in a cross build this test
// process runs under qemu-user, whose forked child cannot run the code between fork and exec.
inline pid_t startTool(const std::string& work, const Options& o, const int ends[2]) {
    std::vector<std::string> words, env;
    commandLine(work, o, words, env);
    std::vector<char*> argv, envp;
    for (auto& w : words) argv.push_back(&w[0]);
    for (auto& e : env) envp.push_back(&e[0]);
    argv.push_back(nullptr), envp.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (o.streams == Streams::kFiles) {
        posix_spawn_file_actions_addopen(&actions, 1, (work + "/out").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        posix_spawn_file_actions_addopen(&actions, 2, (work + "/err").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    } else if (o.streams == Streams::kClosed) {
        for (int fd = 0; fd <= 2; ++fd) posix_spawn_file_actions_addclose(&actions, fd);
    } else {
        posix_spawn_file_actions_adddup2(&actions, ends[1], 1);
        posix_spawn_file_actions_adddup2(&actions, ends[1], 2);
        posix_spawn_file_actions_addclose(&actions, ends[1]);
        if (ends[0] >= 0) posix_spawn_file_actions_addclose(&actions, ends[0]);
    }
    // Nothing else of this process (ctest hands it descriptors): a descriptor limit then
    // means the same everywhere.
    posix_spawn_file_actions_addclosefrom_np(&actions, 3);
    posix_spawn_file_actions_addchdir_np(&actions, (work + "/root").c_str());
    mode_t mask = umask(022);
    pid_t pid = -1;
    ChildCpuLimit cpu;
    if (posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), envp.data()) != 0) pid = -1;
    umask(mask);
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

inline Run run(const std::string& work, const Options& o = {}) {
    fs::remove(work + "/log");
    int ends[2] = {-1, -1};
    if (o.streams == Streams::kClosedPipes || o.streams == Streams::kFullPipes) {
        if (pipe(ends) != 0) return {};
        if (o.streams == Streams::kClosedPipes) close(ends[0]), ends[0] = -1;
        // Filled without blocking, then handed over blocking, as a shell would.
        std::string chunk(4096, 'x');
        fcntl(ends[1], F_SETFL, O_NONBLOCK);
        while (o.streams == Streams::kFullPipes && write(ends[1], chunk.data(), chunk.size()) > 0) {
        }
        fcntl(ends[1], F_SETFL, 0);
    }
    pid_t pid = startTool(work, o, ends);
    if (ends[1] >= 0) close(ends[1]);
    if (pid < 0) {
        if (ends[0] >= 0) close(ends[0]);
        return {};
    }
    Run result;
    int status = 0;
    // A run takes well under a second, a few under an emulator or the sanitizers; one that
    // takes 15 s loops, and is ended as hung so that the suite fails fast.
    for (int waited = 0; waited < 1500; ++waited, usleep(10000))
        if (waitpid(pid, &status, WNOHANG) == pid) {
            result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            break;
        }
    if (result.status == -1) kill(pid, SIGKILL), waitpid(pid, nullptr, 0);
    if (ends[0] >= 0) close(ends[0]);
    result.log = slurp(work + "/log");
    result.out = slurp(work + "/out");
    result.err = slurp(work + "/err");
    if (o.peakRss) result.peakRssKib = std::atol(slurp(work + "/rss").c_str()), fs::remove(work + "/rss");
    return result;
}

// "pw1:TOKEN" reads "pw1(PLAIN)", or "pw1(?)" when the token does not open.
inline std::string canonical(std::string bytes) {
    const char* tokenChars = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
    for (size_t at = bytes.find("pw1:"); at != std::string::npos; at = bytes.find("pw1:", at + 1)) {
        size_t length = bytes.find_first_not_of(tokenChars, at + 4);
        length = (length == std::string::npos ? bytes.size() : length) - at;
        char plain[kPwDataBufferSize] = {};
        bool opens = length < kPwDataBufferSize && pw_data_decrypt(bytes.substr(at, length).c_str(), plain) == 0;
        bytes.replace(at, length, "pw1(" + std::string(opens ? plain : "?") + ")");
    }
    return bytes;
}

// Copies a tree over the root: links stay links, files are 0644 whatever the checkout made them.
inline void plant(const std::string& from, const std::string& root) {
    if (!fs::exists(from)) return;
    for (const auto& entry : fs::recursive_directory_iterator(from)) {
        std::string to = root + entry.path().string().substr(from.size());
        if (entry.is_directory() && !entry.is_symlink()) {
            fs::create_directories(to);
            continue;
        }
        fs::remove(to);
        if (entry.is_symlink()) fs::copy_symlink(entry.path(), to);
        else fs::copy_file(entry.path(), to), fs::permissions(to, fs::perms(0644));
    }
}

// Holds a file's inode for as long as its entry lives: a file the tool writes twice over
// could otherwise get its old inode back and pass for unchanged.
inline std::shared_ptr<int> pin(const std::string& path) {
    int fd = open(path.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) return nullptr;
    return std::shared_ptr<int>(new int(fd), [](int* held) { close(*held), delete held; });
}

// One entry of a tree: what it is ("file 0600 user.a=b", "link TARGET", "other"), for a
// file its bytes, and its inode: a file written again with the same bytes is a change too.
struct Entry {
    std::string kind, bytes;
    ino_t inode = 0;
    std::shared_ptr<int> pinned;
    bool operator==(const Entry& o) const { return kind == o.kind && bytes == o.bytes && inode == o.inode; }
    bool operator!=(const Entry& o) const { return !(*this == o); }
};
using Tree = std::map<std::string, Entry>;

inline std::string attributes(const std::string& path) {
    char names[4096], value[4096];
    std::string out;
    ssize_t size = llistxattr(path.c_str(), names, sizeof names);
    for (ssize_t at = 0; at < size; at += static_cast<ssize_t>(strlen(names + at)) + 1) {
        ssize_t n = lgetxattr(path.c_str(), names + at, value, sizeof value);
        out += " " + std::string(names + at) + "=";
        for (ssize_t i = 0; i < n; ++i) out += isgraph(value[i]) ? std::string(1, value[i]) : "\\" + std::to_string(value[i] & 0xff);
    }
    return out;
}

// Everything in the work directory but the run's own files, by path as the phone
// sees it ("/config/a.ini"; a file beside the root is "/../victim.ini"). Files over
// 64 MiB (sparse ones) show their size only.
inline Tree snapshot(const std::string& work) {
    Tree tree;
    for (auto it = fs::recursive_directory_iterator(work); it != fs::recursive_directory_iterator(); ++it) {
        std::string path = it->path().string(), name = path.substr(work.size());
        std::error_code loops;  // a chain of too many links is kept as the link it is
        if (name == "/log" || name == "/out" || name == "/err" || name == "/trace" || it->is_directory(loops)) continue;
        name = name.rfind("/root/", 0) == 0 ? name.substr(5) : "/.." + name;
        struct stat st {};
        lstat(path.c_str(), &st);
        char mode[8];
        snprintf(mode, sizeof mode, "%04o", st.st_mode & 07777);
        if (S_ISLNK(st.st_mode)) {
            std::string target = fs::read_symlink(path).string();
            if (target.rfind(work, 0) == 0) target = "WORK" + target.substr(work.size());
            tree[name] = {"link " + target, "", 0, nullptr};
        } else if (!S_ISREG(st.st_mode)) {
            tree[name] = {"other", "", 0, nullptr};
        } else {
            tree[name] = {"file " + std::string(mode) + attributes(path),
                          st.st_size > (64 << 20) ? std::to_string(st.st_size) + " bytes" : canonical(slurp(path)), st.st_ino, pin(path)};
        }
    }
    return tree;
}

}  // namespace tool
