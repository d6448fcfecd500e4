// The change record (CFGUPGRADE_CHANGES): written only when a run changed something,
// kept within its bound by dropping its oldest lines whole, free of secrets, and a
// record that cannot be written costs one log line and nothing else.
#include <gtest/gtest.h>

#include "record/record.h"
#include "support/tool_run.h"

namespace {

const std::string kImage = CFGUPGRADE_TESTS "/golden/images/every-step";
const char kRecord[] = "/config/changes.jsonl";

tool::Run runRecorded(const tool::WorkDir& work, const std::string& mode, const std::string& record = kRecord) {
    tool::Options options;
    options.args = {mode};
    options.env = {"CFGUPGRADE_CHANGES=" + record};
    return tool::run(work.path, options);
}

size_t lineCount(const std::string& text) { return static_cast<size_t>(std::count(text.begin(), text.end(), '\n')); }

}  // namespace

TEST(ChangeRecord, RowsOfItsRules) {
    {  // A run that changes something appends; the run on its result changes nothing and writes nothing.
        tool::WorkDir work;
        tool::plant(kImage, work.root());
        runRecorded(work, "1");
        std::string first = tool::slurp(work.root() + kRecord);
        EXPECT_GT(lineCount(first), 0u);
        tool::Tree settled = tool::snapshot(work.path);
        runRecorded(work, "1");
        EXPECT_EQ(tool::snapshot(work.path), settled) << "the ordinary boot writes nothing, the record included";
    }
    {  // No change, no record file at all.
        tool::WorkDir work;
        tool::plant(kImage, work.root());
        tool::Options options;
        options.args = {"1"};
        tool::run(work.path, options);
        runRecorded(work, "1");
        EXPECT_FALSE(std::filesystem::exists(work.root() + kRecord));
    }
    {  // Bounded: old lines dropped whole, the newest kept.
        tool::WorkDir work;
        tool::plant(kImage, work.root());
        std::string old;
        while (old.size() < record::kRecordLimit) old += "{\"run\":\"old\",\"pad\":\"" + std::string(100, 'x') + "\"}\n";
        std::ofstream(work.root() + kRecord) << old;
        runRecorded(work, "all");
        std::string kept = tool::slurp(work.root() + kRecord);
        EXPECT_LE(kept.size(), record::kRecordLimit);
        EXPECT_EQ(kept.front(), '{');
        EXPECT_NE(kept.find("\"run\":\"old\""), std::string::npos);
        EXPECT_NE(kept.find("\"mode\":\"all\""), std::string::npos);
    }
    {  // Secrets: protected values and listed keys are masked; no plain value of them shows.
        tool::WorkDir work;
        tool::plant(kImage, work.root());
        runRecorded(work, "all");
        std::string text = tool::slurp(work.root() + kRecord);
        for (const char* secret : {"2580", "\"plain\"", "pw1:", "xxxxxxxx"}) EXPECT_EQ(text.find(secret), std::string::npos) << secret;
        EXPECT_NE(text.find("\"key\":\"AdminPassword\",\"old\":\"(protected)\",\"new\":\"(masked)\""), std::string::npos);
    }
    {  // A record outside the writable areas: one line, and the run's changes as without a record.
        tool::WorkDir plain, refused;
        tool::plant(kImage, plain.root());
        tool::plant(kImage, refused.root());
        tool::Options options;
        options.args = {"all"};
        tool::Run without = tool::run(plain.path, options);
        tool::Run with = runRecorded(refused, "all", "/phone/changes.jsonl");
        EXPECT_EQ(with.log, without.log + "app_log[60/4] Cannot write [/phone/changes.jsonl]: outside the areas this tool may write\n");
        EXPECT_FALSE(std::filesystem::exists(refused.root() + "/phone/changes.jsonl"));
    }
}

TEST(ChangeRecord, NamesARunByItsTimeOrElseByTheNextBootNumber) {
    EXPECT_EQ(record::runName("", 1893456000), "2030-01-01T00:00:00Z");  // within a 32-bit time_t (armhf)
    EXPECT_EQ(record::runName("", 0), "boot 1");
    EXPECT_EQ(record::runName("{\"run\":\"boot 7\"}\n{\"run\":\"2026-11-29T00:53:20Z\"}\n", 1000), "boot 8");
}
