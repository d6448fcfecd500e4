// One rule of the translation rule file, as it is applied.
#pragma once

#include <pugixml.hpp>

#include <string>

struct TranslateRule {
    std::string dstFile;  // defaulted from srcFile
    std::string dstSec;   // defaulted from srcSec
    std::string dstKey;   // defaulted from srcKey
    bool dstEncrypt = false;
    std::string srcFile;  // as written, never defaulted
    std::string srcSec;
    std::string srcKey;
};

// Builds the rule of one child node of the rule file's root element. Never fails:
// a node without the attributes (a text node too) gives an all-empty rule.
TranslateRule parseTranslateRule(const pugi::xml_node& item);
