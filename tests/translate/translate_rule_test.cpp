// Rule elements and the records they become.
#include "translate/translate_rule.h"

#include <gtest/gtest.h>

TEST(TranslateRuleTest, DestinationDefaultsFromTheSourcePartByPart) {
    const std::string longName(600, 'k');
    struct { std::string element; TranslateRule expected; } cases[] = {
        {R"(<r srcFile="/a.ini" srcSec="S" srcKey="K" dstFile="/b.ini" dstSec="T" dstKey="L"/>)",
         {"/b.ini", "T", "L", false, "/a.ini", "S", "K"}},
        {R"(<r srcFile="/a.ini" srcSec="S" srcKey="K" dstKey="L"/>)", {"/a.ini", "S", "L", false, "/a.ini", "S", "K"}},
        {R"(<r srcFile="/a.ini" srcSec="S" srcKey="K" dstEncrypt="1"/>)", {"/a.ini", "S", "K", true, "/a.ini", "S", "K"}},
        {R"(<other dstFile="/b.ini" dstSec="T" dstKey="L"/>)", {"/b.ini", "T", "L", false, "", "", ""}},
        {R"(<r srcFile="/a.ini" dstFile="" dstSec="T"/>)", {"/a.ini", "T", "", false, "/a.ini", "", ""}},
        {R"(<r DstFile="/b.ini" srcfile="/a.ini" dstSec="T"/>)", {"", "T", "", false, "", "", ""}},
        {R"(<r><r srcFile="/a.ini" srcSec="S" srcKey="K"/></r>)", {}},
        {"plain text", {}},
        {R"(<r srcFile="/a.ini" srcSec="S	x" srcKey="a&amp;b"/>)", {"/a.ini", "S x", "a&b", false, "/a.ini", "S x", "a&b"}},
        {"<r srcFile=\"/a.ini\" srcSec=\"S\" srcKey=\"" + longName + "\"/>",
         {"/a.ini", "S", longName, false, "/a.ini", "S", longName}},
    };
    for (const auto& c : cases) {
        pugi::xml_document doc;
        ASSERT_TRUE(doc.load_string(("<translate>" + c.element + "</translate>").c_str())) << c.element;
        TranslateRule rule = parseTranslateRule(doc.first_child().first_child());
        const TranslateRule& e = c.expected;
        EXPECT_EQ(rule.dstFile, e.dstFile) << c.element;
        EXPECT_EQ(rule.dstSec, e.dstSec) << c.element;
        EXPECT_EQ(rule.dstKey, e.dstKey) << c.element;
        EXPECT_EQ(rule.dstEncrypt, e.dstEncrypt) << c.element;
        EXPECT_EQ(rule.srcFile, e.srcFile) << c.element;
        EXPECT_EQ(rule.srcSec, e.srcSec) << c.element;
        EXPECT_EQ(rule.srcKey, e.srcKey) << c.element;
    }
}

TEST(TranslateRuleTest, OnlyTheExactTextOneAsksForProtection) {
    struct { const char* attribute; bool expected; } cases[] = {
        {R"(dstEncrypt="1")", true}, {R"(dstEncrypt="")", false},   {R"(dstEncrypt="0")", false},
        {R"(dstEncrypt="true")", false}, {R"(dstEncrypt="01")", false}, {R"(dstEncrypt=" 1 ")", false},
        {R"(DstEncrypt="1")", false}, {"", false},
    };
    for (const auto& c : cases) {
        pugi::xml_document doc;
        ASSERT_TRUE(doc.load_string((std::string("<t><r srcFile=\"/a\" ") + c.attribute + "/></t>").c_str()));
        EXPECT_EQ(parseTranslateRule(doc.first_child().first_child()).dstEncrypt, c.expected) << c.attribute;
    }
}
