// The plan is exact: for every golden image and mode, what a staged run would leave
// (the store's writes kept in memory, as cfgupgrade-plan runs) is what a real run of
// the tool leaves on a copy of the image, file for file, and the staged run leaves the
// image itself as it was. Protected values are compared by what they protect.
//
// Each staged run is made in a child forked from this process, which runs no step of
// its own, so every run starts from the tool's fresh state as the plan's children do.
#include <gtest/gtest.h>

#include <optional>

#include "driver/driver.h"
#include "store/report.h"
#include "store/staging.h"
#include "support/tool_run.h"

namespace {

namespace fs = std::filesystem;
using Planned = std::map<std::string, std::optional<std::string>>;  // tree name -> bytes, or removed

const char* const kModes[] = {"all", "dev", "pwd", "1", "2", "other"};

// The tree name (tool::snapshot's) of a logical path under the root of `work`.
std::string treeName(const std::string& work, const std::string& logical) {
    fs::path physical = fs::path(work + "/root" + logical);
    std::error_code ec;
    fs::path parent = fs::canonical(physical.parent_path(), ec);
    fs::path file = fs::is_symlink(physical) ? fs::canonical(physical, ec) : parent / physical.filename();
    std::string name = file.string();
    if (name.rfind(work + "/root/", 0) == 0) return name.substr(work.size() + 5);
    return "/.." + name.substr(work.size());
}

void sendAll(int fd, const std::string& bytes) {
    for (size_t at = 0; at < bytes.size();) {
        ssize_t n = write(fd, bytes.data() + at, bytes.size() - at);
        if (n <= 0) return;
        at += static_cast<size_t>(n);
    }
}

// The child: the run with staging on; every file's last state, as "name\0" "1" or "0", size, bytes.
[[noreturn]] void stagedChild(const std::string& work, const char* mode, int fd) {
    setenv("CFGUPGRADE_ROOT", (work + "/root").c_str(), 1);
    setenv("CFGUPGRADE_LOG", "/dev/null", 1);
    int null = open("/dev/null", O_WRONLY);
    dup2(null, 1);
    store::setReportSink([](const char*) {});
    store::fs::setStaging(true);
    std::map<std::string, std::optional<std::string>> last;
    store::fs::setChangeListener([&](const store::fs::FileChange& c) {
        last[c.logical] = c.after ? std::optional<std::string>(std::string(*c.after)) : std::nullopt;
    });
    char program[] = "cfgupgrade";
    std::string modeText = mode;
    char* argv[] = {program, &modeText[0], nullptr};
    runUpgrade(2, argv);
    std::string out;
    for (const auto& [logical, bytes] : last) {
        std::string body = bytes.value_or("");
        out += logical + '\0' + (bytes ? '1' : '0') + std::to_string(body.size()) + '\0' + body;
    }
    sendAll(fd, out);
    _exit(0);
}

Planned stagedRun(const std::string& work, const char* mode) {
    int ends[2];
    if (pipe(ends) != 0) return {};
    pid_t pid = fork();
    if (pid == 0) close(ends[0]), stagedChild(work, mode, ends[1]);
    close(ends[1]);
    std::string in;
    char buffer[65536];
    for (ssize_t n; (n = read(ends[0], buffer, sizeof buffer)) > 0;) in.append(buffer, static_cast<size_t>(n));
    close(ends[0]);
    waitpid(pid, nullptr, 0);
    Planned planned;
    for (size_t at = 0; at < in.size();) {
        size_t nul = in.find('\0', at);
        std::string logical = in.substr(at, nul - at);
        bool exists = in[nul + 1] == '1';
        size_t sizeEnd = in.find('\0', nul + 2);
        size_t size = std::stoul(in.substr(nul + 2, sizeEnd - nul - 2));
        std::string bytes = in.substr(sizeEnd + 1, size);
        at = sizeEnd + 1 + size;
        planned[treeName(work, logical)] = exists ? std::optional<std::string>(tool::canonical(bytes)) : std::nullopt;
    }
    return planned;
}

// What changed between two trees: bytes of a created or changed file, nullopt for a removed one.
Planned difference(const tool::Tree& before, const tool::Tree& after) {
    Planned changed;
    for (const auto& [name, entry] : after) {
        auto was = before.find(name);
        if (was == before.end() || was->second.bytes != entry.bytes || was->second.kind.rfind("file", 0) != 0)
            changed[name] = entry.bytes;
    }
    for (const auto& [name, entry] : before)
        if (!after.count(name)) changed[name] = std::nullopt;
    return changed;
}

}  // namespace

TEST(Plan, EqualsWhatARealRunChangesOnEveryGoldenImageAndMode) {
    if (tool::emulated()) GTEST_SKIP() << "cfgupgrade-plan is a host program: its forked runs crash qemu-user";
    for (const auto& image : fs::directory_iterator(CFGUPGRADE_TESTS "/golden/images")) {
        for (const char* mode : kModes) {
            const std::string what = image.path().filename().string() + " mode " + mode;
            tool::WorkDir planned, real;
            tool::plant(image.path(), planned.root());
            tool::plant(image.path(), real.root());
            tool::Tree image = tool::snapshot(planned.path);
            Planned plan = stagedRun(planned.path, mode);
            EXPECT_EQ(tool::snapshot(planned.path), image) << what << ": the staged run wrote under the image";
            // A file staged with the bytes it had (changed, then changed back) is no change.
            for (auto it = plan.begin(); it != plan.end();) {
                auto was = image.find(it->first);
                bool same = was != image.end() && it->second && was->second.bytes == *it->second;
                it = same ? plan.erase(it) : std::next(it);
            }
            tool::Tree before = tool::snapshot(real.path);
            tool::Options options;
            options.args = {mode};
            tool::run(real.path, options);
            EXPECT_EQ(plan, difference(before, tool::snapshot(real.path))) << what;
        }
    }
}
