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

struct PlanRun {
    std::string status, out, err;
};

// The plan run in `dir` with `args`, and `env` ("NAME=VALUE ...") in its environment.
PlanRun runPlan(const std::string& dir, const std::string& args, const std::string& env = "") {
    std::string command = "cd '" + dir + "' && env -u CFGUPGRADE_LOG -u CFGUPGRADE_PW_KEYFILE " + env + " " CFGUPGRADE_EMULATOR " '" +
                          CFGUPGRADE_PLAN_BINARY "'" + args + " >out 2>err; echo $? >status";
    std::system(command.c_str());
    return {tool::slurp(dir + "/status"), tool::slurp(dir + "/out"), tool::slurp(dir + "/err")};
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
    PlanRun run = runPlan(work.path, args);
    return "exit " + run.status + "--- standard output\n" + run.out + "--- standard error\n" + run.err;
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

// A worker runs image after image: each must come out as it does alone, the same image
// twice included (nothing of one run, such as the password key, its warning or a staged
// write, may reach the next), whatever the number of workers.
TEST(Plan, ImagesRunOneAfterAnotherComeOutAsEachAlone) {
    if (tool::emulated()) GTEST_SKIP() << "cfgupgrade-plan is a host program: its forked runs crash qemu-user";
    tool::WorkDir work;
    std::vector<std::string> images;
    for (const auto& image : fs::directory_iterator(CFGUPGRADE_TESTS "/golden/images")) {
        tool::plant(image.path().string(), work.path + "/" + image.path().filename().string());
        images.insert(images.end(), 2, image.path().filename());  // each twice in a row
    }
    for (const std::string env : {"", "CFGUPGRADE_PW_KEYFILE=/no/such/key"})  // a missing key is told once per run
        for (const std::string mode : {"all", "1", "2"}) {
            PlanRun alone;
            for (const std::string& image : images) {
                PlanRun one = runPlan(work.path, " --json --log " + mode + " " + image, env);
                alone.status = std::max(alone.status, one.status), alone.out += one.out, alone.err += one.err;
            }
            for (const char* jobs : {" -j 1", " -j 2"}) {
                std::string args = " --json --log" + std::string(jobs) + " " + mode;
                for (const std::string& image : images) args += " " + image;
                PlanRun together = runPlan(work.path, args, env);
                EXPECT_EQ(together.status, alone.status) << env << args;
                EXPECT_EQ(together.out, alone.out) << env << args;
                EXPECT_EQ(together.err, alone.err) << env << args;
            }
        }
}
