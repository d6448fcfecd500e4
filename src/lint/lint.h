// cfgupgrade-lint: the rule file and the protected-key list as the phone tool will read
// them, and the findings about them.
#pragma once

#include <cstddef>
#include <list>
#include <pugixml.hpp>
#include <set>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "platform/config_mapper.h"
#include "translate/translate_rule.h"

namespace lint {

enum class Severity { kError, kWarning, kNote };

// One XML input: its bytes, the document parsed inside them with the tool's options,
// and the checks its comments switch off for the rules that follow them.
struct XmlInput {
    std::string path;      // as shown in findings
    int order = 0;         // findings of the first input are shown first
    std::string original;  // the file's bytes: places are counted in them
    std::string bytes;     // the same, with the document parsed inside them
    pugi::xml_document doc;
    bool loaded = false;
    // pugixml parses a UTF-16, UTF-32 or Latin-1 file in a converted copy, whose
    // places are not the file's: its findings are all placed at 1:1.
    bool converted = false;
    struct Quiet {
        size_t from, to;  // byte range: the comment up to the end of the element after it
        std::set<std::string> checks;
    };
    std::vector<Quiet> quiet;

    // Byte place of a node or attribute (the start of its name); 0 when unknown.
    size_t placeOf(const pugi::xml_node& node) const;
    size_t placeOf(const pugi::xml_attribute& attribute, const pugi::xml_node& owner) const;
};

// The protected-key list as CConfigMapper reads it, each entry beside its element.
struct KeyList {
    CConfigMapper mapper;
    std::list<CIniConfigInfo*> entries;
    std::vector<pugi::xml_node> nodes;
    bool read = false;  // the mapper took the document (it has a root element)
};

Severity severityOf(std::string_view check);

struct Finding {
    Finding(const XmlInput& in, size_t at, const char* name, std::string text)
        : input(&in), place(at), severity(severityOf(name)), check(name), message(std::move(text)) {}
    // Adds a second place the message speaks of (the earlier rule), shown as a note after it.
    Finding& withNote(const XmlInput& in, size_t at, std::string text) {
        relatedInput = &in;
        relatedPlace = at;
        relatedMessage = std::move(text);
        return *this;
    }

    const XmlInput* input;
    size_t place;
    Severity severity;
    std::string check;
    std::string message;
    const XmlInput* relatedInput = nullptr;
    size_t relatedPlace = 0;
    std::string relatedMessage;
};

// The check names, with their severity and one line on what each catches.
struct CheckInfo {
    const char* name;
    Severity severity;
    const char* catches;
};
extern const CheckInfo kChecks[];
extern const size_t kCheckCount;
bool isCheck(std::string_view name);

// Collects findings, leaving out the checks switched off on the command line or by a
// comment before the rule.
class Findings {
public:
    explicit Findings(std::set<std::string> disabled) : disabled_(std::move(disabled)) {}
    void add(Finding finding);
    void add(const XmlInput& input, size_t place, const char* check, std::string message) {
        add(Finding(input, place, check, std::move(message)));
    }
    std::vector<Finding>& all() { return findings_; }

private:
    std::set<std::string> disabled_;
    std::vector<Finding> findings_;
};

// The shapes of a rule: the tool reads a value when the source is complete, and writes
// when the destination is.
bool hasSource(const TranslateRule& rule);
bool hasDestination(const TranslateRule& rule);
// One key of one file, whatever the spelling of the file's path.
using Setting = std::tuple<std::string, std::string, std::string>;
Setting sourceOf(const TranslateRule& rule);
Setting destinationOf(const TranslateRule& rule);

// An unprotected rule that reads and writes one key puts back what was there: for the
// order of the rules it writes nothing.
bool writesBackUnchanged(const TranslateRule& rule);

// The files where the protection switch re-encodes an account entry's key: the account
// files 0 to 3, as reencodeProtectedKeys walks them.
std::vector<std::string> accountFilesReencoded();

// "FILE [SECTION] KEY", the way findings name a setting.
std::string settingName(std::string_view file, std::string_view section, std::string_view key);

// The store reads below CFGUPGRADE_ROOT, as on the phone: `useRoot` points it at a new
// root. A file named on the command line is read as the one file of its own directory:
// `namedFile` gives that directory (the root) and "/NAME" (the path below it).
void useRoot(const std::string& root);
void namedFile(const std::string& path, std::string& root, std::string& logical);

// Reads the input at `logical` under `root` and parses it as the phone tool does (a
// file it does not read is a finding); false, with a line on standard error, when the
// file cannot be read at all.
bool readInput(const std::string& root, const std::string& logical, XmlInput& input, Findings& out);

// The checks. `keys` is null when no protected-key list was given.
void checkRuleFile(const XmlInput& rules, const XmlInput* keysInput, const KeyList* keys, Findings& out);
void checkKeyList(const XmlInput& keysInput, const KeyList& keys, Findings& out);
// Reads the image through the store: CFGUPGRADE_ROOT must name it.
void checkAgainstImage(const XmlInput& rules, const XmlInput* keysInput, const KeyList* keys, Findings& out);

// Output: the findings sorted by place, as compiler lines or JSON Lines.
struct OutputStyle {
    bool json = false;
    bool colour = false;
};
void printFindings(std::vector<Finding>& findings, const OutputStyle& style);

}  // namespace lint
