// One rule of the translation rule file, as it is applied.
#pragma once

#include <pugixml.hpp>

#include <string_view>

// Views of the rule element's attribute texts: valid while its document lives.
struct TranslateRule {
    std::string_view dstFile;  // defaulted from srcFile
    std::string_view dstSec;   // defaulted from srcSec
    std::string_view dstKey;   // defaulted from srcKey
    bool dstEncrypt = false;
    std::string_view srcFile;  // as written, never defaulted
    std::string_view srcSec;
    std::string_view srcKey;
};

// Builds the rule of one child node of the rule file's root element. Never fails:
// a node without the attributes (a text node too) gives an all-empty rule.
TranslateRule parseTranslateRule(const pugi::xml_node& item);

// The attribute names a rule reads, matched exactly, case included.
constexpr int kRuleAttributeCount = 7;
extern const char* const kRuleAttributeNames[kRuleAttributeCount];
