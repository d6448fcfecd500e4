// The version record: written in mode 1, turned into the current settings in mode 2.
#include "migrations/accounts/accounts.h"
#include "migrations/features/features.h"
#include "support/phone_root.h"

#include <sstream>

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

// Each row: the record's section, then the target file before and after the step.
TEST_F(VersionRecord, BlfLedAndSyslogFromTheRecord) {
    struct { void (*step)(); const char* record; const char* before; const char* after; } cases[] = {
        {migrateBlfLedMode, "[Features]\nBLfNotifyType=1\nBLFLedOffIdle=1\n", "", "[BLFLed]\nBLFLedMode=1\n"},
        {migrateBlfLedMode, "[Features]\nBLfNotifyType=0\nBLFLedOffIdle=1\n", "", "[BLFLed]\nBLFLedMode=2\n"},
        {migrateBlfLedMode, "[Features]\nBLfNotifyType=1abc\nBLFLedOffIdle=5\n", "", "[BLFLed]\nBLFLedMode=1\n"},
        {migrateBlfLedMode, "[Features]\nBLfNotifyType=abc\nBLFLedOffIdle=2\n", "", "[BLFLed]\nBLFLedMode=4\n"},
        {migrateBlfLedMode, "[Features]\nBLfNotifyType=\nBLFLedOffIdle=+3x\n", "", "[BLFLed]\nBLFLedMode=6\n"},
        {migrateBlfLedMode, "[Features]\nBLFLedOffIdle=-1\n", "", "[BLFLed]\nBLFLedMode=-2\n"},
        {migrateBlfLedMode, "[Features]\nBLFLedOffIdle=99999999999\n", "", "[BLFLed]\nBLFLedMode=-2\n"},  // wraps
        {migrateBlfLedMode, "[Features]\n", "[BLFLed]\nBLFLedMode=7\n", "[BLFLed]\nBLFLedMode=0\n"},
        {migrateSyslog, "[Syslog]\neLogType=2\nstrServerName=log.example.net\n", "[Syslog]\nLogType=9\n",
         "[Syslog]\nLogType=1\nSyslogServer=log.example.net\n"},
        {migrateSyslog, "[Syslog]\neLogType=udp\nstrServerName=s\n", "", "[Syslog]\nLogType=-1\nSyslogServer=s\n"},
        {migrateSyslog, "[Syslog]\neLogType=2\nstrServerName=\n", "[Syslog]\nLogType=9\n", "[Syslog]\nLogType=9\n"},
        {migrateSyslog, "[Syslog]\nstrServerName=s\n", "[Syslog]\nLogType=9\n", "[Syslog]\nLogType=9\n"},
    };
    for (const auto& c : cases) {
        const char* file = c.step == migrateSyslog ? "/config/system/system.ini" : "/config/user/user.ini";
        write(file, c.before);
        write("/tmp/VersionInfo.cfg", c.record);
        store::reset();
        runStep(c.step);
        EXPECT_EQ(read(file), c.after) << c.record;
        EXPECT_EQ(read("/tmp/VersionInfo.cfg"), c.record);
    }
}

TEST_F(VersionRecord, PowerLedAndQueueStatusLightOfExistingAccountsUpTo15) {
    struct { const char* record; const char* written; bool lightOff; } cases[] = {
        {"", "", false},
        {"ClosePowerLight=1\nPowerLedMail=1\n", "Common=0 Ring=1 Mail=0 Mute=0 HoldHeld=0 TalkDial=0", true},
        {"ClosePowerLight=1\nPowerLedIdle&Talk=1\n", "Common=1 Ring=1 Mail=0 Mute=0 HoldHeld=0 TalkDial=1", true},
        {"ClosePowerLight=0\nPowerLedIdle&Talk=0\n", "Common=1 TalkDial=1", false},
        {"ClosePowerLight=off\nPowerLedIdle&Talk=0\n", "Common=1 TalkDial=1", false},
        {"PowerLedIdle&Talk=0\n", "Common=0 TalkDial=0", false},
        {"ClosePowerLight=\nPowerLedMail=-3\nPowerLedIdle&Talk=4\n", "Mail=-3 Common=4 TalkDial=4", false},
        {"ClosePowerLight=0\nPowerLedMail=2\nPowerLedIdle&Talk=\n", "Mail=2", false},
    };
    for (const auto& c : cases) {
        write("/config/user/user.ini", "[PowerLed]\n");
        write("/tmp/VersionInfo.cfg", std::string("[Features]\n") + c.record);
        for (int n : {3, 16}) write(accountFilePath(n), "[account]\n");
        store::reset();
        runStep(migratePowerLed);
        std::string expected = "[PowerLed]\n", key;
        for (std::istringstream keys(c.written); keys >> key;) expected += "PowerLed_" + key + "\n";
        EXPECT_EQ(read("/config/user/user.ini"), expected) << c.record;
        EXPECT_EQ(read(accountFilePath(3)),
                  std::string("[account]\n") + (c.lightOff ? "[CallCenter]\nbEnableQueueStatusLight=0\n" : ""));
        EXPECT_EQ(read(accountFilePath(16)), "[account]\n");
        EXPECT_FALSE(exists(accountFilePath(0)));
    }
}
