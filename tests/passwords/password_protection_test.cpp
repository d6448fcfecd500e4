// The protection switch and the re-encoding of the listed keys, against a temporary root.
#include <cstdlib>
#include <string>

#include "passwords/passwords.h"
#include "platform/pw_data.h"
#include "support/phone_root.h"

namespace {

const char kList[] = "/phone/resource/encryptConfig.xml";
const char kUser[] = "/config/user/user.ini";
const char kFactory[] = "/phone/factory/user/user.ini";

std::string account(int n) { return "/config/user/voip/sipAccount" + std::to_string(n) + ".cfg"; }

std::string sealed(const std::string& plain) {
    char out[kPwDataBufferSize] = {};
    EXPECT_EQ(pw_data_encrypt(plain.c_str(), out), 0);
    return out;
}

std::string plainOf(const std::string& value) {
    char out[kPwDataBufferSize] = {};
    return pw_data_decrypt(value.c_str(), out) == 0 ? out : "(not protected)";
}

std::string passwordOf(const std::string& ini) {
    size_t at = ini.find("password=");
    return at == std::string::npos ? "(absent)" : ini.substr(at + 9, ini.find('\n', at) - at - 9);
}

using PasswordProtection = PhoneRoot;

}  // namespace

TEST_F(PasswordProtection, TheFactoryLockDecidesWhenTheTwoDisagree) {
    // Stored passwords start in the form the user's lock says; "after" is what the
    // account files hold afterwards: "=" unchanged, "*" protected, else this text.
    struct { const char* user; const char* factory; int result; const char* log; bool sealedBefore; const char* after; }
    cases[] = {
        {"[PhoneSetting]\nEnLock=1\n", "[PhoneSetting]\nEnLock=2\n", 1,
         "app_log[60/6] No need trans password file !! Current status [encrypt]\n", true, "="},
        {"", "", 1, "app_log[60/6] No need trans password file !! Current status [decrypt]\n", false, "="},
        {"[PhoneSetting]\nEnLock=-1\n", "[PhoneSetting]\nEnLock=0\n", 1, "", true, "secret"},
        {"[Other]\nEnLock=1\n", "[PhoneSetting]\nEnLock=1\n", 1, "", false, "*"},
        {"[PhoneSetting]\nEnLock=1\n", nullptr, 0, "app_log[60/4] Can's load factory user's inifile!\n", true, "="},
        {nullptr, "[PhoneSetting]\nEnLock=1\n", 0, "app_log[60/4] Can's load user's inifile!\n", false, "="},
    };
    for (const auto& c : cases) {
        SetUp();
        if (c.user) write(kUser, c.user);
        if (c.factory) write(kFactory, c.factory);
        write(kList, R"(<list><pw account="1" section="account" key="password"/></list>)");
        const std::string before = "[account]\npassword=" + (c.sealedBefore ? sealed("secret") : "secret") + "\n";
        for (int n = 0; n < 4; ++n) write(account(n), before);
        int result = -1;
        runStep([&] { result = switchPasswordProtection(); });
        EXPECT_EQ(result, c.result) << c.log;
        EXPECT_EQ(log(), c.log);
        const std::string after = c.after;
        for (int n = 0; n < 4; ++n) {
            std::string now = read(account(n));
            if (after == "=") {
                EXPECT_EQ(now, before) << c.log;
            } else if (after == "*") {
                EXPECT_EQ(plainOf(passwordOf(now)), "secret");
            } else {
                EXPECT_EQ(passwordOf(now), after);
            }
        }
        EXPECT_EQ(read(kUser), c.user ? c.user : "") << "the lock is never written";
        TearDown();
    }
}

TEST_F(PasswordProtection, EveryListedKeyIsReencodedInListOrder) {
    setenv("CFGUPGRADE_TRACE_LEVEL", "2", 1);
    const std::string longest = std::string(kPwDataLongestPlain, 'x');
    const std::string p0 = sealed("secret0"), p1 = sealed("secret1"), pin = sealed("2580"), sys = sealed("syspw"),
                      skipped = sealed("skip"), cut = sealed(longest), dflt = sealed("dflt");
    ASSERT_EQ(cut.size(), 159u);
    const std::string tail(200 - cut.size(), 'T');
    write(kList, R"(<list>
        <password account="1" section="account" key="password"/>
        <pin file="/config/user/user.ini" section="PhoneSetting" key="Pin"/>
        <any file="/config/user/user.ini" section="PhoneSetting" key="Empty"/>
        <any file="/config/system/system.ini" section="S" key="Pw"/>
        <any file="/config/user/user.ini" section="PhoneSetting" key="Plain"/>
        <any file="/config/user/user.ini" section="PhoneSetting" key="Skipped" encrypt="0"/>
        <any file="/config/none.ini" section="S" key="k" encrypt="0"/>
        <any section="S" key="k"/>
        <any file="/config/user/user.ini" key="k"/>
        <any file="/config/user/user.ini" section="PhoneSetting" key="Long"/>
        <any file="/config/user/user.ini" section="PhoneSetting" key="Absent" default=")" + dflt + R"("/>
    </list>)");
    write(account(0), "[account]\npassword=" + p0 + "\n");
    write(account(1), "[account]\npassword=" + p1 + "\n");
    write(account(4), "[account]\npassword=" + p0 + "\n");
    write(account(16), "[account]\npassword=" + p0 + "\n");
    write(kUser, "[PhoneSetting]\nPin=" + pin + "\nEmpty=\nPlain=plain\nSkipped=" + skipped + "\nLong=" + cut + tail + "\n");
    write("/config/system/system.ini", "[S]\nPw=" + sys + "\n");

    int result = -1;
    runStep([&] { result = reencodeProtectedKeys(kReencodeDecrypt); });

    EXPECT_EQ(result, 1);
    EXPECT_EQ(log(), "etlTrace[2] Decrypt:(" + p0 + ")->(secret0)\n"
                     "etlTrace[2] Decrypt:(" + p1 + ")->(secret1)\n"
                     "etlTrace[3] Fail to load file [/config/user/voip/sipAccount2.cfg] !!\n"
                     "etlTrace[3] Fail to load file [/config/user/voip/sipAccount3.cfg] !!\n"
                     "etlTrace[2] Decrypt:(" + pin + ")->(2580)\n"
                     "etlTrace[2] Decrypt:(" + sys + ")->(syspw)\n"
                     "etlTrace[2] Decrypt:(plain)->()\n"
                     "etlTrace[2] Decrypt:(" + cut + ")->(" + longest + ")\n"
                     "etlTrace[2] Decrypt:(" + dflt + ")->(dflt)\n");
    EXPECT_EQ(read(account(0)), "[account]\npassword=secret0\n");
    EXPECT_EQ(read(account(1)), "[account]\npassword=secret1\n");
    EXPECT_EQ(read(account(4)), "[account]\npassword=" + p0 + "\n");
    EXPECT_EQ(read(account(16)), "[account]\npassword=" + p0 + "\n");
    EXPECT_FALSE(exists(account(2)));
    EXPECT_EQ(read(kUser), "[PhoneSetting]\nPin=2580\nEmpty=\nPlain=plain\nSkipped=" + skipped + "\nLong=" + longest +
                               "\nAbsent=dflt\n");
    EXPECT_EQ(read("/config/system/system.ini"), "[S]\nPw=syspw\n");
}

TEST_F(PasswordProtection, AMissingOrBrokenListTouchesNothing) {
    for (const char* list : {static_cast<const char*>(nullptr), "<list><pw account=\"1\"></list>", ""}) {
        SetUp();
        if (list) write(kList, list);
        write(account(0), "[account]\npassword=secret\n");
        auto before = snapshot();
        int result = -1;
        runStep([&] { result = reencodeProtectedKeys(kReencodeEncrypt); });
        EXPECT_EQ(result, 0);
        EXPECT_EQ(log(), "etlTrace[3] Fail to get encrypt config !!\n");
        EXPECT_EQ(snapshot(), before);
        TearDown();
    }
}
