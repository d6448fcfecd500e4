// A write is described key by key as a read sees the file (the first key of a name in
// the first section of a name). The description looks only where the bytes changed; it
// must tell exactly what a look at every key of both sides tells. Random edits of small
// files with repeated sections and keys, blank and odd lines, are compared with that look.
#include <gtest/gtest.h>

#include <random>
#include <set>

#include "record/change.h"
#include "store/ini_text.h"

namespace {

using ETL_FileHelper::iniObject;
using ETL_FileHelper::IniText;

// Every key line of every section, in file order.
std::vector<std::pair<std::string, std::string>> everyKey(IniText& text) {
    std::vector<std::pair<std::string, std::string>> keys;
    for (iniObject* object : text.objects())
        if (object->type() == iniObject::kSection) {
            auto* section = static_cast<ETL_FileHelper::iniSection*>(object);
            for (iniObject* line : section->objects())
                if (line->type() == iniObject::kKey)
                    keys.emplace_back(section->name(), static_cast<ETL_FileHelper::iniLine*>(line)->name());
        }
    return keys;
}

// The look at every key: "op section key old new" lines.
std::string lookAtEveryKey(const std::string& beforeBytes, const std::string& afterBytes) {
    IniText before = IniText::parse(beforeBytes), after = IniText::parse(afterBytes);
    std::set<std::pair<std::string, std::string>> told;
    std::string out;
    auto tell = [&](const char* op, const std::string& section, const std::string& key, std::optional<std::string_view> old,
                    std::optional<std::string_view> now) {
        if (told.insert({section, key}).second)
            out += std::string(op) + " " + section + " " + key + " " + std::string(old.value_or("-")) + " " + std::string(now.value_or("-")) + "\n";
    };
    for (const auto& [section, key] : everyKey(after))
        if (before.find(section, key) != after.find(section, key))
            tell(before.find(section, key) ? "key set" : "key added", section, key, before.find(section, key), after.find(section, key));
    for (const auto& [section, key] : everyKey(before))
        if (!after.find(section, key)) tell("key removed", section, key, before.find(section, key), std::nullopt);
    return out;
}

std::string described(const std::string& beforeBytes, const std::string& afterBytes) {
    const std::string logical = "/config/user/user.ini";
    std::optional<std::string> before = beforeBytes;
    std::optional<std::string_view> after = std::string_view(afterBytes);
    std::vector<record::Change> changes;
    record::describeChange({logical, before, after, store::fs::ChangeKind::kWritten, nullptr}, "step", changes);
    std::string out;
    for (const record::Change& c : changes)
        out += c.op + " " + *c.section + " " + *c.key + " " + c.oldValue.value_or("-") + " " + c.newValue.value_or("-") + "\n";
    return out;
}

std::string randomLine(std::mt19937& rng) {
    static const char* const lines[] = {"[A]", "[B]", "[C]", " [A] ", "[]", "[D", "a = 1", "a=2", "b = x", "b =", "c = 3",
                                        " a = 4", "=5", "; a = 6", "# b = 7", "", "  ", "text", "d = é", "a = 1 ; not a comment"};
    return lines[rng() % (sizeof lines / sizeof *lines)];
}

std::vector<std::string> randomLines(std::mt19937& rng) {
    std::vector<std::string> lines;
    for (int n = static_cast<int>(rng() % 12); n--;) lines.push_back(randomLine(rng));
    return lines;
}

std::string joined(const std::vector<std::string>& lines, const char* newline, bool lastBreak) {
    std::string text;
    for (size_t i = 0; i < lines.size(); ++i) text += lines[i] + (i + 1 < lines.size() || lastBreak ? newline : "");
    return text;
}

}  // namespace

TEST(DescribeWrite, TellsWhatALookAtEveryKeyTells) {
    std::mt19937 rng(20261125);
    for (int round = 0; round < 20000; ++round) {
        std::vector<std::string> before = randomLines(rng), after = before;
        for (int edits = 1 + static_cast<int>(rng() % 3); edits--;) {  // replace, insert or delete a line
            size_t at = after.empty() ? 0 : rng() % (after.size() + 1);
            int how = static_cast<int>(rng() % 3);
            if (how == 0 && at < after.size()) after[at] = randomLine(rng);
            else if (how == 1 || at >= after.size()) after.insert(after.begin() + static_cast<long>(at), randomLine(rng));
            else after.erase(after.begin() + static_cast<long>(at));
        }
        const char* newline = rng() % 4 ? "\n" : "\r\n";
        std::string was = joined(before, newline, rng() % 4), is = joined(after, newline, rng() % 4);
        ASSERT_EQ(described(was, is), lookAtEveryKey(was, is)) << "before:\n" << was << "\nafter:\n" << is;
    }
}
