#include "translate/translate_rule.h"

#include <cstring>

namespace {

// The attributes a rule reads, in the order of TranslateRule's views below.
enum Field { kSrcFile, kSrcSec, kSrcKey, kDstFile, kDstSec, kDstKey, kDstEncrypt, kFieldCount };

// The field an attribute name stands for, or kFieldCount: names are told apart by their
// first letters, so a rule costs a comparison per attribute, not one per name sought.
Field fieldNamed(const char* name) {
    if (name[0] != 's' && name[0] != 'd') return kFieldCount;
    bool source = name[0] == 's';
    const char* rest = name + 1;
    if (std::strcmp(rest, source ? "rcFile" : "stFile") == 0) return source ? kSrcFile : kDstFile;
    if (std::strcmp(rest, source ? "rcSec" : "stSec") == 0) return source ? kSrcSec : kDstSec;
    if (std::strcmp(rest, source ? "rcKey" : "stKey") == 0) return source ? kSrcKey : kDstKey;
    if (!source && std::strcmp(rest, "stEncrypt") == 0) return kDstEncrypt;
    return kFieldCount;
}

// A destination part that the rule leaves empty is the source's.
std::string_view orSource(std::string_view destination, std::string_view source) {
    return destination.empty() ? source : destination;
}

}  // namespace

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
