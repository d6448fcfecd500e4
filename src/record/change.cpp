#include "record/change.h"

#include <algorithm>
#include <map>
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

using ETL_FileHelper::iniSection;

// Where a change is looked for: sections by name, each with the names of the keys that
// can read differently in it, or nullopt for every key.
using KeyNames = std::set<std::string, std::less<>>;
using Scope = std::map<std::string_view, std::optional<KeyNames>>;

// Calls `visit(section, key)` for every key line of a section, in file order (lines
// before the first section are never read, so they are not keys), only those in `scope`
// when it is given. A name met twice is visited twice. Lines a read never reaches (in a
// later section of a name already seen, or without a name) are visited in any case: they
// read as absent on both sides, so they are told as removed whenever the file changes.
template <typename Visit>
void eachKey(IniText& text, const Scope* scope, Visit visit) {
    std::set<std::string_view> seen;
    for (iniObject* object : text.objects()) {
        if (object->type() != iniObject::kSection) continue;
        auto* section = static_cast<iniSection*>(object);
        std::string_view name = section->name();
        bool unread = !seen.insert(name).second;
        const KeyNames* keys = nullptr;  // null: every key
        if (scope && !unread) {
            auto in = scope->find(name);
            if (in == scope->end()) continue;
            if (in->second) keys = &*in->second;
        }
        for (iniObject* line : section->objects()) {
            if (line->type() != iniObject::kKey) continue;
            std::string_view key = static_cast<ETL_FileHelper::iniLine*>(line)->name();
            if (!keys || key.empty() || keys->count(key)) visit(name, key);
        }
    }
}

// The whole lines at `begin` that differ between two texts: up to `beforeEnd` in
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

// In a section whose bytes differ, only the keys named on the lines that differ can read
// differently: a key named elsewhere has the same first line on both sides. Nullopt
// (every key) when those lines hold the header.
std::optional<KeyNames> changedKeys(std::string_view before, std::string_view after) {
    ChangedLines lines = changedLines(before, after);
    KeyNames keys;
    for (std::string_view text : {before.substr(lines.begin, lines.beforeEnd - lines.begin),
                                  after.substr(lines.begin, lines.afterEnd - lines.begin)}) {
        if (lines.begin == 0 || text.substr(0, 3) == "\xEF\xBB\xBF") return std::nullopt;  // read alone, a byte-order mark
        IniText changed = IniText::parse(std::string(text));
        for (iniObject* line : changed.objects()) {
            if (line->type() == iniObject::kSection) return std::nullopt;
            if (line->type() == iniObject::kKey) keys.emplace(static_cast<ETL_FileHelper::iniLine*>(line)->name());
        }
    }
    return keys;
}

// Each section's bytes by its name; false when a name is met twice.
bool sectionsByName(IniText& text, std::map<std::string_view, std::string_view>& out) {
    for (iniObject* object : text.objects()) {
        if (object->type() != iniObject::kSection) continue;
        auto* section = static_cast<iniSection*>(object);
        if (!out.emplace(section->name(), section->bytesAsRead()).second) return false;
    }
    return true;
}

// Where the two sides can read differently: the sections whose bytes differ, and in
// each the keys named on the lines that differ. A write of a few keys then costs a look
// at those keys, not at the file. Nullopt when a section name repeats on either side:
// which lines a read reaches then depends on the order of the sections, so the whole
// file is looked at.
std::optional<Scope> changedScope(IniText& before, IniText& after) {
    std::map<std::string_view, std::string_view> was, is;
    if (!sectionsByName(before, was) || !sectionsByName(after, is)) return std::nullopt;
    Scope scope;
    for (const auto& [name, bytes] : is)
        if (auto old = was.find(name); old == was.end()) scope.emplace(name, std::nullopt);
        else if (old->second != bytes) scope.emplace(name, changedKeys(old->second, bytes));
    for (const auto& [name, bytes] : was)
        if (!is.count(name)) scope.emplace(name, std::nullopt);
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
// name), where the two sides can read differently.
void describeKeys(const store::fs::FileChange& change, const char* step, IniText& before, IniText& after, std::vector<Change>& out) {
    std::optional<Scope> scope = changedScope(before, after);
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

void Describer::describe(const store::fs::FileChange& change, const char* step, std::vector<Change>& out) {
    using store::fs::ChangeKind;
    const std::string& file = change.logical;
    auto left = left_.find(file);
    std::optional<Left> last;
    if (left != left_.end()) last = std::move(left->second), left_.erase(left);
    if (change.kind == ChangeKind::kRemoved) {
        out.push_back(fileChange(step, "removed", file));
    } else if (change.kind == ChangeKind::kCopied) {
        Change c = fileChange(step, "copied", file);
        if (change.source) c.source = *change.source;
        out.push_back(std::move(c));
    } else {
        if (!change.before) out.push_back(fileChange(step, "file created", file));
        if (isIniName(file)) {
            bool leftAsFound = last && change.before && last->bytes == *change.before;
            IniText before = leftAsFound ? std::move(last->text) : change.before ? IniText::parse(*change.before) : IniText();
            Left now{std::string(*change.after), IniText::parse(std::string(*change.after))};
            describeKeys(change, step, before, now.text, out);
            left_.emplace(file, std::move(now));
        } else if (change.before) {
            out.push_back(fileChange(step, endsWith(file, ".xml") ? "XML rewritten" : "file rewritten", file));
        }
    }
}

void describeChange(const store::fs::FileChange& change, const char* step, std::vector<Change>& out) {
    Describer().describe(change, step, out);
}

}  // namespace record
