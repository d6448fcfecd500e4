// The version record: written in mode 1, turned into the current settings in mode 2.
#include "migrations/accounts/accounts.h"
#include "migrations/features/features.h"
#include "support/phone_root.h"

#include <sstream>

using VersionRecord = PhoneRoot;

namespace {
const char* const kRecord = "/tmp/VersionInfo.cfg";
}

TEST_F(VersionRecord, RecordOldSettingsCopiesSevenKeysEmptyWhenMissing) {
    struct { const char* user; const char* system; const char* expected; } cases[] = {
        {"[Features]\nBLFLedOffIdle=1\nBLfNotifyType=0\nClosePowerLight=1\nPowerLedIdle&Talk=2\nPowerLedMail=3\nX=4\n",
         "[Syslog]\neLogType=3\n",
         "[Old]\nkeep=1\n[Features]\nBLFLedOffIdle=1\nBLfNotifyType=0\nClosePowerLight=1\nPowerLedIdle&Talk=2\n"
         "PowerLedMail=3\n[Syslog]\neLogType=3\nstrServerName=\n"},
        {nullptr, nullptr,
         "[Old]\nkeep=1\n[Features]\nBLFLedOffIdle=\nBLfNotifyType=\nClosePowerLight=\nPowerLedIdle&Talk=\n"
         "PowerLedMail=\n[Syslog]\neLogType=\nstrServerName=\n"},
    };
    for (const auto& c : cases) {
        SetUp();
        if (c.user) write("/config/user/user.ini", c.user);
        if (c.system) write("/config/system/system.ini", c.system);
        write(kRecord, "[Old]\nkeep=1\n");
        auto before = snapshot();
        runStep(recordOldSettings);
        EXPECT_EQ(read(kRecord), c.expected);
        EXPECT_EQ(snapshot().size(), before.size());  // the sources are neither created nor changed
        EXPECT_EQ(read("/config/user/user.ini"), c.user ? c.user : "");
        TearDown();
    }
    write(kRecord, "[Features]\n");
    HREGISTRY record = registryOpen(kRecord, "Features");
    copyRegistryString(nullptr, record, "BLFLedOffIdle");  // a null source or key copies nothing
    copyRegistryString(record, record, nullptr);
    registryFlush(record);
    commit();
    EXPECT_EQ(read(kRecord), "[Features]\n");
}

TEST_F(VersionRecord, BlfLedModeFromNotifyTypeAndOffIdle) {
    struct { const char* record; const char* mode; } cases[] = {
        {"BLfNotifyType=1\nBLFLedOffIdle=1\n", "1"},   {"BLfNotifyType=0\nBLFLedOffIdle=1\n", "2"},
        {"BLfNotifyType=2\nBLFLedOffIdle=0\n", "0"},   {"BLfNotifyType=1abc\nBLFLedOffIdle=5\n", "1"},
        {"BLfNotifyType=abc\nBLFLedOffIdle=2\n", "4"}, {"BLFLedOffIdle=3\n", "6"},
        {"BLFLedOffIdle=-1\n", "-2"},                  {"BLfNotifyType=\nBLFLedOffIdle=+3x\n", "6"},
        {"BLFLedOffIdle=\n", "0"},                     {"", "0"},
        {"BLFLedOffIdle=99999999999\n", "-2"},  // saturates to INT_MAX, doubled wraps
    };
    for (const auto& c : cases) {
        write("/config/user/user.ini", "[BLFLed]\nBLFLedMode=7\n");
        write(kRecord, std::string("[Features]\n") + c.record);
        store::reset();
        runStep(migrateBlfLedMode);
        EXPECT_EQ(read("/config/user/user.ini"), std::string("[BLFLed]\nBLFLedMode=") + c.mode + "\n") << c.record;
        EXPECT_EQ(read(kRecord), std::string("[Features]\n") + c.record);
    }
}

TEST_F(VersionRecord, PowerLedFromClosePowerLightMailAndIdleTalk) {
    const char* off = "[CallCenter]\nbEnableQueueStatusLight=0\n";
    struct { const char* record; const char* written; bool accountsOff; } cases[] = {
        {"", "", false},
        {"ClosePowerLight=1\nPowerLedMail=1\n", "Common=0 Ring=1 Mail=0 Mute=0 HoldHeld=0 TalkDial=0", true},
        {"ClosePowerLight=1\nPowerLedIdle&Talk=1\n", "Common=1 Ring=1 Mail=0 Mute=0 HoldHeld=0 TalkDial=1", true},
        {"ClosePowerLight=-1\nPowerLedIdle&Talk=0\n", "Common=0 Ring=1 Mail=0 Mute=0 HoldHeld=0 TalkDial=0", true},
        {"ClosePowerLight=0\nPowerLedIdle&Talk=0\n", "Common=1 TalkDial=1", false},
        {"ClosePowerLight=off\nPowerLedIdle&Talk=0\n", "Common=1 TalkDial=1", false},
        {"PowerLedIdle&Talk=0\n", "Common=0 TalkDial=0", false},
        {"ClosePowerLight=\nPowerLedMail=-3\nPowerLedIdle&Talk=4\n", "Mail=-3 Common=4 TalkDial=4", false},
        {"ClosePowerLight=0\nPowerLedMail=2\nPowerLedIdle&Talk=\n", "Mail=2", false},
    };
    for (const auto& c : cases) {
        write("/config/user/user.ini", "[PowerLed]\n");
        write(kRecord, std::string("[Features]\n") + c.record);
        write(accountFilePath(3), "[account]\n");
        write(accountFilePath(16), "[account]\n");
        store::reset();
        runStep(migratePowerLed);
        std::string expected = "[PowerLed]\n", key;
        for (std::istringstream keys(c.written); keys >> key;) expected += "PowerLed_" + key + "\n";
        EXPECT_EQ(read("/config/user/user.ini"), expected) << c.record;
        EXPECT_EQ(read(accountFilePath(3)), std::string("[account]\n") + (c.accountsOff ? off : "")) << c.record;
        EXPECT_EQ(read(accountFilePath(16)), "[account]\n");
        EXPECT_FALSE(exists(accountFilePath(0)));
    }
}

TEST_F(VersionRecord, SyslogMovesTypeAndServerTogether) {
    struct { const char* record; const char* system; } cases[] = {
        {"eLogType=2\nstrServerName=log.example.net\n", "LogType=1\nSyslogServer=log.example.net\n"},
        {"eLogType=1\nstrServerName=s\n", "LogType=0\nSyslogServer=s\n"},
        {"eLogType=0\nstrServerName=s\n", "LogType=-1\nSyslogServer=s\n"},
        {"eLogType=udp\nstrServerName=s\n", "LogType=-1\nSyslogServer=s\n"},
        {"eLogType=2\nstrServerName=\n", "LogType=9\n"},
        {"eLogType=2\n", "LogType=9\n"},
        {"strServerName=s\n", "LogType=9\n"},
    };
    for (const auto& c : cases) {
        write("/config/system/system.ini", "[Syslog]\nLogType=9\n");
        write(kRecord, std::string("[Syslog]\n") + c.record);
        store::reset();
        runStep(migrateSyslog);
        EXPECT_EQ(read("/config/system/system.ini"), std::string("[Syslog]\n") + c.system) << c.record;
    }
}

TEST_F(VersionRecord, ModeOneRecordsAndModeTwoMigratesTheExampleImage) {
    copyTree(CFGUPGRADE_EXAMPLES "/phone-root", root_);
    ASSERT_EQ(runTool({"1"}), 0);
    EXPECT_NE(read(kRecord).find("BLFLedOffIdle=1\nBLfNotifyType=0\n"), std::string::npos) << read(kRecord);
    ASSERT_EQ(runTool({"2"}), 0);
    std::string user = read("/config/user/user.ini");
    for (const char* line : {"BLFLedMode=2\n", "PowerLed_Mail=1\nPowerLed_Common=1\nPowerLed_TalkDial=1\n"})
        EXPECT_NE(user.find(line), std::string::npos) << user;
    EXPECT_NE(read("/config/system/system.ini").find("LogType=2\nSyslogServer=syslog.example.net\n"),
              std::string::npos);
}
