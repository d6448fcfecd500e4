// The password routines: round trip, the 160-byte bound, tampering and keys.
#include <sys/stat.h>

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

TEST_F(PasswordRoutines, AKeyFileReplacesTheDevelopmentKeyAndABadOneStopsBothOnce) {
    const std::string withDevelopmentKey = protectedForm("secret"), key(64, 'a');
    auto unusable = [](const std::string& why) {
        return "app_log[60/4] Cannot use password key file [/etc/k]: " + why +
               "; no password is protected or unprotected\n";
    };
    // The key file's content ("(fifo)": a FIFO, "(none)": no file), its mode, whether the
    // routines work with it, and the whole log of two calls of each.
    struct { std::string content; mode_t mode; bool works; std::string log; } cases[] = {
        {" " + key + "\r\n", 0600, true, ""},
        {key, 0644, true, "app_log[60/4] Password key file [/etc/k] can be read by group or others\n"},
        {key.substr(1) + "g", 0600, false, unusable("it does not hold 64 hex digits")},
        {key + std::string(65, ' '), 0600, false, unusable("File too large")},
        {"(none)", 0, false, unusable("No such file or directory")},
        {"(fifo)", 0600, false, unusable("not an absolute path to a regular file")},
    };
    for (const auto& c : cases) {
        fresh();
        makeDir("/etc");
        if (c.content == "(fifo)") {
            ASSERT_EQ(mkfifo(physical("/etc/k").c_str(), c.mode), 0);
        } else if (c.content != "(none)") {
            write("/etc/k", c.content);
            chmod(physical("/etc/k").c_str(), c.mode);
        }
        setenv("CFGUPGRADE_PW_KEYFILE", "/etc/k", 1);
        for (int call = 0; call < 2; ++call) {
            EXPECT_EQ(seen(withDevelopmentKey), withDevelopmentKey) << c.content;
            EXPECT_EQ(seen(protectedForm("secret")), c.works ? "*secret" : "(failed)") << c.content;
        }
        unsetenv("CFGUPGRADE_PW_KEYFILE");
        // A value made with another key is no plain text: that is worth a trace, each time.
        const std::string otherKey = "etlTrace[3] pw_data_decrypt: a value in the protected form does not open with this key\n";
        EXPECT_EQ(log(), c.log + (c.works ? otherKey + otherKey : "")) << c.content;
    }
}
