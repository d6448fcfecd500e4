// The log, and what a run of the tool says about itself.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "platform/log.h"
#include "support/phone_root.h"

using Log = PhoneRoot;

TEST_F(Log, OnlyAWholeTraceLevelInRangeLetsValuesThrough) {
    // The word, and the levels of the two traces below that are delivered.
    struct { const char* word; const char* delivered; } cases[] = {
        {nullptr, "3"}, {"", "3"},    {"2", "23"},   {"0", "23"},    {"02", "23"},     {"3", "3"},
        {"7", ""},      {"8", "3"},   {" 2", "3"},   {"2 ", "3"},    {"info", "3"},    {"2x", "3"},
        {"-1", "3"},    {"+2", "3"},  {"1e1", "3"},  {"4294967298", "3"},
    };
    for (const auto& c : cases) {
        fresh();
        if (c.word) setenv("CFGUPGRADE_TRACE_LEVEL", c.word, 1);
        ETL_TraceHelper::etlTrace(2, "Decrypt:(%s)->(%s)", "pw1:x", "secret");
        ETL_TraceHelper::etlTrace(3, "Fail to get encrypt config !!");
        unsetenv("CFGUPGRADE_TRACE_LEVEL");
        std::string delivered = log().find("etlTrace[2] Decrypt:(pw1:x)->(secret)\n") != std::string::npos ? "2" : "";
        if (log().find("etlTrace[3] Fail to get encrypt config !!\n") != std::string::npos) delivered += "3";
        EXPECT_EQ(delivered, c.delivered) << (c.word ? c.word : "(unset)");
    }
}

TEST_F(Log, EveryRunWithTheDevelopmentKeySaysSoOnce) {
    const std::string warning = "app_log[60/4] CFGUPGRADE_PW_KEYFILE is unset: passwords are protected with the "
                                "built-in development key, which protects nothing\n";
    write("/etc/k", std::string(64, 'a'));
    chmod(physical("/etc/k").c_str(), 0600);
    struct { const char* keyFile; std::vector<std::string> args; std::string log; } cases[] = {
        {nullptr, {}, warning + "app_log[60/6] Usage: \n#" CFGUPGRADE_BINARY " [all|dev|pwd]\n"},
        {nullptr, {"1"}, warning},
        {"/etc/k", {"1"}, ""},
    };
    for (const auto& c : cases) {
        std::filesystem::remove(root_ + ".log");
        if (c.keyFile) setenv("CFGUPGRADE_PW_KEYFILE", c.keyFile, 1);
        EXPECT_EQ(runTool(c.args), 0);
        unsetenv("CFGUPGRADE_PW_KEYFILE");
        EXPECT_EQ(log(), c.log) << (c.keyFile ? c.keyFile : "(unset)");
    }
}

namespace {

enum class Out { kFile, kClosedPipe, kFullPipe, kClosed };

struct ToolRun {
    int status;  // the exit status; -1 killed by a signal, -2 still running after 20 s
    std::string out, err;
};

// Runs the tool in mode "all" with its log on standard error and each output stream
// as asked. What the streams got is kept only for files.
ToolRun runWithStreams(const std::string& root, Out out, Out err) {
    const std::string files[] = {root + ".out", root + ".err"};
    int target[2] = {-1, -1}, keep[2] = {-1, -1};
    Out kinds[2] = {out, err};
    for (int i = 0; i < 2; ++i) {
        int ends[2] = {-1, -1};
        if (kinds[i] == Out::kFile) target[i] = open(files[i].c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        if (kinds[i] == Out::kClosedPipe || kinds[i] == Out::kFullPipe) {
            EXPECT_EQ(pipe(ends), 0);
        }
        if (kinds[i] == Out::kClosedPipe) close(ends[0]);
        if (kinds[i] == Out::kFullPipe) {
            // Filled without blocking, then handed over blocking, as a shell would.
            fcntl(ends[1], F_SETFL, O_NONBLOCK);
            std::string chunk(4096, 'x');
            while (write(ends[1], chunk.data(), chunk.size()) > 0) {
            }
            fcntl(ends[1], F_SETFL, 0);
            keep[i] = ends[0];
        }
        if (ends[1] >= 0) target[i] = ends[1];
    }
    std::vector<std::string> words = toolCommand();
    words.push_back("all");
    std::vector<char*> argv;
    for (auto& word : words) argv.push_back(&word[0]);
    argv.push_back(nullptr);
    // posix_spawn rather than fork: a cross build's test process runs under qemu-user.
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    for (int i = 0; i < 2; ++i)
        target[i] >= 0 ? posix_spawn_file_actions_adddup2(&actions, target[i], 1 + i)
                       : posix_spawn_file_actions_addclose(&actions, 1 + i);
    std::vector<char*> envp;
    for (char** e = environ; *e; ++e)
        if (std::strncmp(*e, "CFGUPGRADE_LOG=", 15) != 0) envp.push_back(*e);
    envp.push_back(nullptr);
    pid_t pid = -1;
    posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    for (int fd : target) close(fd);
    ToolRun run = {-2, "", ""};
    for (int waited = 0, status; waited < 2000; ++waited, usleep(10000)) {
        if (waitpid(pid, &status, WNOHANG) != pid) continue;
        run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        break;
    }
    if (run.status == -2) kill(pid, SIGKILL), waitpid(pid, nullptr, 0);
    for (int fd : keep) close(fd);
    for (int i = 0; i < 2; ++i) {
        std::ifstream in(files[i], std::ios::binary);
        (i ? run.err : run.out).assign(std::istreambuf_iterator<char>(in), {});
        std::filesystem::remove(files[i]);
    }
    return run;
}

}  // namespace

TEST_F(Log, ARunFinishesEveryStepWhateverItsOutputStreamsAre) {
    // The example image, with a rule file whose 300 sources are missing: more diagnostics
    // on standard output than one stdio buffer holds.
    std::string rules = "<t>";
    for (int i = 0; i < 300; ++i)
        rules += R"(<r srcFile="/none.ini" srcSec="A" srcKey="k" dstFile="/config/user/user.ini" dstSec="Missing" )"
                 "dstKey=\"k" + std::to_string(i) + "\"/>";
    auto image = [&] {
        fresh();
        std::filesystem::copy(CFGUPGRADE_EXAMPLES "/phone-root", root_, std::filesystem::copy_options::recursive);
        write("/phone/resource/configTranslate.xml", rules + "</t>");
    };
    image();
    ToolRun normal = runWithStreams(root_, Out::kFile, Out::kFile);
    ASSERT_EQ(normal.status, 0);
    EXPECT_GT(normal.out.size(), size_t{BUFSIZ});
    EXPECT_NE(normal.err.find("app_log[60/6] Sync cert"), std::string::npos);
    const auto expected = snapshot();
    for (Out kind : {Out::kClosedPipe, Out::kFullPipe, Out::kClosed}) {
        image();
        EXPECT_EQ(runWithStreams(root_, kind, kind).status, 0) << static_cast<int>(kind);
        EXPECT_TRUE(snapshot() == expected) << static_cast<int>(kind);
    }
}
