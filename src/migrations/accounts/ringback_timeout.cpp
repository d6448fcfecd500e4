#include "migrations/accounts/accounts.h"
#include "store/config_store.h"

void migrateRingbackTimeout() {
    const char* userFile = "/config/user/user.ini";
    if (etlGetProfileInt(userFile, "Feature", "RingbackTimeout", -1) != -1) return;
    // Account file 0 alone is consulted; missing, it gives the default 180. One that
    // exists but cannot be read is not a missing one: its timer is unknown, so nothing
    // is seeded (the failed read is logged) and the next run tries again.
    std::string account0 = accountFilePath(0);
    if (store::unreadable(account0)) return;
    int cancelTimer = etlGetProfileInt(account0, "account", "CancelTimer", 180);
    etlSetProfileInt(userFile, "Feature", "RingbackTimeout", cancelTimer);
}
