// The trace level: only a whole number in range lets the level-2 traces (which carry
// password values) through; anything else is the default, 3.
#include <gtest/gtest.h>

#include "platform/log.h"
#include "support/tool_run.h"

TEST(Log, OnlyAWholeTraceLevelInRangeLetsValuesThrough) {
    // The word, and the levels of the two traces below that are delivered.
    struct { const char* word; const char* delivered; } cases[] = {
        {nullptr, "3"}, {"", "3"},    {"2", "23"},   {"0", "23"},    {"02", "23"},     {"3", "3"},
        {"7", ""},      {"8", "3"},   {" 2", "3"},   {"2 ", "3"},    {"info", "3"},    {"2x", "3"},
        {"-1", "3"},    {"+2", "3"},  {"1e1", "3"},  {"4294967298", "3"},
    };
    tool::WorkDir work;
    setenv("CFGUPGRADE_LOG", (work.path + "/log").c_str(), 1);
    for (const auto& c : cases) {
        std::ofstream(work.path + "/log", std::ios::trunc);  // the log stays open: emptied, not removed
        c.word ? setenv("CFGUPGRADE_TRACE_LEVEL", c.word, 1) : unsetenv("CFGUPGRADE_TRACE_LEVEL");
        ETL_TraceHelper::etlTrace(2, "Decrypt:(%s)->(%s)", "pw1:x", "secret");
        ETL_TraceHelper::etlTrace(3, "Fail to get encrypt config !!");
        std::string log = tool::slurp(work.path + "/log");
        std::string delivered = log.find("etlTrace[2] Decrypt:(pw1:x)->(secret)\n") != std::string::npos ? "2" : "";
        if (log.find("etlTrace[3] Fail to get encrypt config !!\n") != std::string::npos) delivered += "3";
        EXPECT_EQ(delivered, c.delivered) << (c.word ? c.word : "(unset)");
    }
    unsetenv("CFGUPGRADE_TRACE_LEVEL");
    unsetenv("CFGUPGRADE_LOG");
}
