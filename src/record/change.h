// What a run changed, as one object per change: the objects of the change record on the
// phone (CFGUPGRADE_CHANGES) and of cfgupgrade-plan's JSON Lines, so one reader serves both.
//
// An INI file (a name ending ".ini" or ".cfg") that was written is described key by key:
// "key set" (old and new value), "key added", "key removed"; one that did not exist before
// starts with "file created". Any other file is described whole: "XML rewritten" (a name
// ending ".xml"), "file rewritten", "file created", "copied" (with its source), "removed".
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "store/ini_text.h"
#include "store/staging.h"

namespace record {

struct Change {
    std::string step;  // the run table's name of the step that made it
    std::string op;
    std::string file;  // as the phone sees it
    std::optional<std::string> section, key;    // for a key's change
    std::optional<std::string> oldValue, newValue;  // nullopt: none
    std::optional<std::string> source;          // the copied file
    bool masked = false;  // old and new are shown as "(masked)" or "(protected)"
};

// Appends the changes of one file change made during `step`.
void describeChange(const store::fs::FileChange& change, const char* step, std::vector<Change>& out);

// The same for the changes of one run, in their order. The text a write of an INI file
// leaves is kept parsed, by its path: the next write of that file starts from it (when
// its bytes are those), and it is not parsed again.
class Describer {
public:
    void describe(const store::fs::FileChange& change, const char* step, std::vector<Change>& out);

private:
    struct Left {
        std::string bytes;
        ETL_FileHelper::IniText text;
    };
    std::map<std::string, Left> left_;
};

// True for the files described key by key.
bool isIniName(const std::string& file);

}  // namespace record
