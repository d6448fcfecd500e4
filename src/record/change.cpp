#include "record/change.h"

#include <set>
#include <utility>

#include "store/ini_text.h"

namespace record {

namespace {

using ETL_FileHelper::iniObject;

bool endsWith(const std::string& text, const char* tail) {
    std::string end = tail;
    return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

using ETL_FileHelper::IniText;

// Calls `visit(section, key)` for every key line of a section, in file order (lines before
// the first section are never read, so they are not keys). A name met twice is visited twice.
template <typename Visit>
void eachKey(IniText& text, Visit visit) {
    for (iniObject* object : text.objects()) {
        if (object->type() != iniObject::kSection) continue;
        auto* section = static_cast<ETL_FileHelper::iniSection*>(object);
        for (iniObject* line : section->objects())
            if (line->type() == iniObject::kKey) visit(section->name(), static_cast<ETL_FileHelper::iniLine*>(line)->name());
    }
}

Change fileChange(const char* step, const std::string& op, const std::string& file) {
    Change c;
    c.step = step ? step : "";
    c.op = op;
    c.file = file;
    return c;
}

// Key by key, as a read sees them (the first key of a name in the first section of a
// name): each side's keys are looked up in the other through its name index, so a file
// of thousands of keys costs a walk of each side, not a comparison of every pair.
void describeKeys(const store::fs::FileChange& change, const char* step, std::vector<Change>& out) {
    IniText before = change.before ? IniText::parse(*change.before) : IniText();
    IniText after = IniText::parse(std::string(*change.after));
    std::set<std::pair<std::string_view, std::string_view>> told;  // a name met twice is told once
    auto tell = [&](const char* op, std::string_view section, std::string_view key, std::optional<std::string_view> old,
                    std::optional<std::string_view> now) {
        if (!told.insert({section, key}).second) return;
        Change c = fileChange(step, op, change.logical);
        c.section = std::string(section);
        c.key = std::string(key);
        if (old) c.oldValue = std::string(*old);
        if (now) c.newValue = std::string(*now);
        out.push_back(std::move(c));
    };
    eachKey(after, [&](std::string_view section, std::string_view key) {
        std::optional<std::string_view> old = before.find(section, key), now = after.find(section, key);
        if (old != now) tell(old ? "key set" : "key added", section, key, old, now);
    });
    eachKey(before, [&](std::string_view section, std::string_view key) {
        if (!after.find(section, key)) tell("key removed", section, key, before.find(section, key), std::nullopt);
    });
}

}  // namespace

bool isIniName(const std::string& file) { return endsWith(file, ".ini") || endsWith(file, ".cfg"); }

void describeChange(const store::fs::FileChange& change, const char* step, std::vector<Change>& out) {
    using store::fs::ChangeKind;
    const std::string& file = change.logical;
    if (change.kind == ChangeKind::kRemoved) {
        out.push_back(fileChange(step, "removed", file));
    } else if (change.kind == ChangeKind::kCopied) {
        Change c = fileChange(step, "copied", file);
        if (change.source) c.source = *change.source;
        out.push_back(std::move(c));
    } else {
        if (!change.before) out.push_back(fileChange(step, "file created", file));
        if (isIniName(file))
            describeKeys(change, step, out);
        else if (change.before)
            out.push_back(fileChange(step, endsWith(file, ".xml") ? "XML rewritten" : "file rewritten", file));
    }
}

}  // namespace record
