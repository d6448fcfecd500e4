// Checks of the rule file, each reading the rules as parseTranslateRule builds them.
#include <algorithm>
#include <cctype>
#include <map>
#include <tuple>

#include "lint/lint.h"
#include "lint/names.h"
#include "passwords/passwords.h"
#include "store/paths.h"
#include "translate/translate_rule.h"

namespace lint {

bool hasSource(const TranslateRule& rule) {
    return !rule.srcFile.empty() && !rule.srcSec.empty() && !rule.srcKey.empty();
}

bool hasDestination(const TranslateRule& rule) {
    return !rule.dstFile.empty() && !rule.dstSec.empty() && !rule.dstKey.empty();
}

bool writesBackUnchanged(const TranslateRule& rule) {
    return !rule.dstEncrypt && hasSource(rule) && sourceOf(rule) == destinationOf(rule);
}

Setting sourceOf(const TranslateRule& rule) {
    return {store::fs::canonicalPath(rule.srcFile), std::string(rule.srcSec), std::string(rule.srcKey)};
}

Setting destinationOf(const TranslateRule& rule) {
    return {store::fs::canonicalPath(rule.dstFile), std::string(rule.dstSec), std::string(rule.dstKey)};
}

// The account files the protection switch re-encodes an account key in.
std::vector<std::string> accountFilesReencoded() {
    std::vector<std::string> files;
    for (int account = kFirstReencodedAccount; account <= kLastReencodedAccount; ++account)
        files.push_back("/config/user/voip/sipAccount" + std::to_string(account) + ".cfg");
    return files;
}

namespace {

std::string destinationName(const TranslateRule& rule) { return settingName(rule.dstFile, rule.dstSec, rule.dstKey); }

// What the tool does with the rule as it reads it, for the messages about a rule that
// is not what its author meant.
std::string whatItDoes(const TranslateRule& rule) {
    if (!hasDestination(rule)) return "it is inert (the tool skips it)";
    if (!hasSource(rule)) return "it writes the empty text to " + destinationName(rule);
    if (writesBackUnchanged(rule)) return "it writes " + destinationName(rule) + " back unchanged";
    return "it copies " + settingName(rule.srcFile, rule.srcSec, rule.srcKey) + " to " + destinationName(rule) +
           (rule.dstEncrypt ? ", protected" : "");
}

// The parts a destination lacks after defaulting: "dstKey", "dstFile or dstKey".
std::string missingDestinationParts(const TranslateRule& rule) {
    std::vector<const char*> missing;
    if (rule.dstFile.empty()) missing.push_back("dstFile");
    if (rule.dstSec.empty()) missing.push_back("dstSec");
    if (rule.dstKey.empty()) missing.push_back("dstKey");
    std::string text;
    for (size_t i = 0; i < missing.size(); ++i)
        text += (i == 0 ? "" : i + 1 == missing.size() ? " or " : ", ") + std::string(missing[i]);
    return text;
}

// A dstEncrypt value its author meant as a yes: a word for yes in any case, or a
// non-zero number, blanks around either.
bool readsAsYes(std::string_view value) {
    size_t first = value.find_first_not_of(" \t\r\n"), last = value.find_last_not_of(" \t\r\n");
    if (first == std::string_view::npos) return false;
    std::string word(value.substr(first, last - first + 1));
    std::transform(word.begin(), word.end(), word.begin(), [](unsigned char c) { return std::tolower(c); });
    for (const char* yes : {"true", "yes", "y", "on", "enable", "enabled", "encrypt", "protect"})
        if (word == yes) return true;
    size_t digits = word[0] == '+' || word[0] == '-' ? 1 : 0;
    if (digits == word.size() || word.find_first_not_of("0123456789", digits) != std::string::npos) return false;
    return word.find_first_not_of('0', digits) != std::string::npos;
}

void checkAttributes(const XmlInput& rules, const pugi::xml_node& item, const TranslateRule& rule, Findings& out) {
    const std::vector<std::string_view> known(kRuleAttributeNames, kRuleAttributeNames + kRuleAttributeCount);
    for (pugi::xml_attribute a : item.attributes()) {
        std::string_view name = a.name();
        size_t place = rules.placeOf(a, item);
        if (std::find(known.begin(), known.end(), name) == known.end()) {
            std::string_view meant = closestName(name, known);
            if (!meant.empty())
                out.add(rules, place, "misspelt-attribute",
                        "'" + std::string(name) + "' is not '" + std::string(meant) +
                            "' and the tool ignores it: " + whatItDoes(rule));
            else
                out.add(rules, place, "unknown-attribute", "'" + std::string(name) + "' is not read by the tool");
        } else if (name == "dstEncrypt" && std::string_view(a.value()) != "1" && readsAsYes(a.value())) {
            out.add(rules, place, "encrypt-value",
                    "dstEncrypt=\"" + std::string(a.value()) +
                        "\" does not protect the value: only the exact text \"1\" does");
        }
    }
}

void checkShape(const XmlInput& rules, size_t place, const TranslateRule& rule, Findings& out) {
    if (!hasDestination(rule)) {
        out.add(rules, place, "inert-rule",
                "no " + missingDestinationParts(rule) + ", given or taken from the source: the tool skips this rule");
        return;
    }
    if (!hasSource(rule))
        out.add(rules, place, "clearing-rule",
                "no complete source (srcFile, srcSec, srcKey): this rule writes the empty text to " +
                    destinationName(rule) + " on every phone");
    std::string path = store::fs::canonicalPath(rule.dstFile);
    if (rule.dstFile.front() != '/')
        out.add(rules, place, "destination-outside-config",
                "destination file '" + std::string(rule.dstFile) +
                    "' is not an absolute path: the phone refuses it and applies none of the rules after it");
    else if (path.rfind("/config/", 0) != 0)
        out.add(rules, place, "destination-outside-config",
                "destination file " + std::string(rule.dstFile) +
                    " is outside /config: the phone refuses it and applies none of the rules after it");
}

// The entries of the protected-key list that name this destination: a file entry by its
// path, an account entry in the account files the protection switch walks (0 to 3).
std::vector<size_t> listEntriesNaming(const TranslateRule& rule, const KeyList& keys) {
    std::vector<size_t> found;
    std::string path = store::fs::canonicalPath(rule.dstFile);
    size_t i = 0;
    for (const CIniConfigInfo* entry : keys.entries) {
        bool sameKey =
            entry->strSection && entry->strKey && rule.dstSec == entry->strSection && rule.dstKey == entry->strKey;
        bool sameFile = false;
        if (entry->bAccount) {
            for (const std::string& accountFile : accountFilesReencoded()) sameFile = sameFile || path == accountFile;
        } else {
            sameFile = entry->strFile && path == store::fs::canonicalPath(entry->strFile);
        }
        if (sameKey && sameFile) found.push_back(i);
        ++i;
    }
    return found;
}

void checkListed(const XmlInput& rules, size_t place, const TranslateRule& rule, const XmlInput& keysInput,
                 const KeyList& keys, Findings& out) {
    std::vector<size_t> naming = listEntriesNaming(rule, keys);
    auto entry = keys.entries.begin();
    for (size_t i : naming)
        if ((*std::next(entry, static_cast<ptrdiff_t>(i)))->bEncrypt) return;
    const std::string why = ": when the lock is switched off the value stays protected";
    if (naming.empty()) {
        out.add(rules, place, "protection-not-listed",
                destinationName(rule) + " is stored protected but the protected-key list does not name it" + why);
        return;
    }
    out.add(Finding(rules, place, "protection-not-listed",
                    destinationName(rule) +
                        " is stored protected but the protected-key list names it with encrypt=\"0\"" + why)
                .withNote(keysInput, keysInput.placeOf(keys.nodes[naming.front()]), "the entry with encrypt=\"0\""));
}

// Order: a later write to one setting wins, and a read sees the earlier rules' writes.
class Writes {
public:
    void check(const XmlInput& rules, size_t place, const TranslateRule& rule, Findings& out) {
        if (hasSource(rule)) {
            auto earlier = first_.find(sourceOf(rule));
            if (earlier != first_.end())
                related(
                    rules, place, "reads-earlier-write",
                    "reads " + settingName(rule.srcFile, rule.srcSec, rule.srcKey) +
                        " after an earlier rule writes it: it gets the new value, so the order of the rules matters",
                    earlier->second, "the earlier rule writing it", out);
        }
        if (writesBackUnchanged(rule)) return;
        auto [earlier, isNew] = first_.emplace(destinationOf(rule), place);
        if (!isNew)
            related(rules, place, "duplicate-destination",
                    destinationName(rule) + " is written by an earlier rule too: this later rule wins", earlier->second,
                    "the earlier rule writing it", out);
    }

private:
    static void related(const XmlInput& rules, size_t place, const char* check, std::string message, size_t other,
                        const char* otherMessage, Findings& out) {
        out.add(Finding(rules, place, check, std::move(message)).withNote(rules, other, otherMessage));
    }
    std::map<Setting, size_t> first_;
};

// Elements inside a rule are no rules: the tool never looks below the rule elements.
void checkNested(const XmlInput& rules, const pugi::xml_node& item, Findings& out) {
    for (pugi::xml_node inner : item.children())
        if (inner.type() == pugi::node_element)
            out.add(rules, rules.placeOf(inner), "not-a-rule",
                    "<" + std::string(inner.name()) + "> inside a rule is not a rule: the tool ignores it");
}

}  // namespace

void checkRuleFile(const XmlInput& rules, const XmlInput* keysInput, const KeyList* keys, Findings& out) {
    pugi::xml_node root = rules.doc.first_child();
    if (!root || !root.first_child()) {
        out.add(rules, root ? rules.placeOf(root) : 0, "no-rules",
                "the rule file holds no rule: the translation does nothing");
        return;
    }
    Writes writes;
    for (pugi::xml_node item : root.children()) {
        size_t place = rules.placeOf(item);
        if (item.type() != pugi::node_element) {
            out.add(rules, place, "not-a-rule",
                    "text among the rules: the tool takes it for a rule without attributes and skips it");
            continue;
        }
        TranslateRule rule = parseTranslateRule(item);
        checkAttributes(rules, item, rule, out);
        checkNested(rules, item, out);
        checkShape(rules, place, rule, out);
        if (!hasDestination(rule)) continue;
        writes.check(rules, place, rule, out);
        if (rule.dstEncrypt && keys && keys->read) checkListed(rules, place, rule, *keysInput, *keys, out);
    }
}

}  // namespace lint
