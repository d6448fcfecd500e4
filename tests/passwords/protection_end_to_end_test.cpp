// The binary switching stored passwords: the example image, and both directions in turn.
#include <string>

#include "platform/pw_data.h"
#include "support/phone_root.h"

namespace {

// The value of the first line "key = ..." or "key=..." of an INI text.
std::string valueOf(const std::string& ini, const std::string& key) {
    for (const std::string& lead : {key + " = ", key + "="}) {
        size_t at = ini.find("\n" + lead);
        if (at != std::string::npos) return ini.substr(at + 1 + lead.size(), ini.find('\n', at + 1) - at - 1 - lead.size());
    }
    return "(absent)";
}

std::string plainOf(const std::string& value) {
    char out[kPwDataBufferSize] = {};
    return pw_data_decrypt(value.c_str(), out) == 0 ? out : "(not protected)";
}

using ProtectionEndToEnd = PhoneRoot;

}  // namespace

TEST_F(ProtectionEndToEnd, TheExampleImageProtectsByRuleAndUnprotectsByTheFactoryLock) {
    copyTree(CFGUPGRADE_EXAMPLES "/phone-root", root_);
    ASSERT_EQ(runTool({"all"}), 0);
    std::string user = read("/config/user/user.ini");
    EXPECT_EQ(plainOf(valueOf(user, "UnlockPIN")), "2580");
    EXPECT_EQ(valueOf(user, "AdminPassword"), "admin#2024");
    EXPECT_EQ(valueOf(read("/config/user/voip/sipAccount0.cfg"), "password"), "Recept!on;2024");
    EXPECT_EQ(valueOf(read("/config/user/voip/sipAccount1.cfg"), "password"), "supp=ort#7");
}

TEST_F(ProtectionEndToEnd, ARunInEachDirectionRestoresEveryValue) {
    const std::string tooLong(kPwDataLongestPlain + 1, 'L');
    // Account files carry SCALineKeyNumber so that only the passwords can change.
    const std::pair<std::string, std::string> listed[] = {
        {"/config/user/voip/sipAccount0.cfg", "[account]\nSCALineKeyNumber = 1\npassword = Recept!on;2024\n"},
        {"/config/user/voip/sipAccount1.cfg", "[account]\r\nSCALineKeyNumber=1\r\npassword=" + tooLong + "\r\n"},
        {"/config/user/voip/sipAccount3.cfg", "[account]\nSCALineKeyNumber = 1\npassword =\n"},
        {"/config/user/voip/sipAccount5.cfg", "[account]\nSCALineKeyNumber = 1\npassword = five\n"},
        {"/config/system/system.ini", "; admin\n[Web]\nAdmin = caf\xc3\xa9 #1\nUser = u=1;x\n"},
    };
    for (const auto& file : listed) write(file.first, file.second);
    write("/phone/resource/encryptConfig.xml", R"(<list>
        <i account="1" section="account" key="password"/>
        <i file="/config/system/system.ini" section="Web" key="Admin"/>
        <i file="/config/system/system.ini" section="Web" key="User"/></list>)");
    auto setLocks = [&](int user, int factory) {
        write("/config/user/user.ini", "[PhoneSetting]\nEnLock=" + std::to_string(user) + "\n");
        write("/phone/factory/user/user.ini", "[PhoneSetting]\nEnLock=" + std::to_string(factory) + "\n");
    };

    setLocks(0, 1);
    ASSERT_EQ(runTool({"pwd"}), 0);
    EXPECT_EQ(plainOf(valueOf(read(listed[0].first), "password")), "Recept!on;2024");
    EXPECT_EQ(read(listed[1].first), listed[1].second) << "too long to protect: kept";
    EXPECT_EQ(plainOf(valueOf(read(listed[4].first), "Admin")), "caf\xc3\xa9 #1");
    EXPECT_EQ(plainOf(valueOf(read(listed[4].first), "User")), "u=1;x");
    auto encrypted = snapshot();
    ASSERT_EQ(runTool({"pwd"}), 0);
    EXPECT_EQ(snapshot(), encrypted) << "nothing is protected twice";

    setLocks(1, 0);
    ASSERT_EQ(runTool({"pwd"}), 0);
    for (const auto& file : listed) EXPECT_EQ(read(file.first), file.second) << file.first;
}
