#include "reliability/fault_run.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "platform/pw_data.h"
#include "support/phone_root.h"

extern char** environ;

namespace reliability {

namespace fs = std::filesystem;

namespace {

std::string readAll(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream buffer;
    buffer << in.rdbuf();
    return buffer.str();
}

void writeAll(const std::string& path, const std::string& bytes) {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << bytes;
}

std::vector<ShimRecord> parseRecords(const std::string& bytes) {
    std::vector<ShimRecord> records;
    size_t pos = 0;
    while (pos < bytes.size()) {
        size_t eol = bytes.find('\n', pos);
        if (eol == std::string::npos) break;
        std::istringstream head(bytes.substr(pos, eol - pos));
        ShimRecord r;
        size_t pathLength = 0;
        long dataLength = 0;
        head >> r.tag >> r.op >> r.n >> pathLength >> dataLength;
        pos = eol + 1;
        r.path = bytes.substr(pos, pathLength);
        pos += pathLength;
        if (dataLength >= 0) {
            r.data = bytes.substr(pos, static_cast<size_t>(dataLength));
            pos += static_cast<size_t>(dataLength);
        }
        records.push_back(std::move(r));
    }
    return records;
}

// The test process's environment without anything that steers the tool or the shim.
std::vector<std::string> cleanEnvironment() {
    std::vector<std::string> env;
    for (char** e = environ; *e; ++e) {
        std::string entry = *e;
        if (entry.rfind("CFGUPGRADE_", 0) != 0 && entry.rfind("FAULT_", 0) != 0 && entry.rfind("LD_PRELOAD=", 0) != 0 &&
            entry.rfind("ASAN_OPTIONS=", 0) != 0)
            env.push_back(entry);
    }
    return env;
}

// Protected values carry a random nonce, so two runs never write the same bytes for
// them. Each is compared by what it protects: "pw1:TOKEN" reads "pw1(PLAIN)".
std::string canonical(std::string bytes) {
    static const char kTokenChars[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
    for (size_t at = bytes.find("pw1:"); at != std::string::npos; at = bytes.find("pw1:", at + 1)) {
        size_t end = bytes.find_first_not_of(kTokenChars, at + 4);
        std::string token = bytes.substr(at, end == std::string::npos ? end : end - at);
        char plain[kPwDataBufferSize] = {};
        if (pw_data_decrypt(token.c_str(), plain) == 0) bytes.replace(at, token.size(), "pw1(" + std::string(plain) + ")");
    }
    return bytes;
}

}  // namespace

long ToolRun::calls(const std::string& op) const {
    for (const auto& r : records)
        if (r.tag == "count" && r.op == op) return r.n;
    return 0;
}

const ShimRecord* ToolRun::find(const std::string& tag) const {
    for (const auto& r : records)
        if (r.tag == tag) return &r;
    return nullptr;
}

ToolRun runTool(const std::string& root, const std::string& mode, const Fault& fault, const RunOptions& options) {
    std::string base = root + ".run";
    std::string logFile = base + ".log", reportFile = base + ".report", errFile = base + ".err";
    for (const auto& f : {logFile, reportFile, errFile}) std::remove(f.c_str());

    std::vector<std::string> env = cleanEnvironment();
    env.push_back("CFGUPGRADE_ROOT=" + root);
    env.push_back("CFGUPGRADE_LOG=" + logFile);
    // Under qemu-user the shim must reach the emulated tool, not the emulator itself.
    env.push_back(std::string(toolIsEmulated() ? "QEMU_SET_ENV=" : "") + "LD_PRELOAD=" + CFGUPGRADE_FAULT_SHIM);
    // The sanitizer runtime wants to come first; the shim passes every call on to it.
    // LeakSanitizer cannot stop the threads of a process that strace already traces.
    env.push_back(std::string("ASAN_OPTIONS=verify_asan_link_order=0") + (options.wrapper.empty() ? "" : ":detect_leaks=0"));
    env.push_back("FAULT_REPORT=" + reportFile);
    if (!fault.ops.empty()) {
        env.push_back("FAULT_OPS=" + fault.ops);
        env.push_back("FAULT_AT=" + std::to_string(fault.at));
        env.push_back("FAULT_DO=" + fault.action);
    }
    env.insert(env.end(), options.env.begin(), options.env.end());
    std::vector<char*> envp;
    for (auto& e : env) envp.push_back(&e[0]);
    envp.push_back(nullptr);
    // A wrapper (strace) goes before the tool, and the tool itself may need its emulator.
    // A memory limit is set by prlimit in the child alone: set in this process, it
    // would also bind the spawn itself.
    std::vector<std::string> args = options.wrapper;
    if (options.addressSpace) args.insert(args.begin(), {"prlimit", "--as=" + std::to_string(options.addressSpace), "--"});
    for (const std::string& word : toolCommand()) args.push_back(word);
    args.push_back(mode);
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(&a[0]);
    argv.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, errFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ToolRun run;
    pid_t pid;
    int status = 0;
    int spawned = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), envp.data());
    if (spawned == 0 && waitpid(pid, &status, 0) == pid) run.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    posix_spawn_file_actions_destroy(&actions);
    run.log = readAll(logFile);
    run.errors = readAll(errFile);
    run.records = parseRecords(readAll(reportFile));
    return run;
}

const char* faultInjectionUnavailable() {
    if (CFGUPGRADE_STATIC_TOOL) return "the tool is linked statically: the fault shim cannot be preloaded into it";
    // The shim does reach the emulated tool, but faults are injected in native builds
    // only (make test): system-call tracing, which is to replace the shim, sees qemu's
    // calls rather than the tool's, and the fault runs would triple the cross test.
    if (toolIsEmulated()) return "under qemu-user faults are injected in native builds only (make test)";
    return nullptr;
}

Tree snapshot(const std::string& root) {
    Tree tree;
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
        std::string logical = entry.path().string().substr(root.size());
        if (entry.is_symlink())
            tree[logical] = "-> " + fs::read_symlink(entry.path()).string();
        else if (entry.is_regular_file() && entry.file_size() > (64u << 20))
            tree[logical] = "(" + std::to_string(entry.file_size()) + " bytes)";
        else if (entry.is_regular_file())
            tree[logical] = canonical(readAll(entry.path()));
    }
    return tree;
}

State stateOf(const Tree& tree, const std::string& path) {
    auto it = tree.find(path);
    return it == tree.end() ? State() : State(it->second);
}

bool isTempName(const std::string& path) { return path.find(".cfgupgrade-") != std::string::npos; }

void copyImage(const std::string& from, const std::string& to) {
    std::error_code ec;
    fs::remove_all(to, ec);
    fs::copy(from, to, fs::copy_options::recursive | fs::copy_options::copy_symlinks);
}

const char kDirectIpMarker[] = "AuthName = dip-only-in-account-5";

void buildImage(const std::string& root, const std::string& mode) {
    copyImage(CFGUPGRADE_EXAMPLES "/phone-root", root);
    fs::create_directories(root + "/tmp");
    // Two accounts flagged direct-IP: the higher one is the one to keep.
    writeAll(root + "/config/user/voip/sipAccount5.cfg",
             std::string("[account]\nEnable = 1\nLabel = Desk IP\nUserName = dip\n") + kDirectIpMarker +
                 "\ndirectip = 1\npassword = d1p;pass\n");
    writeAll(root + "/config/user/voip/sipAccount3.cfg",
             "[account]\r\nEnable = 0\r\nUserName = 1004\r\npassword = spare#4\r\nCancelTimer = 90\r\n");
    if (mode == "2") runTool(root, "1");
    // "+lock": the factory wants the passwords protected and the user's are plain.
    if (mode.find("+lock") != std::string::npos) {
        writeAll(root + "/phone/factory/user/user.ini", "[PhoneSetting]\nEnLock = 1\n");
        std::string user = readAll(root + "/config/user/user.ini");
        user.replace(user.find("EnLock = 1"), 10, "EnLock = 0");
        writeAll(root + "/config/user/user.ini", user);
    }
}

std::string modeOf(const std::string& variant) { return variant.substr(0, variant.find('+')); }

bool directIpAccountKept(const Tree& tree) {
    for (const auto& [path, bytes] : tree)
        if (path.rfind("/config/user/voip/", 0) == 0 && !isTempName(path) && bytes.find(kDirectIpMarker) != std::string::npos)
            return true;
    return false;
}

std::map<std::string, std::set<State>> statesOfRun(const Tree& before, const ToolRun& run) {
    std::map<std::string, std::set<State>> states;
    for (const auto& [path, bytes] : before) states[path].insert(bytes);
    for (const auto& r : run.records) {
        if (r.tag != "renamed" && r.tag != "unlinked") continue;
        if (!before.count(r.path)) states[r.path].insert(std::nullopt);
        states[r.path].insert(r.data ? State(canonical(*r.data)) : r.data);
    }
    return states;
}

WorkDir::WorkDir() {
    char pattern[] = "/tmp/cfgupgrade-reliability-XXXXXX";
    dir_ = mkdtemp(pattern) ? pattern : "/tmp/cfgupgrade-reliability";
}

WorkDir::~WorkDir() {
    std::error_code ec;
    fs::remove_all(dir_, ec);
}

}  // namespace reliability
