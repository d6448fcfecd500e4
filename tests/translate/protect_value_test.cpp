// The value protection transform, with password routines the test controls.
#include "translate/protect_value.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

int encryptResult = 0;
bool encryptWrites = true;

// A fake protected form, "P(plain)". A failed decrypt leaves junk behind, as it may.
int fakeDecrypt(const char* input, char* output) {
    std::string text = input;
    bool ok = text.size() >= 3 && text.rfind("P(", 0) == 0 && text.back() == ')';
    std::strcpy(output, ok ? text.substr(2, text.size() - 3).c_str() : "junk");
    return ok ? 0 : 1;
}

int fakeEncrypt(const char* input, char* output) {
    std::strcpy(output, encryptWrites ? ("P(" + std::string(input) + ")").c_str() : "");
    return encryptResult;
}

}  // namespace

TEST(ProtectValueTest, FollowsWhatTheRoutinesSay) {
    struct { std::string input; bool protect; int encryptResult; bool encryptWrites; std::string expected; } cases[] = {
        {"secret", false, 0, true, "secret"},
        {"secret", true, 0, true, "P(secret)"},
        {"P(secret)", true, 0, true, "P(secret)"},
        {"P()", true, 0, true, "P()"},
        {"P(caf\xc3\xa9)", true, 0, true, "P(P(caf\xc3\xa9))"},  // decrypts, but not to a value of ours
        {"secret", true, 0, false, ""},
        {"too long to protect", true, 1, false, "too long to protect"},
    };
    for (const auto& c : cases) {
        encryptResult = c.encryptResult;
        encryptWrites = c.encryptWrites;
        EXPECT_EQ(protectValue(c.input, c.protect, {fakeEncrypt, fakeDecrypt}), c.expected) << c.input;
    }
}
