#include <algorithm>
#include <cstring>

#include "lint/lint.h"

namespace lint {

// Every check, in the order the manual lists them.
const CheckInfo kChecks[] = {
    {"does-not-load", Severity::kError, "the file is not read by the tool: not well-formed, or refused"},
    {"no-rules", Severity::kWarning, "the rule file holds no rule: the translation does nothing"},
    {"misspelt-attribute", Severity::kError, "an attribute close to one the tool reads, ignored"},
    {"unknown-attribute", Severity::kNote, "an attribute the tool does not read"},
    {"encrypt-value", Severity::kError, "a dstEncrypt value that reads as a yes but is not \"1\""},
    {"clearing-rule", Severity::kWarning, "a rule without complete source: it writes the empty text"},
    {"inert-rule", Severity::kWarning, "a rule without complete destination: skipped"},
    {"not-a-rule", Severity::kNote, "text among the rules, or an element nested in a rule"},
    {"destination-outside-config", Severity::kError, "a destination that is not an absolute path under /config"},
    {"duplicate-destination", Severity::kWarning, "a destination that an earlier rule writes too"},
    {"reads-earlier-write", Severity::kWarning, "a source that an earlier rule writes"},
    {"protection-not-listed", Severity::kWarning, "a protected destination the protected-key list does not re-encode"},
    {"key-list-missing-part", Severity::kWarning, "a protected-key entry without file, section or key"},
    {"key-list-value", Severity::kWarning, "an account or encrypt value other than \"1\" or \"0\""},
    {"key-list-attribute", Severity::kWarning, "an attribute the protected-key list does not know"},
    {"key-list-duplicate", Severity::kWarning, "a protected key listed twice"},
    {"source-missing", Severity::kWarning,
     "with --image: a source with no value there; the rule writes the empty text"},
    {"value-too-long", Severity::kWarning, "with --image: a value too long to be protected"},
};
const size_t kCheckCount = sizeof kChecks / sizeof kChecks[0];

bool isCheck(std::string_view name) {
    return std::any_of(kChecks, kChecks + kCheckCount, [&](const CheckInfo& c) { return name == c.name; });
}

Severity severityOf(std::string_view check) {
    for (const CheckInfo& c : kChecks)
        if (check == c.name) return c.severity;
    return Severity::kError;
}

void Findings::add(Finding finding) {
    if (disabled_.count(finding.check)) return;
    for (const XmlInput::Quiet& q : finding.input->quiet)
        if (finding.place >= q.from && finding.place < q.to && q.checks.count(finding.check)) return;
    findings_.push_back(std::move(finding));
}

size_t XmlInput::placeOf(const pugi::xml_node& node) const {
    ptrdiff_t at = node.offset_debug();
    if (converted || at < 0 || static_cast<size_t>(at) > original.size()) return 0;
    size_t place = static_cast<size_t>(at);
    // An element's place is its '<'; a text's is its first visible character.
    if (node.type() == pugi::node_element && place > 0 && original[place - 1] == '<') return place - 1;
    while (node.type() != pugi::node_element && place < original.size() && std::strchr(" \t\r\n", original[place]))
        ++place;
    return place;
}

// In-place parsing leaves names inside `bytes`, unless pugixml had to convert the file.
size_t XmlInput::placeOf(const pugi::xml_attribute& attribute, const pugi::xml_node& owner) const {
    const char* name = attribute.name();
    if (name >= bytes.data() && name < bytes.data() + bytes.size()) return static_cast<size_t>(name - bytes.data());
    return placeOf(owner);
}

std::string settingName(std::string_view file, std::string_view section, std::string_view key) {
    return std::string(file) + " [" + std::string(section) + "] " + std::string(key);
}

}  // namespace lint
