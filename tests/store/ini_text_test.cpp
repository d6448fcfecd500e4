// The INI document: what it reads, and that it writes back what it did not change.
#include <gtest/gtest.h>

#include "store/ini_text.h"

using ETL_FileHelper::IniText;

TEST(IniText, ReadsValuesAsTheFileMeansThem) {
    IniText doc = IniText::parse("top=before any section\n[Net]\n password = a;b#c=d\"e\" \n; k=commented\n"
                                 "empty=\n  label = Line [2]\nk=first\n[Net]\nk=second section\n[ Spaced ]\nK=upper\n");
    // Found values in brackets, "-" for none.
    const std::pair<const char*, const char*> lookups[] = {
        {"Net", "password"}, {"Net", "empty"}, {"Net", "k"}, {"Spaced", "K"},
        {"Net", "label"},    {"Net", "; k"},   {"Spaced", "k"}, {"", "top"}, {"net", "k"},
    };
    std::string found;
    for (const auto& [section, key] : lookups) {
        std::optional<std::string_view> value = doc.find(section, key);
        found += value ? "[" + std::string(*value) + "]" : "-";
    }
    EXPECT_EQ(found, "[a;b#c=d\"e\"][][first][upper][Line [2]]----");
}

// A file comes back byte for byte, and after a set every line but the one set does.
TEST(IniText, UntouchedBytesRoundTripAndSetChangesOnlyTheValue) {
    const std::string nul("[A]\nk=a\0b\n", 10);
    struct { std::string before; const char* section; const char* key; const char* value; std::string after; }
    cases[] = {
        {"[A]\n  k  =  old  ; x\n", "A", "k", "new", "[A]\n  k  =  new\n"},
        {"\xEF\xBB\xBF# head\nloose=1\n[A]\nk = old  \nnot a key\n[Broken\n\x80\xFF=\x01\n", "A", "k", "n",
         "\xEF\xBB\xBF# head\nloose=1\n[A]\nk = n  \nnot a key\n[Broken\n\x80\xFF=\x01\n"},
        {"[A]\na=1\n\n; tail\n[B]\n", "A", "b", "2", "[A]\na=1\nb=2\n\n; tail\n[B]\n"},
        {"[A]\r\na=1\r\n; c\r\n\r\n[B]\r\nx=1", "A", "b", "2", "[A]\r\na=1\r\nb=2\r\n; c\r\n\r\n[B]\r\nx=1"},
        {"[A]\na=1", "A", "b", "2", "[A]\na=1\nb=2"},
        {"[A]\na=1", "B", "b", "2", "[A]\na=1\n[B]\nb=2\n"},
        {"", "S", "k", "v", "[S]\nk=v\n"},
        {"[A]\nk=1\n[A]\nk=2\n", "A", "k", "3", "[A]\nk=3\n[A]\nk=2\n"},
        {nul, "B", "k", "v", nul + "[B]\nk=v\n"},
    };
    for (const auto& c : cases) {
        IniText doc = IniText::parse(c.before);
        EXPECT_EQ(doc.serialize(), c.before);
        EXPECT_TRUE(doc.set(c.section, c.key, c.value)) << c.before;
        EXPECT_EQ(doc.serialize(), c.after) << c.before;
    }
}

TEST(IniText, EveryWritableValueReadsBackAndTheRestIsRefused) {
    for (const std::string value : {"", "a=b", ";lead", "#hash", "[x]", "quote\"s'", "\x80\xFE", "in ner", "?"}) {
        IniText doc = IniText::parse("[A]\nk=old\n");
        ASSERT_TRUE(doc.set("A", "k", value)) << value;
        EXPECT_EQ(*IniText::parse(doc.serialize()).find("A", "k"), value);
    }
    struct { const char* section; const char* key; std::string value; } refused[] = {
        {"A", "k", "line\nbreak"}, {"A", "k", "cr\r"}, {"A", "k", std::string("nul\0", 4)},
        {"A", "k", " lead"}, {"A", "k", "trail\t"}, {"A", "k=x", "v"}, {"A", "", "v"},
        {"A]", "k", "v"}, {"A", ";k", "v"}, {"A\n", "k", "v"},
    };
    for (const auto& c : refused) {
        IniText doc = IniText::parse("[A]\nk=old\n");
        EXPECT_FALSE(doc.set(c.section, c.key, c.value)) << c.key << "=" << c.value;
        EXPECT_EQ(doc.serialize(), "[A]\nk=old\n");
    }
}

// Long sections and files of many sections are searched through indexes once they are
// searched often; those find what a walk finds, the first of a name, also after sets.
TEST(IniText, RepeatedSearchesFindTheFirstOfANameAfterSetsToo) {
    auto number = [](int n) { return std::to_string(n); };
    std::string text;
    for (int s = 0; s < 12; ++s) {  // S0 and S1 come twice, every key name twice a section
        text += "[S" + number(s % 10) + "]\n";
        for (int k = 0; k < 12; ++k) text += "k" + number(k % 10) + " = " + number(s * 100 + k) + "\n";
    }
    IniText doc = IniText::parse(text);
    for (int round = 0; round < 4; ++round)
        for (int s = 0; s < 10; ++s)
            for (int k = 0; k < 10; ++k) ASSERT_EQ(doc.find("S" + number(s), "k" + number(k)), number(s * 100 + k));
    ASSERT_TRUE(doc.set("S3", "new", "v") && doc.set("S10", "k0", "w") && doc.set("S1", "k1", "x"));
    IniText shortSection = IniText::parse("[A]\nk=1\nk=2\n");  // walked, never indexed
    ASSERT_TRUE(shortSection.set("A", "k", "x"));
    EXPECT_EQ(shortSection.serialize(), "[A]\nk=x\nk=2\n");
    IniText reread = IniText::parse(doc.serialize());
    for (const IniText* d : {&doc, &reread}) {
        EXPECT_EQ(d->find("S3", "new"), "v");
        EXPECT_EQ(d->find("S10", "k0"), "w");
        EXPECT_EQ(d->find("S1", "k1"), "x");
        EXPECT_EQ(d->find("S1", "k2"), "102");
    }
    EXPECT_NE(doc.serialize().find("k1 = 1101\n"), std::string::npos);  // the second [S1] is left alone
}
