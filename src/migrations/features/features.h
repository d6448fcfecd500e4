// Feature setting migrations carried through the version record /tmp/VersionInfo.cfg.
#pragma once

// Mode 1: copies the old-layout Features and Syslog values into the version record.
void recordOldSettings();
// Mode 2, with a version record:
void migrateBlfLedMode();
void migratePowerLed();
void migrateKeyLayoutFiles();
void migrateSyslog();
// Mode 2, always: renames the root of /config/softkey/Talking.xml; 1 when saved.
int renameTalkingSoftkey();
