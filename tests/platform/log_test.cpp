// The log, and what a run of the tool says about itself.
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
