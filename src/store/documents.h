// The INI files of this run, parsed once and shared by every access family. A file
// is known under one spelling of its path: "/config//a.ini" is "/config/./a.ini".
//
// Reads see the latest content of a file, whoever changed it: a path-addressed
// set, a flushed section handle or a saved document. Changes stay in memory until
// commitFiles(), which the driver calls after every step; a file whose bytes did
// not change is never written.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "store/files.h"
#include "store/ini_text.h"
#include "store/pending_value.h"

namespace store {

using IniPtr = std::shared_ptr<const ETL_FileHelper::IniText>;

// The file's current content; null when it does not exist or cannot be read.
IniPtr loadIni(const std::string& logical);

// One key to set, as its caller holds it.
struct KeySet {
    std::string_view section, key, value;
};

enum class Update { kFileRefused, kSetRefused, kDone };

// Sets `count` keys in the file's content for every later read. kFileRefused when the
// path is not usable, its directory does not exist, or the file exists but cannot be
// read (writing over it would lose what it holds); kSetRefused when a name or value
// would not read back the same: the sets before it are made, those after it are not.
// The sets are made in place when nobody but the store holds the content (no copy of
// the file per set), else on a copy.
Update updateIni(const std::string& logical, const KeySet* sets, size_t count);

// Saves a document: `base` with `values` set on it becomes the file's content, and
// is returned (null when refused as updateIni refuses). When `base` is the file's
// current content and the document is its only other holder, the values are set
// in place: saving a key costs the key, not a copy of the file.
IniPtr saveIni(const std::string& logical, const IniPtr& base, const std::vector<PendingValue>& values);

// True when the file exists, or will once the pending changes are committed.
bool iniExists(const std::string& logical);

// True when the file may be written (see fs::mayWrite); asked of the filesystem once
// per file and run.
bool iniMayWrite(const std::string& logical);

// True when the file exists but cannot be read (the failed read was logged once).
// Such a file is never written over; a step may also skip an item that would rest on it.
bool iniUnreadable(const std::string& logical);

// Writes every changed file, in the order of their first change, and ends the step.
// False when a write failed or was given up; that file is then read from disk again,
// so later reads see what it really holds. A file that could not be read spoils
// nothing but its own changes: those are refused when they are made.
//
// Other writers: a file read in an earlier step is compared with the disk (inode, size,
// modification time) when a step first uses it, and read again when it changed. Before
// a file is replaced it is compared again; when another writer changed it meanwhile,
// the keys this step set are set again on what it holds now, or, when the step saved a
// document's content of its own (a walk over its lines), the file is left as the other
// writer made it, with one line.
bool commitFiles();

// Raw bytes of a file as a reader of that kind sees them (its size limit), changes
// not yet committed included.
bool readBytes(const std::string& logical, std::string& bytes, fs::FileKind kind);

// Drops what is known of a file that is about to change on disk by other means.
void forgetFile(const std::string& logical);

// Drops everything without writing: a fresh start (a new root, a new test).
void discardAll();

}  // namespace store
