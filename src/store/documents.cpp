#include "store/documents.h"

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <optional>
#include <unordered_map>
#include <vector>

#include "store/files.h"

namespace store {

namespace {

struct CachedFile {
    std::string logical;  // the spelling first used: the path written and named in messages
    // Current content; null: no such file. Held mutable so a change nobody else
    // can see is made in place; readers get it as IniPtr, read-only.
    std::shared_ptr<ETL_FileHelper::IniText> text;
    bool unreadable = false; // exists but could not be read: never written over
    std::optional<bool> writable;  // may be written; asked once, when a change is first asked for
    bool dirty = false;
};

struct Cache {
    // Keyed by the file's identity (its resolved directory and name), so that every
    // spelling of one file, through "..", a link or a doubled slash, shares one entry.
    std::unordered_map<std::string, CachedFile> files;
    std::unordered_map<std::string, std::string> keys;  // spelling -> identity, for one step
    std::vector<std::string> dirtyOrder;                 // identities
    // The entry last looked up, by its spelling: a step asks about one file several
    // times in a row (a rule's destination: may it be written, is it there, set it).
    std::string lastSpelling;
    CachedFile* lastEntry = nullptr;
};

// Created on first use, gone with the process.
Cache& cache() {
    static Cache c;
    return c;
}

// Spellings are resolved again after this: files may have been made, moved or dropped.
void forgetSpellings() {
    cache().keys.clear();
    cache().lastEntry = nullptr;
}

// The identity of a spelling; a path that cannot be resolved keys by its spelling.
const std::string& keyOf(const std::string& logical) {
    auto& keys = cache().keys;
    auto it = keys.find(logical);
    if (it != keys.end()) return it->second;
    std::optional<std::string> id = fs::identity(logical);
    return keys.emplace(logical, id ? *id : "?" + fs::canonicalPath(logical)).first->second;
}

// The INI files held at once, by their footprint (IniText::footprint): the files of the
// largest real image take a few hundred KiB. Half of it is kept free for the file being
// read, so one file may take at most that half.
const size_t kIniBudget = 12u << 20;
const size_t kIniFileBudget = kIniBudget / 2;

size_t heldFootprint() {
    size_t held = 0;
    for (const auto& file : cache().files)
        if (file.second.text) held += file.second.text->footprint();
    return held;
}

// Drops the files nobody but the cache holds and that hold no change: a later read
// reads them again, as the disk has them.
void dropUnheldFiles() {
    auto& files = cache().files;
    for (auto it = files.begin(); it != files.end();)
        it = !it->second.dirty && it->second.text && it->second.text.use_count() == 1 ? files.erase(it) : std::next(it);
    cache().lastEntry = nullptr;
}

// Makes room for one more file before it is read. Files of many megabytes (no real one
// comes near) are dropped once read, and changed ones committed early, as a copy or a
// removal commits them: memory stays bounded whatever the number of files a step reads.
void makeRoomForAFile() {
    if (heldFootprint() <= kIniBudget - kIniFileBudget) return;
    dropUnheldFiles();
    if (heldFootprint() <= kIniBudget - kIniFileBudget) return;
    commitFiles();
    dropUnheldFiles();
}

// The text of a file read, or why it cannot be held (logged once): more than one file's
// share of the budget, or more than documents leave of it.
int parseWithinBudget(const std::string& logical, std::string bytes, std::shared_ptr<ETL_FileHelper::IniText>& text) {
    ETL_FileHelper::IniText parsed = ETL_FileHelper::IniText::parse(std::move(bytes), kIniFileBudget);
    if (parsed.footprint() > kIniFileBudget || heldFootprint() + parsed.footprint() > kIniBudget) {
        fs::reportOnce("read", logical, fs::kOverBudget);
        return fs::kOverBudget;
    }
    text = std::make_shared<ETL_FileHelper::IniText>(std::move(parsed));
    return 0;
}

// The entry of a path, read on first use.
CachedFile* findOrRead(const std::string& logical) {
    const std::string key = keyOf(logical);  // a copy: making room may commit, which forgets spellings
    auto& files = cache().files;
    auto it = files.find(key);
    if (it != files.end()) return &it->second;
    CachedFile entry;
    entry.logical = logical;
    makeRoomForAFile();
    // The bytes are dropped once parsed: the writer compares with the file itself, so
    // the cache holds each file once, as lines.
    std::string bytes;
    int err = fs::readFile(logical, bytes, fs::FileKind::kIni);
    if (!err)  // the text takes over the bytes as read: no second copy of the file
        err = parseWithinBudget(logical, std::move(bytes), entry.text);
    entry.unreadable = err && err != ENOENT;
    return &files.emplace(key, std::move(entry)).first->second;
}

// The entry of a usable path (absolute), read on first use; null otherwise.
CachedFile* entryFor(const std::string& logical) {
    if (logical.empty() || logical.front() != '/') return nullptr;
    Cache& c = cache();
    if (c.lastEntry && c.lastSpelling == logical) return c.lastEntry;
    CachedFile* entry = findOrRead(logical);
    c.lastSpelling = logical;
    c.lastEntry = entry;
    return entry;
}

// Whether the file may be written, asked of the filesystem once per file and run: the
// answer costs a resolution of the path, and the translation asks it for every rule.
// It is asked with the spelling being written, not the one the file was first read by,
// so a refusal names the path the writer gave.
bool writable(CachedFile& entry, const std::string& asked) {
    if (!entry.writable) entry.writable = fs::mayWrite(asked);
    return *entry.writable;
}

// The entry of a file that may be changed, or null: see updateIni.
CachedFile* changeableEntry(const std::string& logical) {
    CachedFile* entry = entryFor(logical);
    if (!entry || entry->unreadable) return nullptr;
    return writable(*entry, logical) ? entry : nullptr;
}

void markChanged(CachedFile& entry) {
    if (!entry.dirty) cache().dirtyOrder.push_back(keyOf(entry.logical));
    entry.dirty = true;
}

}  // namespace

IniPtr loadIni(const std::string& logical) {
    CachedFile* entry = entryFor(logical);
    return entry ? entry->text : nullptr;
}

bool iniMayWrite(const std::string& logical) {
    CachedFile* entry = entryFor(logical);
    return entry ? writable(*entry, logical) : fs::mayWrite(logical);
}

bool iniUnreadable(const std::string& logical) {
    CachedFile* entry = entryFor(logical);
    return entry && entry->unreadable;
}

bool updateIni(const std::string& logical, const std::function<bool(ETL_FileHelper::IniText&)>& change) {
    CachedFile* entry = changeableEntry(logical);
    if (!entry) return false;
    auto target = entry->text && entry->text.use_count() == 1
                      ? entry->text
                      : std::make_shared<ETL_FileHelper::IniText>(entry->text ? *entry->text : ETL_FileHelper::IniText());
    unsigned long before = target->revision();
    if (!change(*target)) return false;
    // Values that were already there change nothing: the file is not marked, nothing is
    // serialized or compared at the commit, and a copy made for the change is dropped.
    if (entry->text && target->revision() == before) return true;
    entry->text = std::move(target);
    markChanged(*entry);
    return true;
}

IniPtr saveIni(const std::string& logical, const IniPtr& base, const std::vector<PendingValue>& values) {
    CachedFile* entry = base ? changeableEntry(logical) : nullptr;
    if (!entry) return nullptr;
    std::shared_ptr<ETL_FileHelper::IniText> target;
    if (values.empty())
        target = std::const_pointer_cast<ETL_FileHelper::IniText>(base);
    else if (entry->text == base && entry->text.use_count() == 2)  // the store and this document
        target = entry->text;
    else
        target = std::make_shared<ETL_FileHelper::IniText>(*base);
    unsigned long before = base->revision();
    for (const PendingValue& v : values) target->set(v.section, v.key, v.value);
    // A document that saves the file's own content with values already in it changes
    // nothing: most saves of an ordinary boot, which then write and compare nothing.
    if (entry->text == base && target->revision() == before) return entry->text;
    entry->text = target;
    markChanged(*entry);
    return target;
}

// The filesystem first: for a file that is there, which is most, one resolution of the
// path answers; the identity is looked for only to find a file that is still pending.
bool iniExists(const std::string& logical) {
    if (fs::pathExists(logical)) return true;
    auto it = cache().files.find(keyOf(logical));
    return it != cache().files.end() && (it->second.text || it->second.unreadable);
}

bool commitFiles() {
    Cache& c = cache();
    bool ok = true;
    for (const std::string& key : c.dirtyOrder) {
        auto it = c.files.find(key);
        if (it == c.files.end() || !it->second.dirty) continue;
        CachedFile& entry = it->second;
        // The writer leaves a file alone when it already holds these bytes.
        if (fs::writeFileAtomically(entry.logical, entry.text->serialize())) {
            entry.dirty = false;
        } else {
            c.files.erase(it);  // the next read takes the file as it is on disk
            ok = false;
        }
    }
    c.dirtyOrder.clear();
    // Spellings are resolved again in the next step: this one may have made files.
    forgetSpellings();
    fs::forgetDirectories();
    return ok;
}

bool readBytes(const std::string& logical, std::string& bytes, fs::FileKind kind) {
    auto& files = cache().files;
    auto it = files.find(keyOf(logical));
    if (it == files.end() || !it->second.dirty) return fs::readFile(logical, bytes, kind) == 0;
    bytes = it->second.text->serialize();
    return true;
}

void forgetFile(const std::string& logical) {
    cache().files.erase(keyOf(logical));
    forgetSpellings();
    fs::forgetDirectories();
}

void discardAll() {
    cache().files.clear();
    forgetSpellings();
    cache().dirtyOrder.clear();
    fs::forgetRoot();
}

}  // namespace store
