// The value protection transform, with password routines the test controls.
#include "translate/protect_value.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

// A fake protected form, "P(plain)". A failed decrypt leaves junk behind, as it may.
int fakeDecrypt(const char* input, char* output) {
    std::string text = input;
    bool ok = text.size() >= 3 && text.rfind("P(", 0) == 0 && text.back() == ')';
    std::strcpy(output, ok ? text.substr(2, text.size() - 3).c_str() : "junk");
    return ok ? 0 : 1;
}

int fakeEncrypt(const char* input, char* output) {
    std::strcpy(output, ("P(" + std::string(input) + ")").c_str());
    return 0;
}

// Routines that write nothing: one reports success, the other refuses (too long, no key).
int encryptToNothing(const char*, char* output) { output[0] = '\0'; return 0; }
int refuseToEncrypt(const char*, char* output) { output[0] = '\0'; return 1; }

}  // namespace

TEST(ProtectValueTest, FollowsWhatTheRoutinesSay) {
    struct { std::string input; bool protect; int (*encrypt)(const char*, char*); std::string expected; } cases[] = {
        {"secret", false, fakeEncrypt, "secret"},
        {"secret", true, fakeEncrypt, "P(secret)"},
        {"P(secret)", true, fakeEncrypt, "P(secret)"},
        {"P()", true, fakeEncrypt, "P()"},
        {"P(caf\xc3\xa9)", true, fakeEncrypt, "P(P(caf\xc3\xa9))"},  // decrypts, but not to a value of ours
        {"secret", true, encryptToNothing, ""},
        {"too long to protect", true, refuseToEncrypt, "too long to protect"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(protectValue(c.input, c.protect, {c.encrypt, fakeDecrypt}), c.expected) << c.input;
}
