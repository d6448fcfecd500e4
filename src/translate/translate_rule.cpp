#include "translate/translate_rule.h"

#include <cstring>

namespace {

// The attributes a rule reads, in the order of kRuleAttributeNames.
enum Field { kSrcFile, kSrcSec, kSrcKey, kDstFile, kDstSec, kDstKey, kDstEncrypt, kFieldCount };
static_assert(kFieldCount == kRuleAttributeCount);

// The field an attribute name stands for (case counts), or kFieldCount.
Field fieldNamed(const char* name) {
    int f = 0;
    while (f < kFieldCount && std::strcmp(name, kRuleAttributeNames[f]) != 0) ++f;
    return static_cast<Field>(f);
}

// A destination part that the rule leaves empty is the source's.
std::string_view orSource(std::string_view destination, std::string_view source) {
    return destination.empty() ? source : destination;
}

}  // namespace

const char* const kRuleAttributeNames[kRuleAttributeCount] = {"srcFile", "srcSec", "srcKey", "dstFile",
                                                              "dstSec",  "dstKey", "dstEncrypt"};

// One walk over the element's attributes. Absent and empty attributes read alike, as
// the empty text; of a name given twice the first counts, as a lookup by name finds it.
TranslateRule parseTranslateRule(const pugi::xml_node& item) {
    std::string_view text[kFieldCount];
    bool seen[kFieldCount] = {};
    for (pugi::xml_attribute a = item.first_attribute(); a; a = a.next_attribute()) {
        Field f = fieldNamed(a.name());
        if (f == kFieldCount || seen[f]) continue;
        seen[f] = true;
        text[f] = a.value();
    }
    TranslateRule rule;
    rule.srcFile = text[kSrcFile];
    rule.srcSec = text[kSrcSec];
    rule.srcKey = text[kSrcKey];
    rule.dstFile = orSource(text[kDstFile], rule.srcFile);
    rule.dstSec = orSource(text[kDstSec], rule.srcSec);
    rule.dstKey = orSource(text[kDstKey], rule.srcKey);
    // Only the exact text "1" asks for protection.
    rule.dstEncrypt = text[kDstEncrypt] == "1";
    return rule;
}
