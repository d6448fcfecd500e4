// Feature setting migrations carried through the version record /tmp/VersionInfo.cfg.
#pragma once

#include "store/config_store.h"

// Mode 1: copies the old-layout Features and Syslog values into the version record.
void recordOldSettings();
// Copies one key's text from src to dst under the same name; nothing when a handle or
// the key is null. A missing key is copied as an empty value.
void copyRegistryString(HREGISTRY src, HREGISTRY dst, const char* key);
// Mode 2, with a version record:
void migrateBlfLedMode();
void migratePowerLed();
void migrateKeyLayoutFiles();
void migrateSyslog();
// Mode 2, always: renames the root of /config/softkey/Talking.xml; 1 when saved.
int renameTalkingSoftkey();
