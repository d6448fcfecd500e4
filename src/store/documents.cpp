#include "store/documents.h"

#include <sys/stat.h>

#include <algorithm>
#include <unordered_map>
#include <vector>

#include "store/files.h"

namespace store {

namespace {

struct CachedFile {
    IniPtr text;             // current content; null: no such file
    std::string diskBytes;   // what the file holds on disk
    bool onDisk = false;
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
    if (fs::readFile(logical, entry.diskBytes)) {
        entry.onDisk = true;
        entry.text = std::make_shared<const ETL_FileHelper::IniText>(ETL_FileHelper::IniText::parse(entry.diskBytes));
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

}  // namespace

IniPtr loadIni(const std::string& path) {
    const std::string logical = fs::canonicalPath(path);
    if (!fs::physicalPath(logical)) return nullptr;
    CachedFile& entry = entryFor(logical);
    if (entry.unreadable) cache().readFailed = true;
    return entry.text;
}

bool storeIni(const std::string& path, IniPtr text) {
    const std::string logical = fs::canonicalPath(path);
    if (!text || !fs::physicalPath(logical)) return false;
    CachedFile& entry = entryFor(logical);
    if (entry.unreadable || (!entry.text && !directoryExists(logical))) return false;
    entry.text = std::move(text);
    if (!entry.dirty) cache().dirtyOrder.push_back(logical);
    entry.dirty = true;
    return true;
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
        std::string bytes = entry.text->serialize();
        if (entry.onDisk && bytes == entry.diskBytes) {
            entry.dirty = false;
        } else if (fs::writeFileAtomically(logical, bytes)) {
            entry.diskBytes = std::move(bytes);
            entry.onDisk = true;
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
