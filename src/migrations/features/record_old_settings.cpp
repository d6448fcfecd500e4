#include "migrations/features/features.h"

namespace {

const char* const kVersionRecord = "/tmp/VersionInfo.cfg";
const char* const kOldFeatureKeys[] = {"BLFLedOffIdle", "BLfNotifyType", "ClosePowerLight", "PowerLedIdle&Talk",
                                       "PowerLedMail"};
const char* const kOldSyslogKeys[] = {"eLogType", "strServerName"};

// Copies the keys of one section of `source` into the same section of the record.
// A source that exists but cannot be read (logged by the store) is not recorded as
// empty: that section of the record is left for the next run.
template <size_t N>
void recordSection(const char* source, const char* section, const char* const (&keys)[N]) {
    if (store::unreadable(source)) return;
    HREGISTRY from = registryOpen(source, section);
    HREGISTRY record = registryOpen(kVersionRecord, section);
    for (const char* key : keys) copyRegistryString(from, record, key);
    registryFlush(record);
}

}  // namespace

void copyRegistryString(HREGISTRY src, HREGISTRY dst, const char* key) {
    if (!src || !dst || !key) return;
    registrySetString(dst, key, ETL_SubClass::registryGetString(src, key, ""));
}

// Every key is written, empty when the source lacks it, so the record says what the
// old configuration held. The sources are only read; each record section is flushed
// through its own handle, Features first.
void recordOldSettings() {
    recordSection("/config/user/user.ini", "Features", kOldFeatureKeys);
    recordSection("/config/system/system.ini", "Syslog", kOldSyslogKeys);
}
