// The configuration store: the platform's configuration library as the steps use it.
//
// Four families reach the same INI files: path-addressed integers, section handles,
// INI documents and file helpers. All of them take logical paths (as the phone sees
// them), and every completed write is seen by every later read through any family.
// Changes are made durable by store::commit(), which the driver calls after each step.
#pragma once

#include <string>
#include <vector>

#include <memory>
#include <optional>
#include <string_view>

#include "store/ini_text.h"
#include "store/pending_value.h"

// ---------------------------------------------------------------- text

namespace ETL_StringHelper {
// The platform's text type, as far as the tool relies on it: a byte string with
// value semantics.
template <typename Char>
using chReferenceStringT = std::basic_string<Char>;
}  // namespace ETL_StringHelper

namespace ETL_FileHelper {
using phraseConstTextA = std::string_view;
}

// ---------------------------------------------------------------- path-addressed integers

// Reads give the default for a missing file, section or key, and for an empty value;
// any other value is read as strtol reads it in base 10 ("12ab" is 12, "abc" is 0).
int etlGetProfileInt(const std::string& file, const std::string& section, const std::string& key, int def);
int etlGetRegistryInt(const std::string& file, const std::string& section, const std::string& key, int def);
// Writes create a missing file or section, never a missing directory. False when refused.
bool etlSetProfileInt(const std::string& file, const std::string& section, const std::string& key, int value);
bool etlSetRegistryInt(const std::string& file, const std::string& section, const std::string& key, int value);

// ---------------------------------------------------------------- section handles

struct RegistrySection;
using HREGISTRY = RegistrySection*;

// A handle on one section of one file, which need not exist yet. Writes collect in
// the handle and reach the file at registryFlush. Handles are owned by the store and
// live until the process ends; a null handle is accepted everywhere.
HREGISTRY registryOpen(const std::string& file, const std::string& section);
bool registrySetInt(HREGISTRY handle, const std::string& key, int value);
bool registrySetString(HREGISTRY handle, const std::string& key, const std::string& text);
bool registryFlush(HREGISTRY handle);

namespace ETL_SubClass {
ETL_StringHelper::chReferenceStringT<char> registryGetString(HREGISTRY handle, const std::string& key,
                                                             const std::string& def);
// Copies src over dst, replacing it. Reports nothing; see store::copyFile.
void etlCopyFile(const std::string& dst, const std::string& src);
}  // namespace ETL_SubClass

// ---------------------------------------------------------------- INI documents

namespace ETL_FileHelper {

// The section and key operations of a loaded document.
class iniDocument {
public:
    int GetIntValue(phraseConstTextA section, phraseConstTextA key, int def) const;
    ETL_StringHelper::chReferenceStringT<char> GetTextValue(phraseConstTextA section, phraseConstTextA key,
                                                            const std::string& def) const;
    // Non-zero when the value was stored in the document; creates a missing section or key.
    // A name or value that would not read back the same is refused and logged (never the value).
    int SetTextValue(phraseConstTextA section, phraseConstTextA key, phraseConstTextA value);
    // Top-level nodes in file order, for walking: sections are type 3, keys type 2.
    std::vector<iniObject*> objects();

protected:
    iniDocument();
    // The content as loaded, shared with the store; values set since are kept beside
    // it until the save, so setting a key never copies the file.
    std::shared_ptr<const IniText> text_;
    std::vector<store::PendingValue> pending_;
    std::string path_;  // the file last loaded: where a save without a path goes

private:
    const store::PendingValue* pendingFor(phraseConstTextA section, phraseConstTextA key) const;
    std::optional<std::string_view> find(phraseConstTextA section, phraseConstTextA key) const;
};

// A document bound to a file. Destruction never saves.
class iniFile : public iniDocument {
public:
    explicit iniFile(const char* path = nullptr);
    // Non-zero on success; the document then holds that file and nothing else.
    int LoadFromFile(const std::string& path);
    // Null: the path last loaded. Non-zero on success.
    int SaveToFile(const char* path = nullptr);
    int SaveToFile(const std::string& path) { return SaveToFile(path.c_str()); }
};

}  // namespace ETL_FileHelper

// ---------------------------------------------------------------- file helpers

namespace ETL_MiscHelper {
// Non-zero when the path exists (a file, a directory, or a file about to be committed).
int pathFileExist(const std::string& path);
}  // namespace ETL_MiscHelper

namespace store {

// Makes every pending change durable. The driver calls it after each step.
bool commit();

// True when the file exists but cannot be read. Reads of it give their defaults and
// sets to it are refused; a step whose item would rest on such defaults skips it.
bool unreadable(const std::string& logical);

// Copies src over dst, replacing it atomically; true when the copy landed. Pending
// changes are committed first, so the copy carries them and nothing that a later
// removal depends on is still only in memory.
bool copyFile(const std::string& dst, const std::string& src);

// Removes a file durably, after committing pending changes. A link is removed as a
// link: its target stays.
bool removeFile(const std::string& logical);

// True when both paths lead to one file: a link or a hard link makes two names one,
// also a dangling link and the name it leads to, where no file is yet.
bool sameFile(const std::string& a, const std::string& b);

// Raw bytes of a file (XML, certificates), including changes not yet committed.
bool readFile(const std::string& logical, std::string& bytes);

// True when the INI file may be written: inside a writable area, not behind a link that
// leads out of it. Asked once per file and run (the file is loaded); a refusal is logged once.
bool mayWrite(const std::string& logical);

// One key by path, for a step that reads and writes a key per item (the translation's
// rules): the file comes from the run's cache and no document is made. False when the
// file cannot be loaded (missing or unreadable); a missing key reads as the empty text.
bool readText(const std::string& file, std::string_view section, std::string_view key, std::string& value);

// How setText went.
enum class TextSet { kFileRefused, kValueRefused, kSet };

// Sets one key of an existing INI file, as loading it into a document, setting the key
// and saving would: kFileRefused when the file may not be written (see mayWrite) or
// cannot be loaded; kValueRefused (logged, never the value) when a name or the value
// would not read back the same; otherwise kSet, also when the value was already there.
TextSet setText(const std::string& file, std::string_view section, std::string_view key, std::string_view value);

// Replaces a file with raw bytes through the atomic writer.
bool writeFile(const std::string& logical, const std::string& bytes);

// Entry names of a directory in the order the system gives them; those read before a
// failure when it cannot be listed (logged unless it is missing).
void listDirectory(const std::string& logical, std::vector<std::string>& names);

// The entries of a directory that certainly exist: all but links and entries of unknown
// type, which pathFileExist judges one by one. As with listDirectory, a failed listing
// is logged and gives what was read before it.
void listPlainEntries(const std::string& logical, std::vector<std::string>& names);

// Forgets every parsed file, handle and staged write without writing, and lets go of
// the run's lock (used when the root changes, or a new run starts in this process).
void reset();

// Moves at every reset(): what a module keeps from one call to the next for the run (a
// loaded document, the password key) is stale once it has moved.
unsigned long resetCount();

}  // namespace store
