// The password routines: round trip, the 160-byte bound, tampering and keys.
#include <algorithm>
#include <cstring>
#include <tuple>

#include "support/phone_root.h"

namespace {

// The result, the text written, and whether the bytes past the 160 stayed untouched.
std::tuple<int, std::string, bool> call(int (*routine)(const char*, char*), const std::string& input) {
    char buffer[kPwDataBufferSize + 64];
    std::memset(buffer, 0x55, sizeof buffer);
    int result = routine(input.c_str(), buffer) != 0;
    bool within = std::all_of(buffer + kPwDataBufferSize, buffer + sizeof buffer, [](char c) { return c == 0x55; });
    return {result, std::string(buffer, strnlen(buffer, kPwDataBufferSize)), within};
}

using PasswordRoutines = PhoneRoot;

}  // namespace

TEST_F(PasswordRoutines, RoundTripUpToTheBoundAndNothingElseDecrypts) {
    const std::string longest(kPwDataLongestPlain, 'x'), sealed = protectedForm("secret");
    std::string tampered = sealed;
    tampered[20] = tampered[20] == 'A' ? 'B' : 'A';
    struct { int (*routine)(const char*, char*); std::string input; int failed; std::string text; } cases[] = {
        {pw_data_decrypt, protectedForm(longest), 0, longest},
        {pw_data_encrypt, sealed, 0, sealed},
        {pw_data_encrypt, "", 0, ""},
        {pw_data_encrypt, longest + "x", 1, ""},
        {pw_data_decrypt, "secret", 1, ""},
        {pw_data_decrypt, "PW1:" + sealed.substr(4), 1, ""},
        {pw_data_decrypt, sealed + "A", 1, ""},
        {pw_data_decrypt, tampered, 1, ""},
        {pw_data_decrypt, sealed + std::string(300, 'A'), 1, ""},
    };
    for (const auto& c : cases) EXPECT_EQ(call(c.routine, c.input), std::make_tuple(c.failed, c.text, true)) << c.input;
    EXPECT_EQ(protectedForm(longest).size(), kPwDataBufferSize - 1);
    EXPECT_NE(protectedForm("secret"), sealed) << "a fresh nonce for every value";
    EXPECT_EQ(sealed.find_first_not_of("pw1:ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_"),
              std::string::npos);
}

TEST_F(PasswordRoutines, AKeyFileReplacesTheDevelopmentKeyAndABadOneStopsBoth) {
    const std::string withDevelopmentKey = protectedForm("secret");
    write("/etc/good.key", " " + std::string(64, 'a') + "\n");
    write("/etc/bad.key", std::string(63, 'a') + "g");
    setenv("CFGUPGRADE_PW_KEYFILE", "/etc/good.key", 1);
    EXPECT_EQ(seen(withDevelopmentKey), withDevelopmentKey);
    EXPECT_EQ(seen(protectedForm("secret")), "*secret");
    for (const std::string file : {"/etc/bad.key", "/etc/missing.key"}) {
        setenv("CFGUPGRADE_PW_KEYFILE", file.c_str(), 1);
        size_t before = log().size();
        EXPECT_EQ(call(pw_data_encrypt, "secret"), std::make_tuple(1, std::string(), true));
        EXPECT_EQ(call(pw_data_decrypt, withDevelopmentKey), std::make_tuple(1, std::string(), true));
        std::string said = log().substr(before);
        EXPECT_EQ(said.rfind("etlTrace[3] Password key file [" + file + "]", 0), 0u) << said;
        EXPECT_EQ(said.find('\n'), said.size() - 1) << "said once: " << said;
    }
    unsetenv("CFGUPGRADE_PW_KEYFILE");
}
