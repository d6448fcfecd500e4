#include "migrations/accounts/accounts.h"
#include "store/config_store.h"

std::string accountFilePath(int n) { return "/config/user/voip/sipAccount" + std::to_string(n) + ".cfg"; }

void migrateScaLineKeyNumber() {
    for (int n = 16; n >= 0; --n) {
        std::string path = accountFilePath(n);
        if (!ETL_MiscHelper::pathFileExist(path)) continue;
        // -1 is both "missing" and the value written: the key becomes explicit.
        if (etlGetProfileInt(path, "account", "SCALineKeyNumber", -1) == -1)
            etlSetProfileInt(path, "account", "SCALineKeyNumber", -1);
    }
}
