#include "store/documents.h"

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <optional>
#include <unordered_map>
#include <vector>

#include "store/files.h"
#include "store/report.h"

namespace store {

namespace {

// What a file on disk was when the store read or wrote it: another writer's
// replacement (a new inode) or change in place (size, modification time) shows.
struct Stamp {
    bool present = false;
    dev_t dev = 0;
    ino_t ino = 0;
    off_t size = 0;
    timespec mtime{};

    static Stamp of(const struct stat& st) {
        return Stamp{st.st_mode != 0, st.st_dev, st.st_ino, st.st_size, st.st_mtim};  // a zero mode: no file
    }
    bool operator==(const Stamp& o) const {
        return present == o.present && (!present || (dev == o.dev && ino == o.ino && size == o.size &&
                                                     mtime.tv_sec == o.mtime.tv_sec && mtime.tv_nsec == o.mtime.tv_nsec));
    }
};

// A key this step set in a file; its value is the one the content holds at the commit.
struct SetKey {
    std::string section, key;
};

struct CachedFile {
    std::string logical;  // the spelling first used: the path written and named in messages
    // Current content; null: no such file. Held mutable so a change nobody else
    // can see is made in place; readers get it as IniPtr, read-only.
    std::shared_ptr<ETL_FileHelper::IniText> text;
    bool unreadable = false; // exists but could not be read: never written over
    std::optional<bool> writable;  // may be written; asked once, when a change is first asked for
    bool dirty = false;
    Stamp stamp;                   // the file the content was read from or written to
    unsigned long checkedIn = 0;   // the step that last found the stamp still true
    std::vector<SetKey> stepSets;  // keys set in this step, to set again on another writer's file
    bool savedWhole = false;       // this step saved a document's own content: no keys to set again
};

// A spelling resolved in this step: the file it names, and what the name held then.
struct Spelling {
    std::string identity;
    Stamp seen;
};

struct Cache {
    // Keyed by the file's identity (its resolved directory and name), so that every
    // spelling of one file, through "..", a link or a doubled slash, shares one entry.
    std::unordered_map<std::string, CachedFile> files;
    std::unordered_map<std::string, Spelling> keys;    // for one step
    unsigned long step = 1;                              // counts the commits
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

// A spelling, resolved once per step; a path that cannot be resolved keys by its spelling.
// The resolution looks at the name anyway, so what it saw costs nothing more.
const Spelling& spellingOf(const std::string& logical) {
    auto& keys = cache().keys;
    auto it = keys.find(logical);
    if (it != keys.end()) return it->second;
    fs::Lookup found;
    std::optional<std::string> id = fs::identity(logical, &found);
    Spelling spelling{id ? *id : "?" + fs::canonicalPath(logical), {}};
    if (id && found.present) spelling.seen = Stamp::of(found.st);
    return keys.emplace(logical, std::move(spelling)).first->second;
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

const std::string& keyOf(const std::string& logical) { return spellingOf(logical).identity; }

// True when an entry may serve this step: once per step, the name as this step first saw
// it must still hold the file the entry was read from. The entries are clean then (the
// last commit wrote them), so one that fails is simply read again.
bool stillCurrent(CachedFile& entry, const Stamp& seen) {
    if (entry.checkedIn == cache().step) return true;
    if (!(entry.stamp == seen)) return false;
    entry.checkedIn = cache().step;
    return true;
}

// The entry of a path, read on first use and again after another writer changed it.
CachedFile* findOrRead(const std::string& logical) {
    const Spelling& spelling = spellingOf(logical);
    // Copies: making room may commit, which forgets spellings.
    const std::string key = spelling.identity;
    const Stamp seen = spelling.seen;
    auto& files = cache().files;
    auto it = files.find(key);
    if (it != files.end() && stillCurrent(it->second, seen)) return &it->second;
    if (it != files.end()) files.erase(it);
    CachedFile entry;
    entry.logical = logical;
    // Seen before the read: a change in between makes the next comparison read it again.
    entry.stamp = seen;
    entry.checkedIn = cache().step;
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

// Only the names: the value to set again is the one the content holds at the commit.
void remember(CachedFile& entry, std::string_view section, std::string_view key) {
    entry.stepSets.push_back({std::string(section), std::string(key)});
}

// What the file's name holds now, looked at once more before it is replaced.
Stamp stampNow(const std::string& logical) {
    fs::Lookup found;
    if (fs::lookup(logical, fs::Access::kRead, found) != 0 || !found.present) return Stamp{};
    return Stamp::of(found.st);
}

// Another writer changed the file since the store read it: this step's keys are set
// again, with the values they have now, on what the file holds now (nothing, when it
// was removed: sets create a missing file). False, the file left as it is, when it
// cannot be read now (logged by the read) or the step saved a whole document over it.
bool takeOtherWriter(CachedFile& entry, const Stamp& now) {
    if (entry.savedWhole) {
        report("Cannot write [%s]: another writer changed it since it was read", entry.logical.c_str());
        return false;
    }
    std::string bytes;
    int err = fs::readFile(entry.logical, bytes, fs::FileKind::kIni);
    if (err && err != ENOENT) return false;
    using ETL_FileHelper::IniText;
    auto text = std::make_shared<IniText>(err ? IniText() : IniText::parse(std::move(bytes)));
    for (const SetKey& set : entry.stepSets) {
        std::optional<std::string_view> value = entry.text->find(set.section, set.key);
        if (value) text->set(set.section, set.key, *value);
    }
    entry.text = std::move(text);
    entry.stamp = now;
    return true;
}

// Writes a changed file, unless it cannot be made to keep another writer's change.
bool writeEntry(CachedFile& entry) {
    Stamp now = stampNow(entry.logical);
    if (!(now == entry.stamp) && !takeOtherWriter(entry, now)) return false;
    // The writer leaves a file alone when it already holds these bytes.
    struct stat written;
    if (!fs::writeFileAtomically(entry.logical, entry.text->serialize(), &written)) return false;
    entry.stamp = Stamp::of(written);
    return true;
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

Update updateIni(const std::string& logical, const KeySet* sets, size_t count) {
    CachedFile* entry = changeableEntry(logical);
    if (!entry) return Update::kFileRefused;
    using ETL_FileHelper::IniText;
    auto target = entry->text && entry->text.use_count() == 1 ? entry->text
                                                             : std::make_shared<IniText>(entry->text ? *entry->text : IniText());
    unsigned long before = target->revision();
    size_t made = 0;
    while (made < count && target->set(sets[made].section, sets[made].key, sets[made].value)) ++made;
    Update result = made == count ? Update::kDone : Update::kSetRefused;
    // Values that were already there change nothing: the file is not marked, nothing is
    // serialized or compared at the commit, and a copy made for the change is dropped.
    if (target->revision() == before) return result;
    entry->text = std::move(target);
    markChanged(*entry);
    for (size_t i = 0; i < made; ++i) remember(*entry, sets[i].section, sets[i].key);
    return result;
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
    // Values set on the file's content are keys of this step; a document that brings
    // content of its own (walked, or loaded before another save) is a whole file.
    if (entry->text == base)
        for (const PendingValue& v : values) remember(*entry, v.section, v.key);
    else
        entry->savedWhole = true;
    entry->text = target;
    markChanged(*entry);
    return target;
}

// The filesystem first: for a file that is there, which is most, one resolution of the
// path answers; the identity is looked for only to find a file that is still pending.
bool iniExists(const std::string& logical) {
    if (fs::pathExists(logical)) return true;
    auto it = cache().files.find(keyOf(logical));
    // A file read earlier and gone now was removed by another writer: only a pending one counts.
    return it != cache().files.end() && ((it->second.dirty && it->second.text) || it->second.unreadable);
}

bool commitFiles() {
    Cache& c = cache();
    bool ok = true;
    for (const std::string& key : c.dirtyOrder) {
        auto it = c.files.find(key);
        if (it == c.files.end() || !it->second.dirty) continue;
        CachedFile& entry = it->second;
        if (writeEntry(entry)) {
            entry.dirty = false;
            entry.stepSets.clear();
            entry.savedWhole = false;
        } else {
            c.files.erase(it);  // the next read takes the file as it is on disk
            ok = false;
        }
    }
    c.dirtyOrder.clear();
    ++c.step;
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
