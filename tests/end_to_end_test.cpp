// The binary on a copy of the example phone image.
#include "support/phone_root.h"

using EndToEnd = PhoneRoot;

TEST_F(EndToEnd, EveryModeExitsZeroAndASecondRunChangesNothing) {
    std::filesystem::copy(CFGUPGRADE_EXAMPLES "/phone-root", root_, std::filesystem::copy_options::recursive);
    for (const char* mode : {"1", "2", "all", "dev", "pwd", "other"}) {
        EXPECT_EQ(runTool({mode}), 0) << mode;
        auto afterFirst = snapshot();
        EXPECT_EQ(runTool({mode}), 0) << mode;
        // A second "2" finds no direct-IP file and installs the factory account file 16 again.
        if (std::string(mode) != "pwd" && std::string(mode) != "2") {
            EXPECT_EQ(snapshot(), afterFirst) << mode;
        }
    }
    EXPECT_NE(read("/config/user/user.ini").find("RingbackTimeout="), std::string::npos);
    // The old settings recorded by mode 1 reached their current keys in mode 2.
    EXPECT_NE(read("/config/user/user.ini").find("BLFLedMode=2\n"), std::string::npos);
    EXPECT_NE(read("/config/system/system.ini").find("LogType=2\nSyslogServer=syslog.example.net\n"),
              std::string::npos);
    EXPECT_EQ(runTool({}), 0);
}

TEST_F(EndToEnd, DirectIpAccountBecomesAccountSixteenAndMissingCertificatesArrive) {
    std::filesystem::copy(CFGUPGRADE_EXAMPLES "/phone-root", root_, std::filesystem::copy_options::recursive);
    const std::string voip = "/config/user/voip/";
    EXPECT_EQ(runTool({"1"}), 0);
    std::string gathered = read(voip + "directip.cfg");
    EXPECT_NE(gathered.find("Label = Direct IP\n"), std::string::npos);
    EXPECT_FALSE(exists(voip + "sipAccount2.cfg"));
    EXPECT_EQ(runTool({"2"}), 0);
    EXPECT_EQ(read(voip + "sipAccount16.cfg"), gathered);
    EXPECT_FALSE(exists(voip + "directip.cfg"));

    const std::string factory = "/phone/factory/certs/phoneca/", config = "/config/certs/phoneca/";
    EXPECT_EQ(runTool({"dev"}), 0);
    for (const char* name : {"ExampleBackupCA.pem", "ExampleIssuingCA.pem", "ExampleRootCA.pem"})
        EXPECT_EQ(read(config + name), read(factory + name)) << name;
    EXPECT_NE(log().find("app_log[60/6] Sync cert cp " + factory + "ExampleIssuingCA.pem " + config +
                         "ExampleIssuingCA.pem\n"),
              std::string::npos);
    EXPECT_EQ(log().find("ExampleRootCA.pem"), std::string::npos);
}
