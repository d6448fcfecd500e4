#include "migrations/features/features.h"

namespace {

const char* const kVersionRecord = "/tmp/VersionInfo.cfg";
const char* const kOldFeatureKeys[] = {"BLFLedOffIdle", "BLfNotifyType", "ClosePowerLight", "PowerLedIdle&Talk",
                                       "PowerLedMail"};
const char* const kOldSyslogKeys[] = {"eLogType", "strServerName"};

}  // namespace

void copyRegistryString(HREGISTRY src, HREGISTRY dst, const char* key) {
    if (!src || !dst || !key) return;
    registrySetString(dst, key, ETL_SubClass::registryGetString(src, key, ""));
}

// Every key is written, empty when the source lacks it, so the record says what the
// old configuration held. The sources are only read; each record section is flushed
// through its own handle, Features first.
void recordOldSettings() {
    HREGISTRY userFeatures = registryOpen("/config/user/user.ini", "Features");
    HREGISTRY recordFeatures = registryOpen(kVersionRecord, "Features");
    for (const char* key : kOldFeatureKeys) copyRegistryString(userFeatures, recordFeatures, key);
    registryFlush(recordFeatures);

    HREGISTRY systemSyslog = registryOpen("/config/system/system.ini", "Syslog");
    HREGISTRY recordSyslog = registryOpen(kVersionRecord, "Syslog");
    for (const char* key : kOldSyslogKeys) copyRegistryString(systemSyslog, recordSyslog, key);
    registryFlush(recordSyslog);
}
