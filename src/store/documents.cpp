#include "store/documents.h"

#include <sys/stat.h>

#include <algorithm>
#include <unordered_map>
#include <vector>

#include "store/files.h"

namespace store {

namespace {

struct CachedFile {
    // Current content; null: no such file. Held mutable so a change nobody else
    // can see is made in place; readers get it as IniPtr, read-only.
    std::shared_ptr<ETL_FileHelper::IniText> text;
    bool unreadable = false; // exists but could not be read: never written over
    bool dirty = false;
};

struct Cache {
    std::unordered_map<std::string, CachedFile> files;
    std::vector<std::string> dirtyOrder;
    bool readFailed = false;  // this step read a file that exists but could not be read
};

// Created on first use, gone with the process.
Cache& cache() {
    static Cache c;
    return c;
}

CachedFile& entryFor(const std::string& logical) {
    auto& files = cache().files;
    auto it = files.find(logical);
    if (it != files.end()) return it->second;
    CachedFile entry;
    // The bytes are dropped once parsed: the writer compares with the file itself, so
    // the cache holds each file once, as lines.
    std::string bytes;
    if (fs::readFile(logical, bytes)) {
        entry.text = std::make_shared<ETL_FileHelper::IniText>(ETL_FileHelper::IniText::parse(bytes));
    } else {
        entry.unreadable = fs::pathExists(logical);
    }
    return files.emplace(logical, std::move(entry)).first->second;
}

bool directoryExists(const std::string& logical) {
    size_t slash = logical.rfind('/');
    std::string dir = slash == 0 ? "/" : logical.substr(0, slash);
    auto physical = fs::physicalPath(dir);
    struct stat st;
    return physical && stat(physical->c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// The entry of a file that may be changed, or null: see storeIni.
CachedFile* changeableEntry(const std::string& logical) {
    auto it = cache().files.find(logical);
    if (it == cache().files.end() && !fs::physicalPath(logical)) return nullptr;
    CachedFile& entry = it != cache().files.end() ? it->second : entryFor(logical);
    if (entry.unreadable || (!entry.text && !directoryExists(logical))) return nullptr;
    return &entry;
}

void markChanged(const std::string& logical, CachedFile& entry) {
    if (!entry.dirty) cache().dirtyOrder.push_back(logical);
    entry.dirty = true;
}

}  // namespace

IniPtr loadIni(const std::string& path) {
    const std::string logical = fs::canonicalPath(path);
    // A file already known needs no path check: only usable paths get an entry.
    auto& files = cache().files;
    auto it = files.find(logical);
    if (it == files.end() && !fs::physicalPath(logical)) return nullptr;
    CachedFile& entry = it != files.end() ? it->second : entryFor(logical);
    if (entry.unreadable) cache().readFailed = true;
    return entry.text;
}

bool storeIni(const std::string& path, IniPtr text) {
    const std::string logical = fs::canonicalPath(path);
    CachedFile* entry = text ? changeableEntry(logical) : nullptr;
    if (!entry) return false;
    // Every text is made mutable by the store or a document, so this takes back no promise.
    entry->text = std::const_pointer_cast<ETL_FileHelper::IniText>(std::move(text));
    markChanged(logical, *entry);
    return true;
}

bool updateIni(const std::string& path, const std::function<bool(ETL_FileHelper::IniText&)>& change) {
    const std::string logical = fs::canonicalPath(path);
    CachedFile* entry = changeableEntry(logical);
    if (!entry) return false;
    auto target = entry->text && entry->text.use_count() == 1
                      ? entry->text
                      : std::make_shared<ETL_FileHelper::IniText>(entry->text ? *entry->text : ETL_FileHelper::IniText());
    if (!change(*target)) return false;
    entry->text = std::move(target);
    markChanged(logical, *entry);
    return true;
}

IniPtr saveIni(const std::string& path, const IniPtr& base, const std::vector<PendingValue>& values) {
    const std::string logical = fs::canonicalPath(path);
    CachedFile* entry = base ? changeableEntry(logical) : nullptr;
    if (!entry) return nullptr;
    std::shared_ptr<ETL_FileHelper::IniText> target;
    if (values.empty())
        target = std::const_pointer_cast<ETL_FileHelper::IniText>(base);
    else if (entry->text == base && entry->text.use_count() == 2)  // the store and this document
        target = entry->text;
    else
        target = std::make_shared<ETL_FileHelper::IniText>(*base);
    for (const PendingValue& v : values) target->set(v.section, v.key, v.value);
    entry->text = target;
    markChanged(logical, *entry);
    return target;
}

bool iniExists(const std::string& logical) {
    auto& files = cache().files;
    auto it = files.find(fs::canonicalPath(logical));
    if (it != files.end() && (it->second.text || it->second.unreadable)) return true;
    return fs::pathExists(logical);
}

bool commitFiles() {
    Cache& c = cache();
    if (c.readFailed) {
        for (const std::string& logical : c.dirtyOrder) c.files.erase(logical);
        c.dirtyOrder.clear();
        return false;
    }
    bool ok = true;
    for (const std::string& logical : c.dirtyOrder) {
        auto it = c.files.find(logical);
        if (it == c.files.end() || !it->second.dirty) continue;
        CachedFile& entry = it->second;
        // The writer leaves a file alone when it already holds these bytes.
        if (fs::writeFileAtomically(logical, entry.text->serialize())) {
            entry.dirty = false;
        } else {
            c.files.erase(it);  // the next read takes the file as it is on disk
            ok = false;
        }
    }
    c.dirtyOrder.clear();
    return ok;
}

bool commitStep() {
    bool ok = commitFiles();
    cache().readFailed = false;
    return ok;
}

const std::string* pendingBytes(const std::string& logical, std::string& scratch) {
    auto& files = cache().files;
    auto it = files.find(fs::canonicalPath(logical));
    if (it == files.end() || !it->second.dirty) return nullptr;
    scratch = it->second.text->serialize();
    return &scratch;
}

void forgetFile(const std::string& logical) { cache().files.erase(fs::canonicalPath(logical)); }

void discardAll() {
    cache().files.clear();
    cache().dirtyOrder.clear();
    cache().readFailed = false;
}

}  // namespace store
