#include "record/change.h"

#include <algorithm>
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

// The part of a file a change is looked for in: the sections of one name, the keys of
// some names. Null: everywhere.
struct Scope {
    std::string section;
    std::set<std::string, std::less<>> keys;
};

// Calls `visit(section, key)` for every key line of a section in scope, in file order
// (lines before the first section are never read, so they are not keys). A name met
// twice is visited twice. Lines a read never reaches (in a later section of a name
// already seen, or without a name) are visited in any case: they read as absent on
// both sides, so they are told as removed whenever the file changes.
template <typename Visit>
void eachKey(IniText& text, const Scope* scope, Visit visit) {
    std::set<std::string_view> seen;
    for (iniObject* object : text.objects()) {
        if (object->type() != iniObject::kSection) continue;
        auto* section = static_cast<ETL_FileHelper::iniSection*>(object);
        bool unread = !seen.insert(section->name()).second;
        if (scope && !unread && section->name() != scope->section) continue;
        for (iniObject* line : section->objects()) {
            if (line->type() != iniObject::kKey) continue;
            std::string_view key = static_cast<ETL_FileHelper::iniLine*>(line)->name();
            if (!scope || unread || key.empty() || scope->keys.find(key) != scope->keys.end()) visit(section->name(), key);
        }
    }
}

// The whole lines at `begin` that differ between the two files: up to `beforeEnd` in
// `before` and `afterEnd` in `after`; the bytes before and after them are the same.
struct ChangedLines {
    size_t begin, beforeEnd, afterEnd;
};

ChangedLines changedLines(std::string_view before, std::string_view after) {
    size_t most = std::min(before.size(), after.size()), prefix = 0, suffix = 0;
    while (prefix < most && before[prefix] == after[prefix]) ++prefix;
    while (suffix < most - prefix && before[before.size() - 1 - suffix] == after[after.size() - 1 - suffix]) ++suffix;
    size_t newline = prefix ? before.rfind('\n', prefix - 1) : std::string_view::npos;
    ChangedLines lines{newline == std::string_view::npos ? 0 : newline + 1, before.size() - suffix, after.size() - suffix};
    auto atLineStart = [](std::string_view text, size_t at) { return at == 0 || at == text.size() || text[at - 1] == '\n'; };
    if (!atLineStart(before, lines.beforeEnd) || !atLineStart(after, lines.afterEnd)) {
        // Both ends move by the same bytes: what follows them is the same on both sides.
        size_t end = before.find('\n', lines.beforeEnd);
        size_t by = end == std::string_view::npos ? before.size() - lines.beforeEnd : end + 1 - lines.beforeEnd;
        lines.beforeEnd += by;
        lines.afterEnd += by;
    }
    return lines;
}

// Only the keys named on the changed lines can read differently, and only in the section
// that holds those lines; other keys are never looked up, so a step that sets a few keys
// of a file of thousands costs a walk of one section. Nullopt when the changed lines hold
// a section header or start the file: then the whole file is looked at.
std::optional<Scope> changedScope(const std::string& before, std::string_view after) {
    ChangedLines lines = changedLines(before, after);
    if (lines.begin == 0) return std::nullopt;
    Scope scope;
    for (std::string_view text : {std::string_view(before).substr(lines.begin, lines.beforeEnd - lines.begin),
                                  after.substr(lines.begin, lines.afterEnd - lines.begin)}) {
        if (text.substr(0, 3) == "\xEF\xBB\xBF") return std::nullopt;  // read alone, a byte-order mark
        IniText changed = IniText::parse(std::string(text));
        for (iniObject* line : changed.objects()) {
            if (line->type() == iniObject::kSection) return std::nullopt;
            if (line->type() == iniObject::kKey) scope.keys.emplace(static_cast<ETL_FileHelper::iniLine*>(line)->name());
        }
    }
    IniText head = IniText::parse(before.substr(0, lines.begin));
    std::vector<iniObject*> objects = head.objects();
    if (objects.empty() || objects.back()->type() != iniObject::kSection) return Scope{};  // before the first section
    scope.section = static_cast<ETL_FileHelper::iniSection*>(objects.back())->name();
    return scope;
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
    std::optional<Scope> scope = change.before ? changedScope(*change.before, *change.after) : std::nullopt;
    const Scope* in = scope ? &*scope : nullptr;
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
    eachKey(after, in, [&](std::string_view section, std::string_view key) {
        std::optional<std::string_view> old = before.find(section, key), now = after.find(section, key);
        if (old != now) tell(old ? "key set" : "key added", section, key, old, now);
    });
    eachKey(before, in, [&](std::string_view section, std::string_view key) {
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
