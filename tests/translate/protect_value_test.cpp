// The value protection transform, with routines the test controls and with the real ones.
#include "translate/protect_value.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "platform/pw_data.h"

namespace {

int calls = 0;

// A fake protected form: "P(" plain ")"; "P()" decrypts to the empty text.
int fakeDecrypt(const char* input, char* output) {
    ++calls;
    std::string text = input;
    if (text.size() < 3 || text.rfind("P(", 0) != 0 || text.back() != ')') {
        std::strcpy(output, "junk");  // a failed decrypt may leave anything behind
        return 1;
    }
    std::strcpy(output, text.substr(2, text.size() - 3).c_str());
    return 0;
}

int fakeEncrypt(const char* input, char* output) {
    ++calls;
    std::snprintf(output, kPwDataBufferSize, "P(%s)", input);
    return 0;
}

int encryptWritingNothing(const char*, char* output) {
    ++calls;
    output[0] = '\0';
    return 0;
}

int encryptFailing(const char*, char* output) {
    ++calls;
    output[0] = '\0';
    return 1;
}

}  // namespace

TEST(ProtectValueTest, FollowsWhatTheRoutinesSay) {
    const PasswordRoutines fake = {fakeEncrypt, fakeDecrypt};
    struct { PasswordRoutines routines; std::string input; bool protect; std::string expected; int calls; } cases[] = {
        {fake, "secret", false, "secret", 0},
        {fake, "P(secret)", false, "P(secret)", 0},
        {fake, "", false, "", 0},
        {fake, "secret", true, "P(secret)", 2},
        {fake, "P(secret)", true, "P(secret)", 1},
        {fake, "P()", true, "P()", 1},
        {fake, "P(caf\xc3\xa9)", true, "P(P(caf\xc3\xa9))", 2},
        {fake, "P(\x80)", true, "P(P(\x80))", 2},
        {{encryptWritingNothing, fakeDecrypt}, "secret", true, "", 2},
        {{encryptFailing, fakeDecrypt}, "a value too long to protect", true, "a value too long to protect", 2},
    };
    for (const auto& c : cases) {
        calls = 0;
        EXPECT_EQ(protectValue(c.input, c.protect, c.routines), c.expected) << c.input;
        EXPECT_EQ(calls, c.calls) << c.input;
    }
}

TEST(ProtectValueTest, TheRealRoutinesProtectOnceAndNeverLoseAValue) {
    std::string sealed = protectValue("Recept!on;2024", true);
    char plain[kPwDataBufferSize] = {};
    ASSERT_EQ(pw_data_decrypt(sealed.c_str(), plain), 0);
    EXPECT_STREQ(plain, "Recept!on;2024");
    EXPECT_EQ(protectValue(sealed, true), sealed);
    const std::string tooLong(kPwDataLongestPlain + 1, 'x');
    EXPECT_EQ(protectValue(tooLong, true), tooLong);
    EXPECT_EQ(protectValue("", true), "");
}
