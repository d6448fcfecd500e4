// The INI document: what it reads, and that it writes back what it did not change.
#include <gtest/gtest.h>

#include "store/ini_text.h"

using ETL_FileHelper::IniText;

TEST(IniText, UntouchedLinesRoundTripByteForByte) {
    const char* files[] = {
        "",
        "[A]\nk=v\n",
        "[A]\r\nk = v\r\n; comment\r\n\r\n[B]\r\nx=1",  // CRLF, no final newline
        "# head\nloose=1\n[A]\n  k  =  spaced value  \nnot a key line\n[A]\nk=dup\n",
        "\xEF\xBB\xBF[A]\nk=v\n",                      // byte-order mark
        "[Broken\nk=v\n\x80\xFF=\x01\n",                // header without ], invalid UTF-8
    };
    for (const std::string text : files) EXPECT_EQ(IniText::parse(text).serialize(), text);
    std::string withNul("[A]\nk=a\0b\n", 11);
    EXPECT_EQ(IniText::parse(withNul).serialize(), withNul);
}

TEST(IniText, ReadsValuesAsTheFileMeansThem) {
    IniText doc = IniText::parse(
        "top=before any section\n"
        "[Net]\n"
        " password = a;b#c=d\"e\" \n"
        "; k=commented\n"
        "empty=\n"
        "k=first\n"
        "[Net]\n"
        "k=second section\n"
        "[ Spaced ]\n"
        "K=upper\n");
    struct { const char* section; const char* key; const char* value; } cases[] = {
        {"Net", "password", "a;b#c=d\"e\""}, {"Net", "empty", ""}, {"Net", "k", "first"},
        {"Spaced", "K", "upper"}, {"Net", "; k", nullptr}, {"Spaced", "k", nullptr},
        {"", "top", nullptr}, {"net", "k", nullptr},
    };
    for (const auto& c : cases) {
        std::optional<std::string_view> value = doc.find(c.section, c.key);
        if (c.value) {
            ASSERT_TRUE(value) << c.section << "/" << c.key;
            EXPECT_EQ(*value, c.value);
        } else {
            EXPECT_FALSE(value) << c.section << "/" << c.key;
        }
    }
}

TEST(IniText, SetChangesOnlyTheValueAndPlacesNewKeys) {
    struct { const char* before; const char* section; const char* key; const char* value; const char* after; } cases[] = {
        {"[A]\n  k  =  old  ; x\n", "A", "k", "new", "[A]\n  k  =  new\n"},
        {"[A]\nk = old  \n", "A", "k", "n", "[A]\nk = n  \n"},
        {"[A]\na=1\n\n; tail\n[B]\n", "A", "b", "2", "[A]\na=1\nb=2\n\n; tail\n[B]\n"},
        {"[A]\r\na=1\r\n", "A", "b", "2", "[A]\r\na=1\r\nb=2\r\n"},
        {"[A]\na=1", "A", "b", "2", "[A]\na=1\nb=2"},
        {"[A]\na=1", "B", "b", "2", "[A]\na=1\n[B]\nb=2\n"},
        {"", "S", "k", "v", "[S]\nk=v\n"},
        {"[A]\nk=1\n[A]\nk=2\n", "A", "k", "3", "[A]\nk=3\n[A]\nk=2\n"},
    };
    for (const auto& c : cases) {
        IniText doc = IniText::parse(c.before);
        EXPECT_TRUE(doc.set(c.section, c.key, c.value)) << c.before;
        EXPECT_EQ(doc.serialize(), c.after) << c.before;
    }
}

TEST(IniText, EveryWritableValueReadsBackAndTheRestIsRefused) {
    const std::string writable[] = {"", "a=b", ";lead", "#hash", "[x]", "quote\"s'", "\x80\xFE", "in ner", "?"};
    for (const auto& value : writable) {
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
