// Rule elements and the records they become.
#include "translate/translate_rule.h"

#include <gtest/gtest.h>

TEST(TranslateRuleTest, DestinationDefaultsFromTheSourcePartByPart) {
    // Expected: dstFile|dstSec|dstKey|dstEncrypt|srcFile|srcSec|srcKey
    struct { std::string element; std::string expected; } cases[] = {
        {R"(<r srcFile="/a" srcSec="S" srcKey="K" dstFile="/b" dstSec="T" dstKey="L"/>)", "/b|T|L|0|/a|S|K"},
        {R"(<r srcFile="/a" srcSec="S" srcKey="K" dstKey="L" dstEncrypt="1"/>)", "/a|S|L|1|/a|S|K"},
        {R"(<other dstFile="/b" dstSec="T" dstKey="L" dstEncrypt="true"/>)", "/b|T|L|0|||"},
        {R"(<r srcFile="/a" dstFile="" dstSec="T" dstEncrypt=" 1 "/>)", "/a|T||0|/a||"},
        {R"(<r DstFile="/b" srcfile="/a" dstSec="T" DstEncrypt="1"/>)", "|T||0|||"},
        {R"(<r dstEncrypt="01"><r srcFile="/a" srcSec="S" srcKey="K"/></r>)", "|||0|||"},
        {"text", "|||0|||"},
    };
    for (const auto& c : cases) {
        pugi::xml_document doc;
        ASSERT_TRUE(doc.load_string(("<translate>" + c.element + "</translate>").c_str())) << c.element;
        TranslateRule r = parseTranslateRule(doc.first_child().first_child());
        EXPECT_EQ(r.dstFile + "|" + r.dstSec + "|" + r.dstKey + "|" + (r.dstEncrypt ? "1" : "0") + "|" + r.srcFile +
                      "|" + r.srcSec + "|" + r.srcKey,
                  c.expected);
    }
}
