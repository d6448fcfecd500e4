// Runs the cfgupgrade binary on a phone image with the fault shim preloaded, and
// reads back what the shim recorded: the files renamed into place, the calls it
// counted, and what a failed call's target held before and after the failure.
#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace reliability {

// Logical path -> bytes of every regular file under a root; a link reads "-> TARGET",
// a file over 64 MiB "(N bytes)".
// A protected value "pw1:TOKEN" reads "pw1(PLAIN)": its bytes differ from run to run.
using Tree = std::map<std::string, std::string>;
using State = std::optional<std::string>;  // nullopt: no such file

struct ShimRecord {
    std::string tag, op;
    long n = 0;
    std::string path;
    State data;
};

// What the shim does: nothing (ops empty), or act on call `at` among the calls of `ops`.
struct Fault {
    std::string ops;     // comma separated kinds, as FAULT_OPS
    long at = 0;
    std::string action;  // "cut", "tear" or an errno name
};

struct ToolRun {
    int exitCode = -1;   // -1 when the process did not exit by itself
    std::string log;     // its log records
    std::string errors;  // its standard error (sanitizer reports)
    std::vector<ShimRecord> records;

    long calls(const std::string& op) const;  // calls of that kind under the root
    const ShimRecord* find(const std::string& tag) const;
};

// How the tool is started besides the fault: more environment, a command it runs under
// (strace), a limit on its address space in bytes (0: none).
struct RunOptions {
    std::vector<std::string> env;
    std::vector<std::string> wrapper;
    unsigned long addressSpace = 0;
};

ToolRun runTool(const std::string& root, const std::string& mode, const Fault& fault = {}, const RunOptions& options = {});

// Why faults cannot be injected into this build's tool, or nullptr when they can.
const char* faultInjectionUnavailable();

Tree snapshot(const std::string& root);
State stateOf(const Tree& tree, const std::string& path);
bool isTempName(const std::string& path);
void copyImage(const std::string& from, const std::string& to);

// Builds the test image for a mode in `root`: the example phone image with a second
// direct-IP account, and for mode "2" the image as an uninterrupted mode "1" left it.
// A mode followed by "+lock" gets a factory that asks for protected passwords.
void buildImage(const std::string& root, const std::string& mode);
std::string modeOf(const std::string& variant);

// A value found only in the direct-IP account of the image: some account place must hold it.
bool directIpAccountKept(const Tree& tree);

// Every state each file passes through in a run: its state before, and each content
// renamed into place or removal the shim recorded.
std::map<std::string, std::set<State>> statesOfRun(const Tree& before, const ToolRun& run);

// A fresh directory for one test, removed with the object.
class WorkDir {
public:
    WorkDir();
    ~WorkDir();
    std::string path(const std::string& name) const { return dir_ + "/" + name; }

private:
    std::string dir_;
};

}  // namespace reliability
