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
    EXPECT_EQ(runTool({}), 0);
}
