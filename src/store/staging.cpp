#include "store/staging.h"

#include <sys/stat.h>

#include <algorithm>
#include <map>
#include <utility>

namespace store::fs {

namespace {

struct Staging {
    bool on = false;
    // Ordered by key, so a directory's files (the same key prefix) sit together.
    std::map<std::string, StagedFile> files;
    ChangeListener listener;
};

Staging& state() {
    static Staging s;
    return s;
}

std::optional<std::string> directoryKey(int dir) {
    struct stat st;
    if (fstat(dir, &st) != 0) return std::nullopt;
    return std::to_string(st.st_dev) + ":" + std::to_string(st.st_ino) + "/";
}

}  // namespace

void setStaging(bool on) { state().on = on; }

bool staging() { return state().on; }

std::string stagingKey(const Location& at) { return at.dirKey + at.name; }

const StagedFile* stagedFile(const std::string& key) {
    auto it = state().files.find(key);
    return it == state().files.end() ? nullptr : &it->second;
}

void stageFile(const std::string& key, StagedFile file) { state().files[key] = std::move(file); }

void applyStagedEntries(int dir, std::vector<std::string>& names) {
    std::optional<std::string> prefix = directoryKey(dir);
    if (!prefix) return;
    auto& files = state().files;
    for (auto it = files.lower_bound(*prefix); it != files.end() && it->first.compare(0, prefix->size(), *prefix) == 0; ++it) {
        std::string name = it->first.substr(prefix->size());
        auto listed = std::find(names.begin(), names.end(), name);
        if (!it->second.exists && listed != names.end()) names.erase(listed);
        if (it->second.exists && listed == names.end()) names.push_back(std::move(name));
    }
}

void dropStaged() { state().files.clear(); }

void setChangeListener(ChangeListener listener) { state().listener = std::move(listener); }

bool listening() { return static_cast<bool>(state().listener); }

void tellListener(const FileChange& change) {
    if (state().listener) state().listener(change);
}

}  // namespace store::fs
