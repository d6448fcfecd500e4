// Golden phone images. Each directory of tests/golden/cases is one case: its file "case"
// names the images it starts from (tests/golden/images, copied in order, then the case's
// own "plant" directory), shell lines that make what a repository cannot hold ("setup":
// FIFOs, sparse files, attributes), the tool's arguments and how it is started. The tool
// runs twice; "N.txt" says what run N printed, logged and changed, and "N/" holds the bytes
// of every file it changed. Every case runs once with openat2 and once with the component
// walk of older kernels, with the same expectations. CFGUPGRADE_GOLDEN=update rewrites the
// expectations from what the tool does: read that diff before committing it.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <iterator>
#include <csignal>

#include "migrations/accounts/accounts.h"
#include "migrations/features/features.h"
#include "passwords/passwords.h"
#include "store/config_store.h"
#include "support/tool_run.h"
#include "translate/translate.h"

namespace {

namespace fs = std::filesystem;
const std::string kGolden = CFGUPGRADE_TESTS "/golden";

struct Case {
    std::vector<std::string> images, setup;
    tool::Options options;
    unsigned long cgroupMemory = 0;
    std::string nativeOnly;  // why the case cannot run under an emulator
};

Case readCase(const std::string& name) {
    Case c;
    std::istringstream in(tool::slurp(kGolden + "/cases/" + name + "/case"));
    for (std::string line; std::getline(in, line);) {
        size_t blank = line.find(' ');
        std::string word = line.substr(0, blank), rest = blank == std::string::npos ? "" : line.substr(blank + 1);
        std::istringstream restWords(rest);
        std::vector<std::string> words{std::istream_iterator<std::string>(restWords), {}};
        if (word == "image") c.images = words;
        if (word == "args") c.options.args = words;
        if (word == "env") c.options.env.push_back(rest);
        if (word == "setup") c.setup.push_back(rest);
        if (word == "wrap") c.options.wrap = words;
        if (word == "limit") c.options.addressSpace = std::stoul(rest);
        if (word == "rlimit")
            for (const auto& w : words) c.options.limits.push_back("--" + w);
        if (word == "cgroup") c.cgroupMemory = std::stoul(rest);
        if (word == "native") c.nativeOnly = rest;
        if (word == "streams")
            c.options.streams = rest == "closed" ? tool::Streams::kClosed
                                : rest == "full-pipes" ? tool::Streams::kFullPipes : tool::Streams::kClosedPipes;
    }
    return c;
}

// A stable fingerprint for files too big to keep as expectations (FNV-1a).
std::string fingerprint(const std::string& bytes) {
    unsigned long long h = 14695981039346656037ull;
    for (unsigned char c : bytes) h = (h ^ c) * 1099511628211ull;
    return std::to_string(bytes.size()) + " bytes, fingerprint " + std::to_string(h);
}

// The log as the tool wrote it, but for the binary's path and the certificate lines: the
// sync copies in directory order, which each filesystem chooses, so each certificate's
// lines (its "Sync cert" line and the store's lines about it) are sorted as a group.
std::string canonicalLog(const std::string& log) {
    std::string out;
    std::vector<std::string> groups;
    auto flush = [&] {
        std::sort(groups.begin(), groups.end());
        for (const auto& group : groups) out += group;
        groups.clear();
    };
    std::istringstream in(log);
    for (std::string line; std::getline(in, line);) {
        for (size_t at; (at = line.find(CFGUPGRADE_BINARY)) != std::string::npos;) line.replace(at, sizeof CFGUPGRADE_BINARY - 1, "cfgupgrade");
        if (line.find("Sync cert cp") != std::string::npos) groups.push_back(line + "\n");
        else if (!groups.empty() && line.find("[/phone/factory/certs/") != std::string::npos) groups.back() += line + "\n";
        else flush(), out += line + "\n";
    }
    flush();
    return out;
}

// What a run did, as "N.txt" says it; `files` gets the bytes of each file it changed.
std::string summary(const tool::Run& run, const tool::Tree& before, const tool::Tree& after,
                    std::map<std::string, std::string>& files) {
    std::string changes;
    for (const auto& [path, entry] : after) {
        auto was = before.find(path);
        if (was != before.end() && was->second == entry) continue;
        changes += (was == before.end() ? "created " : "changed ") + path + " " + entry.kind;
        if (entry.bytes.size() > (64 << 10)) changes += ", " + fingerprint(entry.bytes);
        else if (entry.kind.rfind("file", 0) == 0) files[path] = entry.bytes;
        changes += "\n";
    }
    for (const auto& [path, entry] : before)
        if (!after.count(path)) changes += "removed " + path + "\n";
    std::string err = run.err.empty() ? "" : "--- standard error\n" + canonicalLog(run.err);
    return "exit " + std::to_string(run.status) + "\n--- standard output\n" + run.out + "--- log\n" +
           canonicalLog(run.log) + err + "--- changes\n" + changes;
}

std::map<std::string, std::string> expectedFiles(const std::string& dir) {
    std::map<std::string, std::string> files;
    if (fs::exists(dir))
        for (const auto& entry : fs::recursive_directory_iterator(dir))
            if (entry.is_regular_file()) files[entry.path().string().substr(dir.size())] = tool::slurp(entry.path());
    return files;
}

void writeExpected(const std::string& dir, const std::string& text, const std::map<std::string, std::string>& files) {
    std::ofstream(dir + ".txt", std::ios::binary) << text;
    fs::remove_all(dir);
    for (const auto& [path, bytes] : files) {
        fs::create_directories(fs::path(dir + path).parent_path());
        std::ofstream(dir + path, std::ios::binary) << bytes;
    }
}

// Copies the case's images and plant over the root and runs its setup; the setup line
// that failed (it needs what this machine lacks), or the empty text.
std::string prepare(const std::string& name, const Case& c, const tool::WorkDir& work) {
    for (const auto& image : c.images) tool::plant(kGolden + "/images/" + image, work.root());
    tool::plant(kGolden + "/cases/" + name + "/plant", work.root());
    for (const auto& line : c.setup)
        if (std::system(("cd '" + work.root() + "' && { " + line + "; } >/dev/null 2>&1").c_str()) != 0) return line;
    return "";
}

#ifdef __SANITIZE_ADDRESS__
const bool kSanitized = true;
#else
const bool kSanitized = false;
#endif

// The most memory any run may take, whatever the image: the tool runs at boot on a phone
// with little of it. The sanitizers' shadow memory and an emulator add their own.
const long kPeakRssBudgetKib = 32 << 10;

}  // namespace

class Golden : public ::testing::TestWithParam<std::string> {};

TEST_P(Golden, EachRunEndsInItsExpectedTree) {
    const std::string dir = kGolden + "/cases/" + GetParam();
    Case c = readCase(GetParam());
    if (!c.options.wrap.empty() && (tool::emulated() || std::system("strace -o /dev/null true >/dev/null 2>&1") != 0))
        GTEST_SKIP() << "needs strace tracing the tool itself (make test installs it; not under an emulator)";
    auto countsIo = [](const std::string& word) { return word.rfind("inject=write", 0) == 0 || word.rfind("inject=read", 0) == 0; };
    if (kSanitized && std::any_of(c.options.wrap.begin(), c.options.wrap.end(), countsIo))
        GTEST_SKIP() << "the sanitizer runtime makes read and write calls of its own, which shift the count";
    if ((c.options.addressSpace || c.cgroupMemory) && (kSanitized || tool::emulated()))
        GTEST_SKIP() << "the sanitizer runtime or the emulator needs more memory than the limit";
    if (!c.options.limits.empty() && tool::emulated())
        GTEST_SKIP() << "the emulator's own descriptors and writes count against the limit";
    if (!c.nativeOnly.empty() && tool::emulated()) GTEST_SKIP() << c.nativeOnly;
    std::unique_ptr<tool::MemoryCgroup> cgroup;
    if (c.cgroupMemory) {
        cgroup = std::make_unique<tool::MemoryCgroup>(c.cgroupMemory);
        if (cgroup->procs.empty()) GTEST_SKIP() << cgroup->why;
        c.options.cgroupProcs = cgroup->procs;
    }
    const bool update = tool::updatingGolden();
    for (bool walk : {false, true}) {
        tool::WorkDir work;
        if (std::string failed = prepare(GetParam(), c, work); !failed.empty())
            GTEST_SKIP() << "setup needs what this machine lacks (root, a tool, a filesystem feature): " << failed;
        tool::Options options = c.options;
        options.peakRss = !kSanitized && !tool::emulated();
        if (walk) options.env.push_back("CFGUPGRADE_NO_OPENAT2=1");
        tool::Tree before = tool::snapshot(work.path);
        // The walk answers as openat2 does; its first run shows that.
        for (int n = 1; n <= (walk ? 1 : 2); ++n) {
            const std::string expected = dir + "/" + std::to_string(n), how = walk ? " (walk)" : " (openat2)";
            tool::Run run = tool::run(work.path, options);
            tool::Tree after = tool::snapshot(work.path);
            std::map<std::string, std::string> files;
            std::string text = summary(run, before, after, files);
            if (update && !walk) writeExpected(expected, text, files);
            EXPECT_EQ(text, tool::slurp(expected + ".txt")) << "run " << n << how;
            EXPECT_EQ(files, expectedFiles(expected)) << "run " << n << how;
            EXPECT_LE(run.peakRssKib, kPeakRssBudgetKib) << "peak RSS, run " << n << how;
            before = after;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Cases, Golden, ::testing::ValuesIn(tool::caseNames(kGolden + "/cases")),
                         [](const auto& info) { return tool::testName(info.param); });

// The steps that answer, on the roots of golden cases. A run ignores every answer, so
// only a call in this process sees one.
TEST(GoldenSteps, AnswerAsTheirCaseSays) {
    const auto translate = [] { return static_cast<int>(translateConfig()); };
    struct Row {
        const char* caseName;
        std::function<int()> step;
        int expected;
    } rows[] = {
        {"many-rules", translate, 1},
        {"every-step.all", translate, 0},  // a destination refused
        {"rules-missing", translate, 0},
        {"rules-unparsable", translate, 0},
        {"rules-empty", translate, 0},
        {"every-step.pwd", switchPasswordProtection, 1},
        {"locks-agree", switchPasswordProtection, 1},
        {"user-file-unreadable", switchPasswordProtection, 0},
        {"factory-user-missing", switchPasswordProtection, 0},
        {"key-list-missing", switchPasswordProtection, 0},
        {"every-step.2", renameTalkingSoftkey, 1},
        {"other-way.2", renameTalkingSoftkey, 0},  // no OnTalk node
        {"record-empty", renameTalkingSoftkey, 0},  // no file
        {"every-step.2", [] { return stripValueMarks("/config/user/voip/sipAccount16.cfg"); }, 1},
        {"every-step.2", [] { return stripValueMarks("/config/user/voip/sipAccount9.cfg"); }, 0},
        {"every-step.2", [] { return stripValueMarks(""); }, 0},
        {"every-step.2", [] { return stripValueMarks("/phone/factory/user/voip/sipAccount16.cfg"); }, 0},  // loads, is not saved
        {"install-account16-unwritable", [] { return stripValueMarks("/config/user/voip/sipAccount16.cfg"); }, 0},  // a directory
    };
    for (const Row& row : rows) {
        tool::WorkDir work;
        ASSERT_EQ(prepare(row.caseName, readCase(row.caseName), work), "") << row.caseName;
        setenv("CFGUPGRADE_ROOT", work.root().c_str(), 1);
        setenv("CFGUPGRADE_LOG", (work.path + "/log").c_str(), 1);
        store::reset();
        EXPECT_EQ(row.step(), row.expected) << row.caseName << ", row " << &row - rows;
        store::reset();
    }
    unsetenv("CFGUPGRADE_LOG");
}

// Holds the lock of `dir` in a child process until it is killed or `ms` have passed: no
// thread in the test process, which qemu-user cannot fork safely beside one.
pid_t holdLock(const std::string& dir, int ms) {
    int ready[2];
    if (pipe(ready) != 0) return -1;
    pid_t pid = fork();
    if (pid == 0) {
        int fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY);
        char taken = flock(fd, LOCK_EX) == 0;
        if (write(ready[1], &taken, 1) != 1) _exit(1);
        usleep(ms * 1000);
        _exit(0);
    }
    close(ready[1]);  // so that a child that dies first gives end of file, not a wait
    char taken = 0;
    bool ok = pid > 0 && read(ready[0], &taken, 1) == 1 && taken;
    close(ready[0]);
    return ok ? pid : -1;
}

// One run at a time per root: a run waits for the one holding /config, and gives up with
// one line, changing nothing, when it is held past the wait's bound (10 s).
TEST(GoldenLock, ARunWaitsForTheRunHoldingTheRootThenGivesUp) {
    if (tool::emulated()) GTEST_SKIP() << "qemu-user's forked child dies before it holds the lock";
    const std::string refused = "Cannot lock [/config]: another run has held it for 10 s; this run changes nothing\n";
    for (bool releasedSoon : {true, false}) {
        tool::WorkDir work;
        ASSERT_EQ(prepare("every-step.1", readCase("every-step.1"), work), "");
        tool::Tree before = tool::snapshot(work.path);
        pid_t holder = holdLock(work.root() + "/config", releasedSoon ? 300 : 60000);
        ASSERT_GT(holder, 0);
        auto start = std::chrono::steady_clock::now();
        tool::Run run = tool::run(work.path, readCase("every-step.1").options);
        double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        kill(holder, SIGKILL);
        waitpid(holder, nullptr, 0);
        std::map<std::string, std::string> files;
        std::string text = summary(run, before, tool::snapshot(work.path), files);
        EXPECT_EQ(run.status, 0) << text;
        EXPECT_EQ(text.find(refused) == std::string::npos, releasedSoon) << text;
        const std::string nothingChanged = "--- changes\n";
        EXPECT_EQ(text.size() >= nothingChanged.size() && text.substr(text.size() - nothingChanged.size()) == nothingChanged,
                  !releasedSoon) << text;
        EXPECT_LT(seconds, releasedSoon ? 5.0 : 12.0) << text;
    }
}

// Every descriptor limit from 4 to 16, on the image where every step has work. Which
// files a run cannot open depends on how many descriptors it holds at that moment, so the
// lines are checked rather than pinned: exit 0, and each refusal an unlimited run does
// not make says "Too many open files", never a missing file or a link leading out.
TEST(GoldenLimits, RunningOutOfDescriptorsIsSaidAsSuch) {
    if (kSanitized || tool::emulated()) GTEST_SKIP() << "the sanitizer runtime or the emulator needs descriptors of its own";
    const Case c = readCase("every-step.all");
    auto logOf = [&](const std::vector<std::string>& limits) {
        tool::WorkDir work;
        EXPECT_EQ(prepare("every-step.all", c, work), "");
        tool::Options options = c.options;
        options.limits = limits;
        tool::Run run = tool::run(work.path, options);
        EXPECT_EQ(run.status, 0) << (limits.empty() ? "unlimited" : limits[0]);
        return run.log;
    };
    const std::string unlimited = logOf({});
    for (int n = 4; n <= 16; ++n) {
        std::istringstream log(logOf({"--nofile=" + std::to_string(n)}));
        for (std::string line; std::getline(log, line);) {
            bool refusal = line.find("Cannot ") != std::string::npos || line.find("not exist") != std::string::npos;
            if (!refusal || unlimited.find(line + "\n") != std::string::npos) continue;
            EXPECT_NE(line.find(": Too many open files"), std::string::npos) << "nofile " << n << ": " << line;
        }
    }
}
