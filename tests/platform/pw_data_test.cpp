// The password routines' bounds: what goes in and out of the 160-byte buffers, and that
// nothing but a protected value made with the key decrypts. (Key files and what the
// steps make of the routines are golden cases.)
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <tuple>

#include "platform/pw_data.h"

namespace {

// The result, the text written, and whether the bytes past the 160 stayed untouched.
std::tuple<int, std::string, bool> call(int (*routine)(const char*, char*), const std::string& input) {
    char buffer[kPwDataBufferSize + 64];
    std::memset(buffer, 0x55, sizeof buffer);
    int result = routine(input.c_str(), buffer);
    bool within = std::all_of(buffer + kPwDataBufferSize, buffer + sizeof buffer, [](char c) { return c == 0x55; });
    return {result, std::string(buffer, strnlen(buffer, kPwDataBufferSize)), within};
}

std::string sealed(const std::string& plain) { return std::get<1>(call(pw_data_encrypt, plain)); }

}  // namespace

TEST(PasswordRoutines, RoundTripUpToTheBoundAndNothingElseDecrypts) {
    unsetenv("CFGUPGRADE_PW_KEYFILE");
    const std::string longest(kPwDataLongestPlain, 'x'), secret = sealed("secret"), high = sealed("\x80");
    // A UTF-8 plain text of 39 bytes: its protected form (94 characters) has no room for a second.
    const std::string german = sealed("Gr\xc3\xbc\xc3\x9f" "e-aus-dem-B\xc3\xbcro-2024-Passwort-xyz");
    std::string tampered = secret;
    tampered[20] = tampered[20] == 'A' ? 'B' : 'A';
    struct { int (*routine)(const char*, char*); std::string input; int failed; std::string text; } cases[] = {
        {pw_data_decrypt, sealed(longest), 0, longest},
        {pw_data_decrypt, secret, 0, "secret"},
        {pw_data_decrypt, "pw1:CbFbtP01AQk5QE0nL4Vo8ISSGBb4TNE3CUn7vLuImvI_Ng", 0, "secret"},  // sealed once, long ago: both ciphers open it
        {pw_data_encrypt, secret, 0, secret},
        {pw_data_decrypt, sealed(high), 0, high},  // opens, but to a byte no plain value of ours has
        {pw_data_encrypt, "", 0, ""},
        {pw_data_encrypt, german, 0, german},  // kept as it is, never lost to a rerun
        {pw_data_encrypt, longest + "x", kPwDataTooLong, ""},
        {pw_data_decrypt, "secret", kPwDataNotProtected, ""},
        {pw_data_decrypt, "PW1:" + secret.substr(4), kPwDataNotProtected, ""},
        {pw_data_decrypt, secret + "A", kPwDataNotProtected, ""},
        {pw_data_decrypt, secret.substr(0, secret.size() - 1), kPwDataNotProtected, ""},
        {pw_data_decrypt, tampered, kPwDataNotProtected, ""},
        {pw_data_decrypt, secret + std::string(300, 'A'), kPwDataNotProtected, ""},
    };
    for (const auto& c : cases) EXPECT_EQ(call(c.routine, c.input), std::make_tuple(c.failed, c.text, true)) << c.input;
    EXPECT_EQ(sealed(longest).size(), kPwDataBufferSize - 1);
    EXPECT_NE(sealed("secret"), secret) << "a fresh nonce for every value";
    // A short UTF-8 plain text is protected a second time, once: that form opens to an ASCII one.
    const std::string twice = sealed(high);
    EXPECT_EQ(call(pw_data_decrypt, twice), std::make_tuple(0, high, true));
    EXPECT_EQ(sealed(twice), twice);
    EXPECT_EQ(secret.find_first_not_of("pw1:ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_"), std::string::npos);
}

TEST(PasswordRoutines, WithoutAUsableKeyNothingButTheEmptyTextPasses) {
    setenv("CFGUPGRADE_PW_KEYFILE", "/no/such/key", 1);
    EXPECT_EQ(call(pw_data_encrypt, "secret"), std::make_tuple(kPwDataNoKey, std::string(), true));
    EXPECT_EQ(call(pw_data_decrypt, "secret"), std::make_tuple(kPwDataNoKey, std::string(), true));
    EXPECT_EQ(call(pw_data_encrypt, ""), std::make_tuple(0, std::string(), true));
    unsetenv("CFGUPGRADE_PW_KEYFILE");
}
