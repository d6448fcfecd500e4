// The value protection transform, with password routines the test controls.
#include "translate/protect_value.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

int calls = 0;
int encryptResult = 0;
bool encryptWrites = true;

// A fake protected form, "P(plain)". A failed decrypt leaves junk behind, as it may.
int fakeDecrypt(const char* input, char* output) {
    ++calls;
    std::string text = input;
    bool ok = text.size() >= 3 && text.rfind("P(", 0) == 0 && text.back() == ')';
    std::strcpy(output, ok ? text.substr(2, text.size() - 3).c_str() : "junk");
    return ok ? 0 : 1;
}

int fakeEncrypt(const char* input, char* output) {
    ++calls;
    std::strcpy(output, encryptWrites ? ("P(" + std::string(input) + ")").c_str() : "");
    return encryptResult;
}

}  // namespace

TEST(ProtectValueTest, FollowsWhatTheRoutinesSay) {
    struct { std::string input; bool protect; int encryptResult; bool encryptWrites; std::string expected; int calls; }
    cases[] = {
        {"P(secret)", false, 0, true, "P(secret)", 0},
        {"", false, 0, true, "", 0},
        {"secret", true, 0, true, "P(secret)", 2},
        {"P(secret)", true, 0, true, "P(secret)", 1},
        {"P()", true, 0, true, "P()", 1},
        {"P(caf\xc3\xa9)", true, 0, true, "P(P(caf\xc3\xa9))", 2},
        {"secret", true, 0, false, "", 2},
        {"too long to protect", true, 1, false, "too long to protect", 2},
    };
    for (const auto& c : cases) {
        calls = 0;
        encryptResult = c.encryptResult;
        encryptWrites = c.encryptWrites;
        EXPECT_EQ(protectValue(c.input, c.protect, {fakeEncrypt, fakeDecrypt}), c.expected) << c.input;
        EXPECT_EQ(calls, c.calls) << c.input;
    }
}
