#include "migrations/features/features.h"
#include "migrations/features/recorded_number.h"

namespace {

// Notify type 1 selects mode 1; otherwise the mode is twice the off-idle number.
int blfLedMode(const std::string& offIdle, const std::string& notifyType) {
    if (!notifyType.empty() && recordedNumber(notifyType) == 1) return 1;
    // Doubled in unsigned arithmetic: an out-of-range number wraps instead of overflowing.
    return static_cast<int>(2u * static_cast<unsigned>(recordedNumber(offIdle)));
}

}  // namespace

// The mode is written and flushed on every run, 0 when the record holds neither key.
// A record that exists but cannot be read (logged by the store) holds keys nobody can
// see: the mode is left for the next run rather than set from defaults.
void migrateBlfLedMode() {
    if (store::unreadable("/tmp/VersionInfo.cfg")) return;
    HREGISTRY user = registryOpen("/config/user/user.ini", "BLFLed");
    HREGISTRY record = registryOpen("/tmp/VersionInfo.cfg", "Features");
    std::string offIdle = ETL_SubClass::registryGetString(record, "BLFLedOffIdle", "");
    std::string notifyType = ETL_SubClass::registryGetString(record, "BLfNotifyType", "");
    registrySetInt(user, "BLFLedMode", blfLedMode(offIdle, notifyType));
    registryFlush(user);
}
