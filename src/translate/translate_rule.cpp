#include "translate/translate_rule.h"

namespace {

// Absent and empty attributes read alike: as the empty text.
std::string_view attributeText(const pugi::xml_node& item, const char* name) {
    return item.attribute(name).as_string("");
}

// A destination part that the rule leaves empty is the source's.
std::string_view orSource(std::string_view destination, std::string_view source) {
    return destination.empty() ? source : destination;
}

}  // namespace

TranslateRule parseTranslateRule(const pugi::xml_node& item) {
    TranslateRule rule;
    rule.srcFile = attributeText(item, "srcFile");
    rule.srcSec = attributeText(item, "srcSec");
    rule.srcKey = attributeText(item, "srcKey");
    rule.dstFile = orSource(attributeText(item, "dstFile"), rule.srcFile);
    rule.dstSec = orSource(attributeText(item, "dstSec"), rule.srcSec);
    rule.dstKey = orSource(attributeText(item, "dstKey"), rule.srcKey);
    // Only the exact text "1" asks for protection.
    rule.dstEncrypt = attributeText(item, "dstEncrypt") == "1";
    return rule;
}
