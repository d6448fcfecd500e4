#include "translate/translate_rule.h"

#include <cstring>

namespace {

// Absent and empty attributes read alike: as the empty text.
std::string attributeText(const pugi::xml_node& item, const char* name) {
    return item.attribute(name).as_string("");
}

// A destination part that the rule leaves empty is the source's.
void defaultFrom(std::string& destination, const pugi::xml_node& item, const char* sourceName) {
    if (destination.empty()) destination = attributeText(item, sourceName);
}

}  // namespace

TranslateRule parseTranslateRule(const pugi::xml_node& item) {
    TranslateRule rule;
    rule.dstFile = attributeText(item, "dstFile");
    rule.dstSec = attributeText(item, "dstSec");
    rule.dstKey = attributeText(item, "dstKey");
    // Only the exact text "1" asks for protection.
    pugi::xml_attribute encrypt = item.attribute("dstEncrypt");
    if (!encrypt.empty()) rule.dstEncrypt = std::strcmp(encrypt.as_string(""), "1") == 0;
    defaultFrom(rule.dstFile, item, "srcFile");
    defaultFrom(rule.dstSec, item, "srcSec");
    defaultFrom(rule.dstKey, item, "srcKey");
    rule.srcFile = attributeText(item, "srcFile");
    rule.srcSec = attributeText(item, "srcSec");
    rule.srcKey = attributeText(item, "srcKey");
    return rule;
}
