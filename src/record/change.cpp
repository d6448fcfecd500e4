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

struct KeyValue {
    std::string section, key, value;
};

// Every key of the file that a read can reach (the first of each name in a section,
// the first section of each name), in file order. Keys before the first section are
// in the section "".
std::vector<KeyValue> keysOf(const std::string& bytes) {
    auto text = ETL_FileHelper::IniText::parse(bytes);
    std::vector<KeyValue> keys;
    std::set<std::pair<std::string, std::string>> seen;
    std::set<std::string> sections;
    auto take = [&](const std::string& section, iniObject* object) {
        if (object->type() != iniObject::kKey) return;
        auto* line = static_cast<ETL_FileHelper::iniLine*>(object);
        std::string key(line->name());
        if (seen.insert({section, key}).second) keys.push_back({section, key, std::string(line->value())});
    };
    for (iniObject* object : text.objects()) {
        if (object->type() != iniObject::kSection) {
            take("", object);
            continue;
        }
        auto* section = static_cast<ETL_FileHelper::iniSection*>(object);
        std::string name(section->name());
        if (!sections.insert(name).second) continue;  // a second section of that name is never read
        for (iniObject* line : section->objects()) take(name, line);
    }
    return keys;
}

Change fileChange(const char* step, const std::string& op, const std::string& file) {
    Change c;
    c.step = step ? step : "";
    c.op = op;
    c.file = file;
    return c;
}

void describeKeys(const store::fs::FileChange& change, const char* step, std::vector<Change>& out) {
    std::vector<KeyValue> before = change.before ? keysOf(*change.before) : std::vector<KeyValue>();
    std::vector<KeyValue> after = keysOf(std::string(*change.after));
    auto find = [](const std::vector<KeyValue>& keys, const KeyValue& wanted) -> const KeyValue* {
        for (const KeyValue& k : keys)
            if (k.section == wanted.section && k.key == wanted.key) return &k;
        return nullptr;
    };
    auto keyChange = [&](const char* op, const KeyValue& k) {
        Change c = fileChange(step, op, change.logical);
        c.section = k.section;
        c.key = k.key;
        return c;
    };
    for (const KeyValue& k : after) {
        const KeyValue* was = find(before, k);
        if (was && was->value == k.value) continue;
        Change c = keyChange(was ? "key set" : "key added", k);
        if (was) c.oldValue = was->value;
        c.newValue = k.value;
        out.push_back(std::move(c));
    }
    for (const KeyValue& k : before)
        if (!find(after, k)) {
            Change c = keyChange("key removed", k);
            c.oldValue = k.value;
            out.push_back(std::move(c));
        }
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
