// The version record: written in mode 1, turned into the current settings in mode 2.
#include "migrations/accounts/accounts.h"
#include "migrations/features/features.h"
#include "support/phone_root.h"

using VersionRecord = PhoneRoot;

TEST_F(VersionRecord, RecordHoldsSevenKeysEmptyWhereTheSourceLacksThem) {
    const char* user = "[Features]\nBLFLedOffIdle=1\nBLfNotifyType=0\nPowerLedIdle&Talk=2\nPowerLedMail=3\nX=4\n";
    write("/config/user/user.ini", user);
    write("/tmp/VersionInfo.cfg", "[Old]\nkeep=1\n");
    runStep(recordOldSettings);
    EXPECT_EQ(read("/tmp/VersionInfo.cfg"),
              "[Old]\nkeep=1\n[Features]\nBLFLedOffIdle=1\nBLfNotifyType=0\nClosePowerLight=\nPowerLedIdle&Talk=2\n"
              "PowerLedMail=3\n[Syslog]\neLogType=\nstrServerName=\n");
    EXPECT_EQ(read("/config/user/user.ini"), user);
    EXPECT_FALSE(exists("/config/system/system.ini"));
}

// Each row: the record, then the target file before and after the step.
TEST_F(VersionRecord, CurrentSettingsFromTheRecord) {
    const std::string lightOff = "PowerLed_Ring=1\nPowerLed_Mail=0\nPowerLed_Mute=0\nPowerLed_HoldHeld=0\n";
    struct { void (*step)(); const char* record; std::string before; std::string after; } cases[] = {
        {migrateBlfLedMode, "[Features]\nBLfNotifyType=0\nBLFLedOffIdle=1\n", "", "[BLFLed]\nBLFLedMode=2\n"},
        {migrateBlfLedMode, "[Features]\nBLfNotifyType=1abc\nBLFLedOffIdle=5\n", "", "[BLFLed]\nBLFLedMode=1\n"},
        {migrateBlfLedMode, "[Features]\nBLFLedOffIdle=99999999999\n", "", "[BLFLed]\nBLFLedMode=-2\n"},  // wraps
        {migrateBlfLedMode, "[Features]\n", "[BLFLed]\nBLFLedMode=7\n", "[BLFLed]\nBLFLedMode=0\n"},
        {migrateSyslog, "[Syslog]\neLogType=2\nstrServerName=log.example.net\n", "[Syslog]\nLogType=9\n",
         "[Syslog]\nLogType=1\nSyslogServer=log.example.net\n"},
        {migrateSyslog, "[Syslog]\neLogType=2\nstrServerName=\n", "[Syslog]\nLogType=9\n", "[Syslog]\nLogType=9\n"},
        {migrateSyslog, "[Syslog]\nstrServerName=s\n", "[Syslog]\nLogType=9\n", "[Syslog]\nLogType=9\n"},
        {migratePowerLed, "[Features]\n", "[PowerLed]\n", "[PowerLed]\n"},
        {migratePowerLed, "[Features]\nClosePowerLight=1\nPowerLedMail=1\nPowerLedIdle&Talk=1\n", "[PowerLed]\n",
         "[PowerLed]\nPowerLed_Common=1\n" + lightOff + "PowerLed_TalkDial=1\n"},
        {migratePowerLed, "[Features]\nClosePowerLight=2\n", "",
         "[PowerLed]\nPowerLed_Common=0\n" + lightOff + "PowerLed_TalkDial=0\n"},
        {migratePowerLed, "[Features]\nClosePowerLight=0\nPowerLedIdle&Talk=0\n", "",
         "[PowerLed]\nPowerLed_Common=1\nPowerLed_TalkDial=1\n"},
        {migratePowerLed, "[Features]\nPowerLedIdle&Talk=0\n", "",
         "[PowerLed]\nPowerLed_Common=0\nPowerLed_TalkDial=0\n"},
        {migratePowerLed, "[Features]\nClosePowerLight=\nPowerLedMail=-3\nPowerLedIdle&Talk=4\n", "",
         "[PowerLed]\nPowerLed_Mail=-3\nPowerLed_Common=4\nPowerLed_TalkDial=4\n"},
        {migratePowerLed, "[Features]\nClosePowerLight=0\nPowerLedMail=2\nPowerLedIdle&Talk=\n", "",
         "[PowerLed]\nPowerLed_Mail=2\n"},
    };
    for (const auto& c : cases) {
        fresh();
        const char* file = c.step == migrateSyslog ? "/config/system/system.ini" : "/config/user/user.ini";
        write(file, c.before);
        write("/tmp/VersionInfo.cfg", c.record);
        for (int n : {3, 16}) write(accountFilePath(n), "[account]\n");
        runStep(c.step);
        EXPECT_EQ(read(file), c.after) << c.record;
        EXPECT_EQ(read("/tmp/VersionInfo.cfg"), c.record);
        // With the power light off, the queue-status light goes dark in account files 0 to 15 that exist.
        bool dark = c.after.find(lightOff) != std::string::npos;
        EXPECT_EQ(read(accountFilePath(3)),
                  std::string("[account]\n") + (dark ? "[CallCenter]\nbEnableQueueStatusLight=0\n" : ""));
        EXPECT_EQ(read(accountFilePath(16)), "[account]\n");
        EXPECT_FALSE(exists(accountFilePath(0)));
    }
}
