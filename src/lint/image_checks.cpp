// Checks against a sample configuration: what the rules would read from it.
#include <set>

#include "lint/lint.h"
#include "platform/pw_data.h"
#include "store/config_store.h"
#include "translate/translate_rule.h"

namespace lint {

namespace {

void checkRuleSource(const XmlInput& rules, size_t place, const TranslateRule& rule, Findings& out) {
    std::string value;
    std::string source = settingName(rule.srcFile, rule.srcSec, rule.srcKey);
    if (!store::readText(std::string(rule.srcFile), rule.srcSec, rule.srcKey, value) || value.empty()) {
        out.add(rules, place, "source-missing",
                source + " has no value in the image: the rule writes the empty text to " +
                    settingName(rule.dstFile, rule.dstSec, rule.dstKey));
    } else if (rule.dstEncrypt && value.size() > kPwDataLongestPlain) {
        out.add(rules, place, "value-too-long",
                source + " holds " + std::to_string(value.size()) + " bytes, more than the " +
                    std::to_string(kPwDataLongestPlain) +
                    " that can be protected: with the lock on the rule writes the empty text (unless the value is "
                    "already protected)");
    }
}

// A listed key whose value cannot be protected is left plain by the protection switch.
void checkListedValue(const XmlInput& input, size_t place, const CIniConfigInfo& entry, Findings& out) {
    if (!entry.bEncrypt || (!entry.bAccount && !entry.strFile) || !entry.strSection || !entry.strKey) return;
    std::vector<std::string> files = entry.bAccount ? accountFilesReencoded() : std::vector<std::string>{entry.strFile};
    for (const std::string& file : files) {
        std::string value;
        if (!store::readText(file, entry.strSection, entry.strKey, value) || value.size() <= kPwDataLongestPlain)
            continue;
        out.add(input, place, "value-too-long",
                settingName(file, entry.strSection, entry.strKey) + " holds " + std::to_string(value.size()) +
                    " bytes, more than the " + std::to_string(kPwDataLongestPlain) +
                    " that can be protected: the protection switch leaves it plain (unless it is already protected)");
    }
}

}  // namespace

void checkAgainstImage(const XmlInput& rules, const XmlInput* keysInput, const KeyList* keys, Findings& out) {
    pugi::xml_node root = rules.doc.first_child();
    // A source an earlier rule writes is judged by that rule, not by the image.
    std::set<Setting> written;
    for (pugi::xml_node item : root.children()) {
        if (item.type() != pugi::node_element) continue;
        TranslateRule rule = parseTranslateRule(item);
        if (!hasDestination(rule)) continue;
        if (hasSource(rule) && !written.count(sourceOf(rule))) checkRuleSource(rules, rules.placeOf(item), rule, out);
        if (!writesBackUnchanged(rule)) written.insert(destinationOf(rule));
    }
    if (!keys || !keys->read) return;
    size_t i = 0;
    for (const CIniConfigInfo* entry : keys->entries)
        checkListedValue(*keysInput, keysInput->placeOf(keys->nodes[i++]), *entry, out);
}

}  // namespace lint
