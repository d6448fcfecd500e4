// The translation step against a temporary phone root, and the value protection it
// applies, with password routines the test controls.
#include <cstdio>
#include <cstring>
#include <vector>

#include "support/phone_root.h"
#include "translate/protect_value.h"
#include "translate/translate.h"

namespace {

const char kUser[] = "/config/user/user.ini";
const char kSystem[] = "/config/system/system.ini";
const char kSrc[] = R"(srcFile="/config/user/user.ini" srcSec="A" srcKey="k")";

using TranslateConfig = PhoneRoot;

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

TEST_F(TranslateConfig, RulesByShapeSourceAndLock) {
    const std::string longKey(500, 'n'), longValue(700, 'v'), sealedUtf8 = protectedForm("caf\xc3\xa9");
    const std::string lockOn = "[PhoneSetting]\nEnLock=1\n[A]\nk=";
    struct Expect { const char* file; std::string key; std::string value; };  // "*v": a protected form of v
    // The user file, the rule file ("": none), the values after, standard output, the log, the result,
    // and the password key file (none: the development key).
    struct { std::string user, rules; std::vector<Expect> expect; const char* out; std::string log; bool result;
             const char* keyFile = nullptr; }
    cases[] = {
        {"[A]\nk=v\n", "", {{kUser, "k", "v"}}, "",
         "app_log[60/4] The file [/phone/resource/configTranslate.xml] not exist !\n", false},
        {"[A]\nk=v\n", "<t><r/>", {{kUser, "k", "v"}}, "", "app_log[60/4] Load translate file failed!\n", false},
        {"[A]\nk=v\n", "<t>\n</t>", {{kUser, "k", "v"}}, "", "app_log[60/4] No found item!\n", false},
        // Sources that are missing, and items without a complete destination (passed over).
        {"[A]\nk=v\n", R"(<t><x dstFile="/config/user/user.ini" dstSec="A" dstKey="k"/>text<r srcFile="/none.ini"/>
            <r srcFile="/config/user/user.ini" srcSec="A" srcKey="gone" dstFile="/config/system/system.ini"/>
            <r srcFile="/none.ini" srcSec="A" srcKey="k" dstFile="/config/system/system.ini"/></t>)",
         {{kUser, "k", ""}, {kSystem, "gone", ""}, {kSystem, "k", ""}}, "Can's load user's inifile [/none.ini]!\n", "",
         true},
        // Only the exact text "1" asks for protection; an empty destination part is the source's.
        {"[PhoneSetting]\nEnLock=-1\n[A]\nk=v\n",
         R"(<t><r $ dstKey="k2"/><r $ dstSec="" dstKey="k3" dstEncrypt=" 1 "/><r $ dstKey="k4" dstEncrypt="true"/>
            <r $ dstKey="k5" dstEncrypt="01"/><r $ dstEncrypt="1"/></t>)",
         {{kUser, "k2", "v"}, {kUser, "k3", "v"}, {kUser, "k4", "v"}, {kUser, "k5", "v"}, {kUser, "k", "*v"}}, "", "",
         true},
        // The lock is read once, before the first rule.
        {"[PhoneSetting]\nEnLock=0\n[A]\nk=v\non=1\n",
         R"(<t><r srcFile="/config/user/user.ini" srcSec="A" srcKey="on" dstSec="PhoneSetting" dstKey="EnLock"/>
            <r $ dstFile="/config/system/system.ini" dstKey="k2" dstEncrypt="1"/></t>)",
         {{kSystem, "k2", "v"}}, "", "", true},
        // A rule reads what the rules before it wrote; a destination that cannot be loaded stops the run.
        {"[A]\nk=v\n", R"(<t><r $ dstFile="/config/system/system.ini" dstKey="k1"/>
            <r srcFile="/config/system/system.ini" srcSec="A" srcKey="k1" dstKey="k2"/>
            <r $ dstFile="/config/none.ini"/><r $ dstKey="k3"/></t>)",
         {{kSystem, "k1", "v"}, {kSystem, "k2", "v"}, {kUser, "k3", "(absent)"}}, "Can's load user's inifile!\n", "",
         false},
        // A directory stands for a file that cannot be read: as a source it reads as the
        // empty text; as a destination it stops the run, and what was saved stays saved.
        {"[A]\nk=v\n", R"(<t><r srcFile="/config/user" srcSec="A" srcKey="k" dstFile="/config/system/system.ini" dstKey="k0"/>
            <r $ dstFile="/config/system/system.ini" dstKey="k1"/><r $ dstFile="/config/user"/><r $ dstKey="k3"/></t>)",
         {{kSystem, "k0", ""}, {kSystem, "k1", "v"}, {kUser, "k3", "(absent)"}},
         "Can's load user's inifile [/config/user]!\nCan's load user's inifile!\n",
         "app_log[60/4] Cannot read [/config/user]: Is a directory\n", false},
        {"[A]\n" + longKey + "=" + longValue + "\n",
         R"(<t><r srcFile="/config/user/user.ini" srcSec="A" srcKey=")" + longKey + R"(" dstKey="m"/></t>)",
         {{kUser, "m", longValue}}, "", "", true},
        // A value whose plain text has a high byte is not taken for protected; one too long to
        // protect, or with no key to protect it, is stored empty, never in clear.
        {lockOn + sealedUtf8 + "\nlong=" + std::string(kPwDataLongestPlain + 1, 'x') + "\n",
         R"(<t><r $ dstKey="k2" dstEncrypt="1"/>
            <r srcFile="/config/user/user.ini" srcSec="A" srcKey="long" dstKey="k3" dstEncrypt="1"/></t>)",
         {{kUser, "k2", "*" + sealedUtf8}, {kUser, "k3", ""}}, "",
         "etlTrace[3] pw_data_encrypt: a value of 89 bytes is too long to protect (at most 88)\n", true},
        {lockOn + "v\n", R"(<t><r $ dstKey="k2" dstEncrypt="1"/></t>)", {{kUser, "k2", ""}}, "",
         "app_log[60/4] Cannot use password key file [/etc/none.key]: No such file or directory; no password is "
         "protected or unprotected\n", true, "/etc/none.key"},
    };
    for (const auto& c : cases) {
        fresh();
        write(kUser, c.user);
        write(kSystem, "[Net]\nh=x\n");
        // "$" in a rule stands for the source A/k of the user file.
        std::string rules = c.rules;
        for (size_t at; (at = rules.find('$')) != std::string::npos;) rules.replace(at, 1, kSrc);
        if (!rules.empty()) write("/phone/resource/configTranslate.xml", rules);
        bool result = !c.result;
        if (c.keyFile) setenv("CFGUPGRADE_PW_KEYFILE", c.keyFile, 1);
        testing::internal::CaptureStdout();
        runStep([&] { result = translateConfig(); });
        std::fflush(stdout);
        unsetenv("CFGUPGRADE_PW_KEYFILE");
        EXPECT_EQ(testing::internal::GetCapturedStdout(), c.out) << c.rules;
        EXPECT_EQ(result, c.result) << c.rules;
        EXPECT_EQ(log(), c.log) << c.rules;
        for (const auto& e : c.expect) EXPECT_EQ(seen(valueOf(read(e.file), e.key)), e.value) << c.rules;
    }
}

TEST(ProtectValueTest, FollowsWhatTheRoutinesSay) {
    struct { std::string input; bool protect; int (*encrypt)(const char*, char*); std::string expected; } cases[] = {
        {"secret", false, fakeEncrypt, "secret"},
        {"secret", true, fakeEncrypt, "P(secret)"},
        {"P(secret)", true, fakeEncrypt, "P(secret)"},
        {"P()", true, fakeEncrypt, "P()"},
        {"P(caf\xc3\xa9)", true, fakeEncrypt, "P(P(caf\xc3\xa9))"},  // decrypts, but not to a value of ours
        {"secret", true, encryptToNothing, ""},
        {"too long to protect", true, refuseToEncrypt, ""},
    };
    for (const auto& c : cases)
        EXPECT_EQ(protectValue(c.input, c.protect, {c.encrypt, fakeDecrypt}), c.expected) << c.input;
}
