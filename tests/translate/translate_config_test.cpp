// The translation step against a temporary phone root.
#include <cstdio>
#include <string>
#include <vector>

#include "platform/pw_data.h"
#include "support/phone_root.h"
#include "translate/translate.h"

namespace {

const char kRules[] = "/phone/resource/configTranslate.xml";
const char kUser[] = "/config/user/user.ini";
const char kSystem[] = "/config/system/system.ini";

// The value of the first line "key=..." of an INI text; "(absent)" without one.
std::string valueOf(const std::string& ini, const std::string& key) {
    size_t at = ("\n" + ini).find("\n" + key + "=");
    if (at == std::string::npos) return "(absent)";
    size_t start = at + key.size() + 1;
    return ini.substr(start, ini.find('\n', start) - start);
}

std::string plainOf(const std::string& value) {
    char plain[kPwDataBufferSize] = {};
    return pw_data_decrypt(value.c_str(), plain) == 0 ? plain : "(not protected)";
}

class TranslateConfig : public PhoneRoot {
protected:
    // Runs the step as the driver does; returns its result and what it printed.
    bool run(std::string& out) {
        bool result = false;
        testing::internal::CaptureStdout();
        runStep([&] { result = translateConfig(); });
        std::fflush(stdout);
        out = testing::internal::GetCapturedStdout();
        return result;
    }
};

}  // namespace

TEST_F(TranslateConfig, FilesThatStopTheStepBeforeAnyRule) {
    struct { const char* rules; const char* log; } cases[] = {
        {nullptr, "app_log[60/4] The file [/phone/resource/configTranslate.xml] not exist !\n"},
        {"<translate><rule srcFile=\"/a\"></translate>", "app_log[60/4] Load translate file failed!\n"},
        {"<translate>\n</translate>", "app_log[60/4] No found item!\n"},
    };
    for (const auto& c : cases) {
        SetUp();
        write(kUser, "[PhoneSetting]\nEnLock=1\n[A]\nk=v\n");
        if (c.rules) write(kRules, c.rules);
        auto before = snapshot();
        std::string out;
        EXPECT_FALSE(run(out));
        EXPECT_EQ(out, "");
        EXPECT_EQ(log(), c.log);
        EXPECT_EQ(snapshot(), before);
        TearDown();
    }
}

TEST_F(TranslateConfig, RulesByShapeSourceAndLock) {
    // A value "*v" stands for a protected form of v.
    struct Expect { const char* file; const char* key; std::string value; };
    struct {
        const char* name;
        std::string user;
        std::string rules;
        std::vector<Expect> expect;
        std::string out;
        bool result;
    } cases[] = {
        {"lock off: copied verbatim", "[PhoneSetting]\nEnLock=0\n[A]\nk=v\n",
         R"(<r srcFile="/config/user/user.ini" srcSec="A" srcKey="k" dstFile="/config/system/system.ini" dstSec="B" dstKey="k2" dstEncrypt="1"/>)",
         {{kSystem, "k2", "v"}}, "", true},
        {"no lock key: off", "[A]\nk=v\n", R"(<r srcFile="/config/user/user.ini" srcSec="A" srcKey="k" dstKey="k2" dstEncrypt="1"/>)",
         {{kUser, "k2", "v"}}, "", true},
        {"lock -1 is on: in place, protected", "[PhoneSetting]\nEnLock=-1\n[A]\nk=v\n",
         R"(<r srcFile="/config/user/user.ini" srcSec="A" srcKey="k" dstEncrypt="1"/>)", {{kUser, "k", "*v"}}, "", true},
        {"lock on, no dstEncrypt: verbatim", "[PhoneSetting]\nEnLock=2\n[A]\nk=v\n",
         R"(<r srcFile="/config/user/user.ini" srcSec="A" srcKey="k" dstEncrypt="0"/>)", {{kUser, "k", "v"}}, "", true},
        {"source key absent: empty", "[A]\nk=v\n",
         R"(<r srcFile="/config/user/user.ini" srcSec="A" srcKey="gone" dstFile="/config/system/system.ini"/>)",
         {{kSystem, "gone", ""}}, "", true},
        {"source file missing: message and empty", "[A]\nk=v\n",
         R"(<r srcFile="/config/none.ini" srcSec="A" srcKey="k" dstFile="/config/user/user.ini"/>)", {{kUser, "k", ""}},
         "Can's load user's inifile [/config/none.ini]!\n", true},
        {"no source: cleared", "[A]\nk=v\n", R"(<r dstFile="/config/user/user.ini" dstSec="A" dstKey="k"/>)",
         {{kUser, "k", ""}}, "", true},
        {"incomplete destination: skipped, source not loaded", "[A]\nk=v\n",
         R"(<r srcFile="/config/none.ini" srcSec="A"/>text<r/>)", {{kUser, "k", "v"}}, "", true},
        {"unloadable destination stops the run",
         "[A]\nk=v\n",
         R"(<r srcFile="/config/user/user.ini" srcSec="A" srcKey="k" dstKey="k1"/>
            <r srcFile="/config/user/user.ini" srcSec="A" srcKey="k" dstFile="/config/none.ini"/>
            <r srcFile="/config/user/user.ini" srcSec="A" srcKey="k" dstKey="k3"/>)",
         {{kUser, "k1", "v"}, {kUser, "k3", "(absent)"}}, "Can's load user's inifile!\n", false},
        {"later rules see earlier writes", "[A]\nk=v\n",
         R"(<r srcFile="/config/user/user.ini" srcSec="A" srcKey="k" dstFile="/config/system/system.ini" dstKey="k1"/>
            <r srcFile="/config/system/system.ini" srcSec="A" srcKey="k1" dstKey="k2"/>)",
         {{kSystem, "k1", "v"}, {kSystem, "k2", "v"}}, "", true},
        {"lock read once", "[PhoneSetting]\nEnLock=0\n[A]\nk=v\non=1\n",
         R"(<r srcFile="/config/user/user.ini" srcSec="A" srcKey="on" dstSec="PhoneSetting" dstKey="EnLock"/>
            <r srcFile="/config/user/user.ini" srcSec="A" srcKey="k" dstKey="k2" dstEncrypt="1"/>)",
         {{kUser, "k2", "v"}}, "", true},
        {"long names carried whole", "[A]\n" + std::string(500, 'n') + "=" + std::string(700, 'v') + "\n",
         "<r srcFile=\"/config/user/user.ini\" srcSec=\"A\" srcKey=\"" + std::string(500, 'n') + "\" dstKey=\"" +
             std::string(400, 'm') + "\"/>",
         {{kUser, std::string(400, 'm').c_str(), std::string(700, 'v')}}, "", true},
    };
    for (const auto& c : cases) {
        SetUp();
        write(kUser, c.user);
        write(kSystem, "[Net]\nh=x\n");
        write(kRules, "<translate>" + c.rules + "</translate>");
        std::string out;
        EXPECT_EQ(run(out), c.result) << c.name;
        EXPECT_EQ(out, c.out) << c.name;
        EXPECT_EQ(log(), "") << c.name;
        for (const auto& e : c.expect) {
            std::string value = valueOf(read(e.file), e.key);
            if (e.value.rfind('*', 0) == 0)
                EXPECT_EQ(plainOf(value), e.value.substr(1)) << c.name;
            else
                EXPECT_EQ(value, e.value) << c.name;
        }
        TearDown();
    }
}

TEST_F(TranslateConfig, ProtectedValuesAreNotProtectedTwice) {
    write(kUser, "[PhoneSetting]\nEnLock=1\n[A]\nk=v\n");
    write(kRules, R"(<t><r srcFile="/config/user/user.ini" srcSec="A" srcKey="k" dstEncrypt="1"/></t>)");
    std::string out;
    ASSERT_TRUE(run(out));
    std::string once = read(kUser);
    ASSERT_TRUE(run(out));
    EXPECT_EQ(read(kUser), once);
    EXPECT_EQ(plainOf(valueOf(once, "k")), "v");
}
