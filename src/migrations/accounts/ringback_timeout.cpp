#include "migrations/accounts/accounts.h"
#include "store/config_store.h"

void migrateRingbackTimeout() {
    const char* userFile = "/config/user/user.ini";
    if (etlGetProfileInt(userFile, "Feature", "RingbackTimeout", -1) != -1) return;
    // Account file 0 alone is consulted; missing, it gives the default 180.
    int cancelTimer = etlGetProfileInt(accountFilePath(0), "account", "CancelTimer", 180);
    etlSetProfileInt(userFile, "Feature", "RingbackTimeout", cancelTimer);
}
