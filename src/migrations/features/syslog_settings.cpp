#include "migrations/features/features.h"
#include "migrations/features/recorded_number.h"

// The type and the server move together: a record holding only one of them changes nothing.
void migrateSyslog() {
    HREGISTRY system = registryOpen("/config/system/system.ini", "Syslog");
    HREGISTRY record = registryOpen("/tmp/VersionInfo.cfg", "Syslog");
    std::string logType = ETL_SubClass::registryGetString(record, "eLogType", "");
    std::string server = ETL_SubClass::registryGetString(record, "strServerName", "");
    if (logType.empty() || server.empty()) return;
    // The old type numbers start at 1, the current ones at 0. Unsigned: INT_MIN wraps.
    registrySetInt(system, "LogType", static_cast<int>(static_cast<unsigned>(recordedNumber(logType)) - 1u));
    registrySetString(system, "SyslogServer", server);
    registryFlush(system);
}
