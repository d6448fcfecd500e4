// The password routines: round trip, the buffer bound, tampering and keys.
#include "platform/pw_data.h"

#include <cstdlib>
#include <cstring>
#include <string>

#include "support/phone_root.h"

namespace {

struct Outcome {
    int result;
    std::string text;
    bool withinBuffer;  // nothing written past the 160 bytes
};

// Runs a routine on a buffer with a guard area behind it.
Outcome call(int (*routine)(const char*, char*), const std::string& input) {
    char buffer[kPwDataBufferSize + 64];
    std::memset(buffer, 0x55, sizeof buffer);
    int result = routine(input.c_str(), buffer);
    bool within = true;
    for (std::size_t i = kPwDataBufferSize; i < sizeof buffer; ++i) within = within && buffer[i] == 0x55;
    return {result, std::string(buffer, strnlen(buffer, kPwDataBufferSize)), within};
}

std::string protect(const std::string& plain) { return call(pw_data_encrypt, plain).text; }

class PasswordRoutines : public PhoneRoot {
protected:
    void TearDown() override {
        unsetenv("CFGUPGRADE_PW_KEYFILE");
        PhoneRoot::TearDown();
    }
};

}  // namespace

TEST_F(PasswordRoutines, ProtectedFormsRoundTripUpToTheLongestPlainText) {
    const std::string longest(kPwDataLongestPlain, 'x');
    for (const std::string plain : {"1", "Recept!on;2024", "a b=c#d;e", "\xc3\xa9t\xc3\xa9", longest.c_str()}) {
        Outcome sealed = call(pw_data_encrypt, plain);
        ASSERT_EQ(sealed.result, 0) << plain;
        EXPECT_TRUE(sealed.withinBuffer);
        EXPECT_EQ(sealed.text.rfind("pw1:", 0), 0u) << sealed.text;
        EXPECT_EQ(sealed.text.find_first_not_of("pw1:ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_"),
                  std::string::npos);
        EXPECT_NE(protect(plain), sealed.text) << "fresh nonce per value";
        Outcome opened = call(pw_data_decrypt, sealed.text);
        EXPECT_EQ(opened.result, 0);
        EXPECT_EQ(opened.text, plain);
        // Protecting a protected value again leaves it as it is.
        Outcome again = call(pw_data_encrypt, sealed.text);
        EXPECT_EQ(again.result, 0);
        EXPECT_EQ(again.text, sealed.text);
    }
    EXPECT_EQ(protect(longest).size(), kPwDataBufferSize - 1);
}

TEST_F(PasswordRoutines, TextsThatCannotBeProtectedOrAreNotProtectedFail) {
    std::string sealed = protect("secret");
    std::string flipped = sealed;
    flipped[10] = flipped[10] == 'A' ? 'B' : 'A';
    std::string lastFlipped = sealed;
    lastFlipped.back() = lastFlipped.back() == 'A' ? 'Q' : 'A';
    struct { int (*routine)(const char*, char*); std::string input; } cases[] = {
        {pw_data_encrypt, std::string(kPwDataLongestPlain + 1, 'x')},
        {pw_data_encrypt, std::string(400, 'x')},
        {pw_data_decrypt, "secret"},
        {pw_data_decrypt, ""},
        {pw_data_decrypt, "pw1:"},
        {pw_data_decrypt, "PW1:" + sealed.substr(4)},
        {pw_data_decrypt, sealed.substr(0, sealed.size() - 1)},
        {pw_data_decrypt, sealed + "A"},
        {pw_data_decrypt, sealed.substr(0, 20) + "+" + sealed.substr(21)},
        {pw_data_decrypt, flipped},
        {pw_data_decrypt, lastFlipped},
        {pw_data_decrypt, sealed + std::string(300, 'A')},
    };
    for (const auto& c : cases) {
        Outcome out = call(c.routine, c.input);
        EXPECT_NE(out.result, 0) << c.input;
        EXPECT_EQ(out.text, "") << c.input;
        EXPECT_TRUE(out.withinBuffer) << c.input;
    }
    // The empty text has nothing to hide.
    Outcome empty = call(pw_data_encrypt, "");
    EXPECT_EQ(empty.result, 0);
    EXPECT_EQ(empty.text, "");
}

TEST_F(PasswordRoutines, AKeyFileReplacesTheDevelopmentKeyAndABadOneStopsBoth) {
    const std::string key(64, 'a');
    std::string withDevelopmentKey = protect("secret");
    write("/etc/pw.key", key + "\n");
    setenv("CFGUPGRADE_PW_KEYFILE", "/etc/pw.key", 1);
    EXPECT_NE(call(pw_data_decrypt, withDevelopmentKey).result, 0);
    std::string withKeyFile = protect("secret");
    EXPECT_EQ(call(pw_data_decrypt, withKeyFile).text, "secret");
    // Another key's protected value is plain text to this key: protected again.
    EXPECT_NE(protect(withDevelopmentKey), withDevelopmentKey);

    struct { const char* file; bool present; std::string content; const char* message; } bad[] = {
        {"/etc/missing.key", false, "", "[/etc/missing.key] cannot be read"},
        {"/etc/short.key", true, "abcd\n", "[/etc/short.key] does not hold 64 hex digits"},
        {"/etc/nothex.key", true, std::string(63, 'a') + "g", "[/etc/nothex.key] does not hold 64 hex digits"},
        {"relative.key", false, "", "[relative.key] cannot be read"},
    };
    for (const auto& c : bad) {
        if (c.present) write(c.file, c.content);
        setenv("CFGUPGRADE_PW_KEYFILE", c.file, 1);
        testing::internal::CaptureStderr();
        Outcome sealed = call(pw_data_encrypt, "secret");
        Outcome opened = call(pw_data_decrypt, withKeyFile);
        std::string err = testing::internal::GetCapturedStderr();
        EXPECT_NE(sealed.result, 0) << c.file;
        EXPECT_EQ(sealed.text, "");
        EXPECT_NE(opened.result, 0);
        EXPECT_NE(err.find(c.message), std::string::npos) << err;
        EXPECT_EQ(err.find(c.message), err.rfind(c.message)) << "said once: " << err;
    }
}
