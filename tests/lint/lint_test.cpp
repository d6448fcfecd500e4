// cfgupgrade-lint end to end. Each directory of tests/golden/lint is one case: a rule
// file (configTranslate.xml), maybe a protected-key list (encryptConfig.xml) and an
// image/, the arguments ("args", run in the case's directory; by default the two files),
// and "expected": the exit status and what the linter printed. CFGUPGRADE_GOLDEN=update
// rewrites the expectations: read that diff before committing it.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>

#include "support/tool_run.h"

namespace {

namespace fs = std::filesystem;
const std::string kCases = CFGUPGRADE_TESTS "/golden/lint";

// The linter's words, behind the emulator in a cross build.
std::string lintCommand() {
    std::string words = *CFGUPGRADE_EMULATOR ? CFGUPGRADE_EMULATOR " " : "";
    return words + CFGUPGRADE_LINT_BINARY;
}

// "exit N", then standard output and standard error, of the linter run in `dir`.
std::string runLint(const std::string& dir, const std::string& args) {
    const std::string err = fs::temp_directory_path() / ("cfgupgrade-lint-test-" + std::to_string(getpid()));
    std::string command = "cd '" + dir + "' && " + lintCommand() + " " + args + " 2>'" + err + "'";
    FILE* pipe = popen(command.c_str(), "r");
    std::string out;
    for (int c; pipe && (c = std::fgetc(pipe)) != EOF;) out += static_cast<char>(c);
    int status = pipe ? pclose(pipe) : -1;
    std::string errText = tool::slurp(err);
    fs::remove(err);
    int code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return "exit " + std::to_string(code) + "\n--- standard output\n" + out + "--- standard error\n" + errText;
}

std::string argsOf(const std::string& dir) {
    if (fs::exists(dir + "/args")) {
        std::string args = tool::slurp(dir + "/args");
        return args.substr(0, args.find('\n'));
    }
    return "--rules configTranslate.xml" +
           std::string(fs::exists(dir + "/encryptConfig.xml") ? " --keys encryptConfig.xml" : "");
}

}  // namespace

class LintCase : public ::testing::TestWithParam<std::string> {};

TEST_P(LintCase, PrintsItsExpectedFindings) {
    const std::string dir = kCases + "/" + GetParam();
    std::string result = runLint(dir, argsOf(dir));
    EXPECT_EQ(result, tool::expected(dir + "/expected", result));
}

INSTANTIATE_TEST_SUITE_P(Cases, LintCase, ::testing::ValuesIn(tool::caseNames(kCases)),
                         [](const auto& info) { return tool::testName(info.param); });

// The example image is clean, and no rule file or key list of the fuzz corpus or of the
// tool's golden cases makes the linter end otherwise than with its findings.
TEST(Lint, ExampleIsCleanAndOtherFilesAreJudged) {
    const std::string source = CFGUPGRADE_TESTS "/..";
    EXPECT_EQ(runLint(source, "--image examples/phone-root examples/phone-root"),
              "exit 0\n--- standard output\n--- standard error\n");
    std::vector<std::string> files;
    for (const char* corpus : {"/fuzz/corpus/rule_file", "/fuzz/corpus/protected_key_list", "/tests/golden/cases"})
        for (const auto& entry : fs::recursive_directory_iterator(source + corpus)) {
            std::string name = entry.path().filename();
            bool ruleFile = name == "configTranslate.xml" || name == "encryptConfig.xml" || corpus[1] == 'f';
            if (ruleFile && fs::is_regular_file(entry.symlink_status())) files.push_back(entry.path());
        }
    EXPECT_GT(files.size(), 10u);
    for (const std::string& file : files) {
        std::string result = runLint(source, "--rules '" + file + "' --keys '" + file + "'");
        EXPECT_TRUE(result.rfind("exit 0\n", 0) == 0 || result.rfind("exit 1\n", 0) == 0) << file << "\n" << result;
    }
}
