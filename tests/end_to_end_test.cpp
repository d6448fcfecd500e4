// The binary on a copy of the example phone image, mode after mode.
#include "support/phone_root.h"

using EndToEnd = PhoneRoot;

TEST_F(EndToEnd, TheExampleImageThroughEveryMode) {
    std::filesystem::copy(CFGUPGRADE_EXAMPLES "/phone-root", root_, std::filesystem::copy_options::recursive);
    const std::string voip = "/config/user/voip/", user = "/config/user/user.ini";
    // Every mode exits 0, and a second run changes nothing (but mode 2, which reinstalls
    // the factory account file 16 by design). The whole image would be a long diff.
    auto runTwice = [&](const std::vector<std::string>& args) {
        EXPECT_EQ(runTool(args), 0);
        auto first = snapshot();
        EXPECT_EQ(runTool(args), 0);
        EXPECT_TRUE(snapshot() == first) << (args.empty() ? "no mode" : args[0]);
    };
    runTwice({"1"});
    const std::string gathered = read(voip + "directip.cfg");
    EXPECT_NE(gathered.find("Label = Direct IP\n"), std::string::npos);
    EXPECT_FALSE(exists(voip + "sipAccount2.cfg"));

    // The old settings recorded by mode 1 reach their current keys; the direct-IP file is account 16.
    ASSERT_EQ(runTool({"2"}), 0);
    EXPECT_EQ(read(voip + "sipAccount16.cfg"), gathered);
    EXPECT_FALSE(exists(voip + "directip.cfg"));
    EXPECT_NE(read(user).find("BLFLedMode=2\n"), std::string::npos);
    EXPECT_NE(read("/config/system/system.ini").find("LogType=2\nSyslogServer=syslog.example.net\n"),
              std::string::npos);

    runTwice({"dev"});
    runTwice({"other"});
    runTwice({});
    EXPECT_NE(log().find(std::string("Usage: \n#") + CFGUPGRADE_BINARY + " [all|dev|pwd]\n"), std::string::npos);
    for (const std::string name : {"ExampleBackupCA.pem", "ExampleIssuingCA.pem", "ExampleRootCA.pem"})
        EXPECT_EQ(read("/config/certs/phoneca/" + name), read("/phone/factory/certs/phoneca/" + name));

    // The user lock is on and the factory lock off: "all" leaves the passwords plain.
    runTwice({"all"});
    auto formsOf = [&] {
        return seen(valueOf(read(voip + "sipAccount0.cfg"), "password")) + " " +
               seen(valueOf(read(voip + "sipAccount1.cfg"), "password")) + " " +
               seen(valueOf(read(user), "AdminPassword")) + " " + seen(valueOf(read(user), "UnlockPIN"));
    };
    EXPECT_EQ(formsOf(), "Recept!on;2024 supp=ort#7 admin#2024 *2580");
    EXPECT_NE(read(user).find("RingbackTimeout="), std::string::npos);

    // The other direction: the factory now asks for the protected form.
    write("/phone/factory/user/user.ini", "[PhoneSetting]\nEnLock = 1\n");
    std::string settings = read(user);
    write(user, settings.replace(settings.find("EnLock = 1"), 10, "EnLock = 0"));
    ASSERT_EQ(runTool({"pwd"}), 0);
    EXPECT_EQ(formsOf(), "*Recept!on;2024 *supp=ort#7 *admin#2024 *2580");
}
