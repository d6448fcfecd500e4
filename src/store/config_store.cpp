#include "store/config_store.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <deque>
#include <utility>

#include "store/documents.h"
#include "store/files.h"
#include "store/report.h"
#include "store/run_lock.h"
#include "store/staging.h"

using ETL_FileHelper::IniText;

namespace {

// An empty value reads as the default, like a missing one; anything else as strtol does.
int parseInt(std::optional<std::string_view> value, int def) {
    if (!value || value->empty()) return def;
    // Clamped as the phone's 32-bit strtol clamps, so a host reads what the phone reads.
    std::string text(*value);
    return static_cast<int>(std::clamp<long>(std::strtol(text.c_str(), nullptr, 10), INT_MIN, INT_MAX));
}

std::optional<std::string_view> findValue(const store::IniPtr& text, std::string_view section, std::string_view key) {
    if (!text) return std::nullopt;
    return text->find(section, key);
}

// A set refused because the text could not be read back the same: the file stays as
// it is, and the log says where, never what (the value may be a password).
void reportRefusedSet(std::string_view file, std::string_view section, std::string_view key) {
    store::report("Cannot set [%.*s] section [%.*s] key [%.*s]: it would not read back the same",
            static_cast<int>(file.size()), file.data(), static_cast<int>(section.size()), section.data(),
            static_cast<int>(key.size()), key.data());
}

bool isWritableSet(std::string_view section, std::string_view key, std::string_view value) {
    return IniText::isWritableName(section, ']') && IniText::isWritableName(key, '=') && IniText::isWritableValue(value);
}

int getInt(const std::string& file, const std::string& section, const std::string& key, int def) {
    return parseInt(findValue(store::loadIni(file), section, key), def);
}

bool setInt(const std::string& file, const std::string& section, const std::string& key, int value) {
    std::string text = std::to_string(value);
    store::KeySet set{section, key, text};
    store::Update done = store::updateIni(file, &set, 1);
    if (done == store::Update::kSetRefused) reportRefusedSet(file, section, key);
    return done == store::Update::kDone;
}

}  // namespace

// ---------------------------------------------------------------- path-addressed integers

int etlGetProfileInt(const std::string& file, const std::string& section, const std::string& key, int def) {
    return getInt(file, section, key, def);
}

int etlGetRegistryInt(const std::string& file, const std::string& section, const std::string& key, int def) {
    return getInt(file, section, key, def);
}

bool etlSetProfileInt(const std::string& file, const std::string& section, const std::string& key, int value) {
    return setInt(file, section, key, value);
}

bool etlSetRegistryInt(const std::string& file, const std::string& section, const std::string& key, int value) {
    return setInt(file, section, key, value);
}

// ---------------------------------------------------------------- section handles

struct RegistrySection {
    std::string file;
    std::string section;
    std::vector<std::pair<std::string, std::string>> pending;  // key, value; in order of first write
};

namespace {

// Handles are never closed by their users, so the store keeps them until the process ends.
std::deque<RegistrySection>& openHandles() {
    static std::deque<RegistrySection> handles;
    return handles;
}

}  // namespace

HREGISTRY registryOpen(const std::string& file, const std::string& section) {
    if (!store::fs::physicalPath(file)) return nullptr;
    openHandles().push_back(RegistrySection{file, section, {}});
    return &openHandles().back();
}

bool registrySetString(HREGISTRY handle, const std::string& key, const std::string& text) {
    if (!handle) return false;
    if (!isWritableSet(handle->section, key, text)) {
        reportRefusedSet(handle->file, handle->section, key);
        return false;
    }
    for (auto& entry : handle->pending)
        if (entry.first == key) {
            entry.second = text;
            return true;
        }
    handle->pending.emplace_back(key, text);
    return true;
}

bool registrySetInt(HREGISTRY handle, const std::string& key, int value) {
    return registrySetString(handle, key, std::to_string(value));
}

bool registryFlush(HREGISTRY handle) {
    if (!handle || handle->pending.empty()) return handle != nullptr;
    std::vector<store::KeySet> sets;
    for (const auto& entry : handle->pending) sets.push_back({handle->section, entry.first, entry.second});
    bool ok = store::updateIni(handle->file, sets.data(), sets.size()) == store::Update::kDone;
    handle->pending.clear();
    return ok;
}

namespace ETL_SubClass {

ETL_StringHelper::chReferenceStringT<char> registryGetString(HREGISTRY handle, const std::string& key,
                                                             const std::string& def) {
    if (!handle) return def;
    for (const auto& entry : handle->pending)
        if (entry.first == key) return entry.second;
    std::optional<std::string_view> value = findValue(store::loadIni(handle->file), handle->section, key);
    return value ? std::string(*value) : def;
}

void etlCopyFile(const std::string& dst, const std::string& src) { store::copyFile(dst, src); }

}  // namespace ETL_SubClass

// ---------------------------------------------------------------- INI documents

namespace ETL_FileHelper {

iniDocument::iniDocument() : text_(std::make_shared<IniText>()) {}

const store::PendingValue* iniDocument::pendingFor(phraseConstTextA section, phraseConstTextA key) const {
    for (auto it = pending_.rbegin(); it != pending_.rend(); ++it)
        if (it->section == section && it->key == key) return &*it;
    return nullptr;
}

std::optional<std::string_view> iniDocument::find(phraseConstTextA section, phraseConstTextA key) const {
    if (const store::PendingValue* set = pendingFor(section, key)) return std::string_view(set->value);
    return text_->find(section, key);
}

int iniDocument::GetIntValue(phraseConstTextA section, phraseConstTextA key, int def) const {
    return parseInt(find(section, key), def);
}

ETL_StringHelper::chReferenceStringT<char> iniDocument::GetTextValue(phraseConstTextA section, phraseConstTextA key,
                                                                     const std::string& def) const {
    std::optional<std::string_view> value = find(section, key);
    return value ? std::string(*value) : def;
}

int iniDocument::SetTextValue(phraseConstTextA section, phraseConstTextA key, phraseConstTextA value) {
    // Refused exactly when the text itself would refuse it, so the save cannot fail on it.
    if (!isWritableSet(section, key, value)) {
        reportRefusedSet(path_, section, key);
        return 0;
    }
    for (auto& set : pending_)
        if (set.section == section && set.key == key) {
            set.value = value;
            return 1;
        }
    pending_.push_back({std::string(section), std::string(key), std::string(value)});
    return 1;
}

std::vector<iniObject*> iniDocument::objects() {
    // The walk may change values, so the document takes its own copy first.
    auto copy = std::make_shared<IniText>(*text_);
    for (const auto& set : pending_) copy->set(set.section, set.key, set.value);
    pending_.clear();
    std::vector<iniObject*> nodes = copy->objects();
    text_ = std::move(copy);
    return nodes;
}

iniFile::iniFile(const char* path) {
    if (path) LoadFromFile(path);
}

int iniFile::LoadFromFile(const std::string& path) {
    store::IniPtr loaded = store::loadIni(path);
    if (!loaded) return 0;
    text_ = std::move(loaded);
    pending_.clear();
    path_ = path;
    return 1;
}

int iniFile::SaveToFile(const char* path) {
    std::string target = path ? path : path_;
    if (target.empty()) return 0;
    store::IniPtr saved = store::saveIni(target, text_, pending_);
    if (!saved) return 0;
    text_ = std::move(saved);
    pending_.clear();
    return 1;
}

}  // namespace ETL_FileHelper

// ---------------------------------------------------------------- file helpers

namespace ETL_MiscHelper {

int pathFileExist(const std::string& path) { return store::iniExists(path) ? 1 : 0; }

}  // namespace ETL_MiscHelper

namespace store {

bool commit() { return commitFiles(); }

bool unreadable(const std::string& logical) { return iniUnreadable(logical); }

bool copyFile(const std::string& dst, const std::string& src) {
    commitFiles();
    forgetFile(dst);
    return fs::copyFileAtomically(dst, src);
}

bool removeFile(const std::string& logical) {
    commitFiles();
    forgetFile(logical);
    return fs::removeFile(logical);
}

bool sameFile(const std::string& a, const std::string& b) { return fs::sameFile(a, b); }

bool readFile(const std::string& logical, std::string& bytes) { return readBytes(logical, bytes, fs::FileKind::kCopy); }

bool mayWrite(const std::string& logical) { return iniMayWrite(logical); }

bool readText(const std::string& file, std::string_view section, std::string_view key, std::string& value) {
    IniPtr text = loadIni(file);
    if (!text) return false;
    value.assign(text->find(section, key).value_or(std::string_view()));
    return true;
}

TextSet setText(const std::string& file, std::string_view section, std::string_view key, std::string_view value) {
    // The same order of questions as a document's load: the file is read (an unreadable
    // one logged) before whether it may be written is asked.
    if (!iniMayWrite(file) || !loadIni(file)) return TextSet::kFileRefused;
    KeySet set{section, key, value};
    if (updateIni(file, &set, 1) == Update::kDone) return TextSet::kSet;
    reportRefusedSet(file, section, key);
    return TextSet::kValueRefused;
}

bool writeFile(const std::string& logical, const std::string& bytes) {
    commitFiles();
    forgetFile(logical);
    return fs::writeFileAtomically(logical, bytes);
}

void listDirectory(const std::string& logical, std::vector<std::string>& names) {
    fs::listDirectory(logical, names);
}

void listPlainEntries(const std::string& logical, std::vector<std::string>& names) {
    fs::listPlainEntries(logical, names);
}

namespace {
unsigned long resets = 0;
}  // namespace

void reset() {
    ++resets;
    discardAll();
    openHandles().clear();
    fs::dropStaged();
    unlockConfigTree();
}

unsigned long resetCount() { return resets; }

}  // namespace store
