// The binary on a copy of the example phone image.
#include "support/phone_root.h"

using EndToEnd = PhoneRoot;

TEST_F(EndToEnd, EveryModeExitsZeroAndASecondRunChangesNothing) {
    copyTree(CFGUPGRADE_EXAMPLES "/phone-root", root_);
    for (const char* mode : {"1", "2", "all", "dev", "pwd", "other"}) {
        EXPECT_EQ(runTool({mode}), 0) << mode;
        auto afterFirst = snapshot();
        EXPECT_EQ(runTool({mode}), 0) << mode;
        if (std::string(mode) != "pwd") {
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
