// Golden cases of cfgupgrade-plan's output: each directory of tests/golden/plan holds a
// "case" (the images it copies, each into a directory of its name: "image" names a golden
// image, "plant" a directory of the case's "plant"; and the arguments)
// and "expected" (exit status, standard output, standard error of the plan run in the
// directory that holds the copies). CFGUPGRADE_GOLDEN=update rewrites "expected".
#include <gtest/gtest.h>

#include "support/tool_run.h"

namespace {

namespace fs = std::filesystem;
const std::string kCases = CFGUPGRADE_TESTS "/golden/plan";

std::string quotedWords(const std::string& words) {
    std::istringstream in(words);
    std::string out;
    for (std::string w; in >> w;) out += " '" + w + "'";
    return out;
}

std::string runCase(const std::string& name) {
    tool::WorkDir work;
    std::string args;
    std::istringstream in(tool::slurp(kCases + "/" + name + "/case"));
    for (std::string line; std::getline(in, line);) {
        if (line.rfind("image ", 0) == 0) tool::plant(CFGUPGRADE_TESTS "/golden/images/" + line.substr(6), work.path + "/" + line.substr(6));
        if (line.rfind("plant ", 0) == 0) tool::plant(kCases + "/" + name + "/plant/" + line.substr(6), work.path + "/" + line.substr(6));
        if (line.rfind("args ", 0) == 0) args = quotedWords(line.substr(5));
    }
    std::string command = "cd '" + work.path + "' && env -u CFGUPGRADE_LOG -u CFGUPGRADE_PW_KEYFILE " CFGUPGRADE_EMULATOR " '" +
                          CFGUPGRADE_PLAN_BINARY "'" + args + " >out 2>err; echo $? >status";
    std::system(command.c_str());
    return "exit " + tool::slurp(work.path + "/status") + "--- standard output\n" + tool::slurp(work.path + "/out") +
           "--- standard error\n" + tool::slurp(work.path + "/err");
}

}  // namespace

class PlanCase : public ::testing::TestWithParam<std::string> {};

TEST_P(PlanCase, PrintsItsExpectedOutput) {
    if (tool::emulated()) GTEST_SKIP() << "cfgupgrade-plan is a host program: its forked runs crash qemu-user";
    std::string output = runCase(GetParam());
    EXPECT_EQ(output, tool::expected(kCases + "/" + GetParam() + "/expected", output));
}

INSTANTIATE_TEST_SUITE_P(Cases, PlanCase, ::testing::ValuesIn(tool::caseNames(kCases)),
                         [](const auto& info) { return tool::testName(info.param); });
