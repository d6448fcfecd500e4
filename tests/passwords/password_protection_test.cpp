// The protection switch and the re-encoding of the listed keys, against a temporary root.
#include <cstdlib>

#include "migrations/accounts/accounts.h"
#include "passwords/passwords.h"
#include "support/phone_root.h"

namespace {

const char kList[] = "/phone/resource/encryptConfig.xml";
const char kUser[] = "/config/user/user.ini";

using PasswordProtection = PhoneRoot;

}  // namespace

TEST_F(PasswordProtection, TheFactoryLockDecidesWhenTheTwoDisagree) {
    // Two listed keys, "a" plain and "b" protected; "forms" is what they hold
    // afterwards ("*" marks a protected form).
    struct { const char* user; const char* factory; bool list; int result; const char* log; const char* forms; }
    cases[] = {
        {"[PhoneSetting]\nEnLock=1\n", "[PhoneSetting]\nEnLock=2\n", true, 1,
         "app_log[60/6] No need trans password file !! Current status [encrypt]\n", "a *b"},
        {"", "", true, 1, "app_log[60/6] No need trans password file !! Current status [decrypt]\n", "a *b"},
        {"[PhoneSetting]\nEnLock=-1\n", "[PhoneSetting]\nEnLock=0\n", true, 1, "", "a b"},
        {"[Other]\nEnLock=1\n", "[PhoneSetting]\nEnLock=1\n", true, 1, "", "*a *b"},
        {"[PhoneSetting]\nEnLock=1\n", nullptr, true, 0, "app_log[60/4] Can's load factory user's inifile!\n", "a *b"},
        {nullptr, "[PhoneSetting]\nEnLock=1\n", true, 0, "app_log[60/4] Can's load user's inifile!\n", "a *b"},
        {"", "[PhoneSetting]\nEnLock=1\n", false, 0, "etlTrace[3] Fail to get encrypt config !!\n", "a *b"},
    };
    for (const auto& c : cases) {
        fresh();
        if (c.user) write(kUser, c.user);
        if (c.factory) write("/phone/factory/user/user.ini", c.factory);
        if (c.list) write(kList, R"(<l><i file="/config/p.ini" section="S" key="a"/>
                                       <i file="/config/p.ini" section="S" key="b"/></l>)");
        write("/config/p.ini", "[S]\na=a\nb=" + protectedForm("b") + "\n");
        int result = -1;
        runStep([&] { result = switchPasswordProtection(); });
        EXPECT_EQ(result, c.result) << c.log;
        EXPECT_EQ(log(), c.log);
        std::string stored = read("/config/p.ini");
        EXPECT_EQ(seen(valueOf(stored, "a")) + " " + seen(valueOf(stored, "b")), c.forms) << c.log;
        EXPECT_EQ(read(kUser), c.user ? c.user : "") << "the lock is never written";
    }
}

TEST_F(PasswordProtection, EveryListedKeyIsReencodedInListOrder) {
    setenv("CFGUPGRADE_TRACE_LEVEL", "2", 1);
    const std::string longest(kPwDataLongestPlain, 'x'), p0 = protectedForm("secret0"), pin = protectedForm("2580"),
                      sys = protectedForm("syspw"), skipped = protectedForm("skip"), cut = protectedForm(longest),
                      dflt = protectedForm("dflt"), lead = protectedForm(" lead"), tail(200 - cut.size(), 'T');
    write(kList, R"(<list>
        <password account="1" section="account" key="password"/>
        <pin file="/config/user/user.ini" section="PhoneSetting" key="Pin"/>
        <unreadable file="/config/user" section="PhoneSetting" key="Pin"/>
        <lead file="/config/user/user.ini" section="PhoneSetting" key="Lead"/>
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
    for (int n : {0, 1, 4, 16}) write(accountFilePath(n), "[account]\npassword=" + p0 + "\n");
    write(kUser,
          "[PhoneSetting]\nPin=" + pin + "\nLead=" + lead + "\nEmpty=\nPlain=plain\nSkipped=" + skipped + "\nLong=" + cut + tail + "\n");
    write("/config/system/system.ini", "[S]\nPw=" + sys + "\n");

    int result = -1;
    runStep([&] { result = reencodeProtectedKeys(kReencodeDecrypt); });

    EXPECT_EQ(result, 1);
    EXPECT_EQ(log(), "etlTrace[2] Decrypt:(" + p0 + ")->(secret0)\n"
                     "etlTrace[2] Decrypt:(" + p0 + ")->(secret0)\n"
                     "etlTrace[3] Fail to load file [/config/user/voip/sipAccount2.cfg] !!\n"
                     "etlTrace[3] Fail to load file [/config/user/voip/sipAccount3.cfg] !!\n"
                     "etlTrace[2] Decrypt:(" + pin + ")->(2580)\n"
                     "app_log[60/4] Cannot read [/config/user]: Is a directory\n"
                     "etlTrace[3] Fail to load file [/config/user] !!\n"
                     "etlTrace[2] Decrypt:(" + lead + ")->( lead)\n"
                     "app_log[60/4] Cannot set [/config/user/user.ini] section [PhoneSetting] key [Lead]: "
                     "it would not read back the same\n"
                     "etlTrace[2] Decrypt:(" + sys + ")->(syspw)\n"
                     "etlTrace[2] Decrypt:(plain)->()\n"
                     "etlTrace[2] Decrypt:(" + cut + ")->(" + longest + ")\n"
                     "etlTrace[2] Decrypt:(" + dflt + ")->(dflt)\n");
    for (int n : {0, 1}) EXPECT_EQ(read(accountFilePath(n)), "[account]\npassword=secret0\n");
    for (int n : {4, 16}) EXPECT_EQ(read(accountFilePath(n)), "[account]\npassword=" + p0 + "\n");
    EXPECT_EQ(read(kUser), "[PhoneSetting]\nPin=2580\nLead=" + lead + "\nEmpty=\nPlain=plain\nSkipped=" + skipped + "\nLong=" + longest +
                               "\nAbsent=dflt\n");
    EXPECT_EQ(read("/config/system/system.ini"), "[S]\nPw=syspw\n");
}
