// Disk faults, power cuts and durability, made in the tool's own system calls by strace.
// A traced run of each image and mode is the reference: it says which calls touch the
// phone root and what every file becomes. Then, for each row of kFaults and each such
// call in turn, a copy of the image is run with that one call failing (strace -e
// inject=CALL:error=ERRNO:when=N) or the process killed on entering it (a power cut:
// :signal=KILL). A failure is logged once and loses nothing; after a cut every file is
// whole, and the next run ends where an uninterrupted one does. A kill keeps what the
// kernel accepted, so the reference trace is also checked for the fsyncs that make each
// rename and removal survive a real power cut.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <optional>
#include <set>

#include "support/tool_run.h"

namespace {

namespace fs = std::filesystem;
using State = std::optional<std::string>;  // a file's bytes; nullopt: no such file

struct Call {
    std::string name, fd;              // fd: the path strace -y shows for the first argument
    std::vector<std::string> strings;  // the quoted arguments
    bool end = false;                  // a read that found the end of the file
    bool injected = false;             // the call strace made fail
};

// strace -xx prints every byte of a path or buffer as \xNN.
std::string decode(const std::string& text) {
    std::string out;
    for (size_t i = 0; i + 4 <= text.size(); i += 4) out += static_cast<char>(std::stoi(text.substr(i + 2, 2), nullptr, 16));
    return out;
}

std::vector<Call> parseTrace(const std::string& trace) {
    std::vector<Call> calls;
    std::istringstream in(trace);
    for (std::string line; std::getline(in, line);) {
        line.erase(0, line.find_first_not_of("0123456789 "));  // strace -f puts the process id first
        Call c{line.substr(0, line.find('(')), "", {}};
        size_t lt = line.find('<'), gt = line.find('>');
        if (lt < line.find(',') && gt != std::string::npos) c.fd = decode(line.substr(lt + 1, gt - lt - 1));
        for (size_t at = line.find('"'); at != std::string::npos; at = line.find('"', line.find('"', at + 1) + 1))
            c.strings.push_back(decode(line.substr(at + 1, line.find('"', at + 1) - at - 1)));
        c.end = c.name == "read" && line.size() > 4 && line.compare(line.size() - 4, 4, " = 0") == 0;
        c.injected = line.find(" (INJECTED)") != std::string::npos;
        calls.push_back(c);
    }
    return calls;
}

bool isTemp(const std::string& path) { return path.find("/.cfgupgrade-") != std::string::npos; }

struct Fault {
    const char* call;
    const char* what;  // an errno name, or KILL
    int err;
};

// Each call the writer and the readers make, failing with what a full, broken or
// read-only disk gives; and the cuts: before an fsync (so after a write or a rename)
// and before a removal.
const Fault kFaults[] = {
    {"write", "ENOSPC", ENOSPC}, {"fsync", "EIO", EIO},        {"renameat", "EIO", EIO},  {"openat", "EACCES", EACCES},
    {"read", "EIO", EIO},        {"getdents64", "EIO", EIO},   {"unlinkat", "EROFS", EROFS},
    {"fsync", "KILL", 0},        {"unlinkat", "KILL", 0},
};

const char kMarker[] = "dip-only-in-account-5";  // the direct-IP account of both images

bool directIpKept(const tool::Tree& tree) {
    for (const auto& [path, entry] : tree)
        if (path.rfind("/config/user/voip/", 0) == 0 && !isTemp(path) && entry.bytes.find(kMarker) != std::string::npos) return true;
    return false;
}

class Faults : public ::testing::TestWithParam<std::string> {  // "IMAGE MODE"
protected:
    tool::WorkDir work;
    std::string image = GetParam().substr(0, GetParam().find(' ')), mode = GetParam().substr(GetParam().find(' ') + 1);

    void freshImage() {
        fs::remove_all(work.root());
        tool::plant(CFGUPGRADE_TESTS "/golden/images/" + image, work.root());
        fs::create_directories(work.root() + "/tmp");
    }
    void SetUp() override {
        if (tool::emulated()) GTEST_SKIP() << "under an emulator strace sees the emulator's calls; faults are made in native builds (make test)";
        if (std::system("strace -o /dev/null true >/dev/null 2>&1") != 0) GTEST_SKIP() << "strace is missing or may not trace here (make test installs it)";
    }
    // A run of the image that records the calls this file looks at.
    std::vector<Call> reference(tool::Run& run) {
        freshImage();
        run = traced({"-y", "-xx", "-s", "99999999", "-o", work.path + "/trace", "-e",
                      "trace=openat,read,write,fsync,renameat,unlinkat,getdents64"});
        return parseTrace(tool::slurp(work.path + "/trace"));
    }
    // Under strace; with --seccomp-bpf only the traced calls stop the process (quicker),
    // but strace 6 then delivers no injected signal.
    tool::Run traced(const std::vector<std::string>& strace, bool quick = true) {
        tool::Options o;
        o.args = {mode};
        o.wrap = {"strace", "-f", "-qq"};
        if (quick) o.wrap.push_back("--seccomp-bpf");
        o.wrap.insert(o.wrap.end(), strace.begin(), strace.end());
        return tool::run(work.path, o);
    }
};

// The logical path of a physical one under the root; empty outside it.
std::string logical(const std::string& physical, const std::string& root) {
    return physical.rfind(root + "/", 0) == 0 ? physical.substr(root.size()) : "";
}

// Which calls of a kind touch the root (1-based, as strace counts them); the files
// (and directory entries) the root's calls touch are what a fault may hit.
std::vector<long> callsUnderRoot(const std::vector<Call>& calls, const std::string& name, const std::string& root,
                                 bool cut = false) {
    std::vector<long> at;
    long n = 0;
    for (const Call& c : calls) {
        if (c.name != name) continue;
        ++n;
        bool dirEntry = name == "openat" && !c.strings.empty() && c.strings[0] != "." && c.strings[0] != "..";
        // A read at the end of a file fails the way the read before it would. A cut before
        // the fsync of a temporary file leaves what the cut before the last directory
        // fsync left, and a temporary file besides: the first such cut shows the clean-up.
        bool sameCut = cut && isTemp(c.fd) && !at.empty();
        if (!logical(c.fd, root).empty() && (name != "openat" || dirEntry) && !c.end && !sameCut) at.push_back(n);
    }
    return at;
}

// Every state a file passes through in the reference run: before, and each content
// renamed into it (the writes to its temporary file) or its removal.
std::map<std::string, std::set<State>> statesOfRun(const tool::Tree& before, const std::vector<Call>& calls,
                                                   const std::string& root) {
    std::map<std::string, std::set<State>> states;
    for (const auto& [path, entry] : before) states[path].insert(entry.bytes);
    std::map<std::string, std::string> temp;  // temporary file -> bytes written
    for (const Call& c : calls) {
        std::string dir = logical(c.fd, root);
        if (c.name == "write" && isTemp(dir)) temp[dir] += c.strings.at(0);
        if (c.name == "renameat" && c.strings.size() == 2) {
            std::string path = dir + "/" + c.strings[1];
            if (!before.count(path)) states[path].insert(std::nullopt);
            states[path].insert(tool::canonical(temp[dir + "/" + c.strings[0]]));
        }
        if (c.name == "unlinkat" && !dir.empty() && !isTemp(c.strings.at(0))) states[dir + "/" + c.strings[0]].insert(std::nullopt);
    }
    return states;
}

// Problems with the order of the writer's calls: a temporary file is fsynced after its
// last write and before its rename; a directory is fsynced after every rename into it
// and every removal from it.
std::vector<std::string> orderProblems(const std::vector<Call>& calls) {
    std::vector<std::string> problems;
    std::map<std::string, bool> synced;      // temporary file -> fsynced since its last write
    std::map<std::string, std::string> due;  // directory -> the change that awaits its fsync
    for (const Call& c : calls) {
        if (c.name == "write" && isTemp(c.fd)) synced[c.fd] = false;
        if (c.name == "fsync") synced[c.fd] = true, due.erase(c.fd);
        if (c.name == "renameat" && c.strings.size() == 2) {
            if (!synced[c.fd + "/" + c.strings[0]]) problems.push_back("renamed before its fsync: " + c.strings[1]);
            due.emplace(c.fd, "rename to " + c.strings[1]);
        }
        if (c.name == "unlinkat" && !isTemp("/" + c.strings.at(0))) due.emplace(c.fd, "removal of " + c.strings[0]);
    }
    for (const auto& [dir, change] : due) problems.push_back("no fsync of the directory after the " + change);
    return problems;
}

// A tree without inodes: a run after a cut writes files anew, its bytes are what count.
tool::Tree contentOf(tool::Tree tree) {
    for (auto& [path, entry] : tree) entry.inode = 0;
    return tree;
}

std::set<std::string> linesOf(const std::string& text) {
    std::set<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.insert(line);
    return lines;
}

}  // namespace

// A killed process keeps what the kernel accepted, so the cuts below cannot see a
// missing fsync; the order of the calls of a real run can.
TEST_P(Faults, EveryRenameAndRemovalIsSyncedInOrder) {
    tool::Run run;
    std::vector<Call> calls = reference(run);
    ASSERT_EQ(run.status, 0);
    EXPECT_GT(std::count_if(calls.begin(), calls.end(), [](const Call& c) { return c.name == "renameat"; }), 0);
    for (const auto& p : orderProblems(calls)) ADD_FAILURE() << mode << ": " << p;
}

TEST_P(Faults, EachFailedCallIsLoggedOnceAndEachCutLeavesWholeFiles) {
    const std::string root = work.root(), trace = work.path + "/trace";
    freshImage();
    const tool::Tree before = tool::snapshot(work.path);
    tool::Run reference;
    const std::vector<Call> calls = this->reference(reference);
    ASSERT_EQ(reference.status, 0);
    const tool::Tree after = tool::snapshot(work.path);
    std::set<std::string> knownLines;  // what a clean run may leave in a file, line by line
    for (const auto& [path, set] : statesOfRun(before, calls, root))
        for (const State& s : set) knownLines.merge(linesOf(s.value_or("")));

    int tried = 0;
    std::string perKind;
    for (const Fault& f : kFaults) {
        const bool cut = std::strcmp(f.what, "KILL") == 0;
        const std::vector<long> points = callsUnderRoot(calls, f.call, root, cut);
        perKind += std::string(" ") + f.call + "/" + f.what + " " + std::to_string(points.size());
        for (long n : points) {
            const std::string where = mode + ", " + f.call + " call " + std::to_string(n) + " " + f.what + ": ";
            freshImage();
            tool::Run run = traced({"-y", "-xx", "-s", "99999999", "-o", trace, "-e", std::string("trace=write,renameat,unlinkat,") + f.call,
                                    "-e", std::string("inject=") + f.call + (cut ? ":signal=" : ":error=") + f.what + ":when=" + std::to_string(n)}, !cut);
            const std::vector<Call> runCalls = parseTrace(tool::slurp(trace));
            auto states = statesOfRun(before, runCalls, root);
            tool::Tree now = tool::snapshot(work.path);
            ++tried;
            EXPECT_EQ(run.status, cut ? 128 + SIGKILL : 0) << where;
            for (const auto& [path, entry] : now) {
                if (isTemp(path)) {
                    EXPECT_TRUE(cut) << where << "temporary file left: " << path;
                    continue;
                }
                EXPECT_TRUE(states[path].count(entry.bytes)) << where << path << " was written in place";
                for (const auto& line : linesOf(entry.bytes))
                    EXPECT_TRUE(knownLines.count(line)) << where << path << " holds a line no clean run writes: " << line;
            }
            for (const auto& [path, entry] : after)
                EXPECT_TRUE(now.count(path) || !before.count(path)) << where << path << " is gone";
            EXPECT_TRUE(directIpKept(now)) << where << "the direct-IP account is lost";
            if (!cut) {
                // One line names the failure, with the system's words for it; a failed read
                // that only compared bytes before a write costs a rewrite, not a line.
                std::string failures;
                for (const auto& line : linesOf(run.log))
                    if (line.rfind("app_log[60/4] Cannot ", 0) == 0 && !linesOf(reference.log).count(line)) failures += line + "\n";
                std::string error = std::string(": ") + std::strerror(f.err) + "\n";
                bool one = failures.size() > error.size() && failures.find('\n') == failures.size() - 1 &&
                           failures.compare(failures.size() - error.size(), error.size(), error) == 0;
                // The run's own trace says which call failed. Should it not be the root's call
                // the reference numbered (the log's write instead), the log could not carry
                // the line: say so, since the runs then differed, and expect none.
                auto hit = std::find_if(runCalls.begin(), runCalls.end(), [](const Call& c) { return c.injected; });
                if (hit == runCalls.end() || logical(hit->fd, root).empty()) {
                    std::cout << "[ faults ] " << where << "the failed call was not the root's: " << (hit == runCalls.end() ? "none" : hit->fd) << "\n";
                    EXPECT_EQ(failures, "") << where;
                } else {
                    EXPECT_TRUE(one || (failures.empty() && std::strcmp(f.call, "read") == 0)) << where << failures;
                }
            }
            // The next boot ends where an uninterrupted run ends, and keeps the direct-IP
            // account (mode 2 without its direct-IP file installs the factory account file
            // 16, by design).
            if ((!cut && mode == "all") || (mode == "2" && !now.count("/config/user/voip/directip.cfg"))) continue;
            tool::Options clean;
            clean.args = {mode};
            EXPECT_EQ(tool::run(work.path, clean).status, 0) << where;
            tool::Tree final = tool::snapshot(work.path);
            // A fault may reorder the keys a step adds; a cut only stops the run early.
            if (cut) {
                EXPECT_TRUE(contentOf(final) == contentOf(after)) << where << "the next run does not end where an uninterrupted run ends";
            }
            EXPECT_TRUE(directIpKept(final)) << where << "the next run lost the direct-IP account";
        }
    }
    std::cout << "[ faults ] " << GetParam() << ": " << tried << " faults and cuts:" << perKind << "\n";
    EXPECT_GT(tried, 50);
}

// Longest first, so that ctest -j starts it first.
INSTANTIATE_TEST_SUITE_P(Images, Faults, ::testing::Values("every-step 2", "every-step all", "every-step 1"),
                         [](const auto& info) { return "mode_" + info.param.substr(info.param.find(' ') + 1); });
