// The seam under the writers of files.cpp, for the programs that want to see a run:
//
// - Staged, the writers do every check of a real write and then keep the bytes they
//   would have written here, in memory; the disk under the root is left as it was.
//   Every read, lookup and listing of files.cpp sees the staged files as it would see
//   them on disk, so later steps run on what earlier steps would have left.
// - A listener hears of every change a writer made (or, staged, would have made):
//   the file's bytes before and after.
//
// Neither is on unless a program turns it on: the phone tool's ordinary run writes to
// disk and tells nobody.
#pragma once

#include <sys/types.h>

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "store/paths.h"

namespace store::fs {

// ---------------------------------------------------------------- staging

void setStaging(bool on);
bool staging();

// A staged file: its bytes and mode, or a removal.
struct StagedFile {
    bool exists = false;
    std::string bytes;
    mode_t mode = 0;
};

// The key of a resolved file (its directory's device and inode, then its name): every
// spelling of one file has the same key.
std::string stagingKey(const Location& at);

// What is staged under the key, or null when the disk has the answer.
const StagedFile* stagedFile(const std::string& key);
void stageFile(const std::string& key, StagedFile file);

// A directory's listing as it would be with the staged files: names staged as removed
// are taken out, names staged as created are added at the end.
void applyStagedEntries(int dir, std::vector<std::string>& names);

// Forgets everything staged (a new image).
void dropStaged();

// ---------------------------------------------------------------- listening

enum class ChangeKind { kWritten, kCopied, kRemoved };

struct FileChange {
    const std::string& logical;
    const std::optional<std::string>& before;  // nullopt: there was no file
    const std::optional<std::string_view>& after;  // nullopt: there is no file now
    ChangeKind kind;
    const std::string* source;  // the copy's source, for kCopied
};

using ChangeListener = std::function<void(const FileChange&)>;

// One listener at a time; an empty one stops listening.
void setChangeListener(ChangeListener listener);
bool listening();
void tellListener(const FileChange& change);

}  // namespace store::fs
