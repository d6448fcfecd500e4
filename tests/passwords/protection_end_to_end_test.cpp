// The binary on the example image: rule protection and the switch, in each direction.
#include "support/password_values.h"
#include "support/phone_root.h"

using ProtectionEndToEnd = PhoneRoot;

TEST_F(ProtectionEndToEnd, TheExampleImageSwitchesFormWithTheFactoryLock) {
    std::filesystem::copy(CFGUPGRADE_EXAMPLES "/phone-root", root_, std::filesystem::copy_options::recursive);
    const std::pair<std::string, std::string> passwords[] = {
        {"/config/user/voip/sipAccount0.cfg", "password"}, {"/config/user/voip/sipAccount1.cfg", "password"},
        {"/config/user/user.ini", "AdminPassword"}};
    auto formsOf = [&] {
        std::string forms;
        for (const auto& p : passwords) forms += seen(valueOf(read(p.first), p.second)) + " ";
        return forms + seen(valueOf(read("/config/user/user.ini"), "UnlockPIN"));
    };
    ASSERT_EQ(runTool({"all"}), 0);
    EXPECT_EQ(formsOf(), "Recept!on;2024 supp=ort#7 admin#2024 *2580");

    // The other direction: the factory now asks for the protected form.
    write("/phone/factory/user/user.ini", "[PhoneSetting]\nEnLock = 1\n");
    std::string user = read("/config/user/user.ini");
    write("/config/user/user.ini", user.replace(user.find("EnLock = 1"), 10, "EnLock = 0"));
    ASSERT_EQ(runTool({"pwd"}), 0);
    EXPECT_EQ(formsOf(), "*Recept!on;2024 *supp=ort#7 *admin#2024 *2580");
}
