#include "passwords/passwords.h"
#include "platform/log.h"
#include "store/config_store.h"

namespace {

const char* statusWord(int lock) { return lock != 0 ? "encrypt" : "decrypt"; }

}  // namespace

// One document reads both files in turn; neither is saved.
int switchPasswordProtection() {
    ETL_FileHelper::iniFile settings;
    if (!settings.LoadFromFile("/config/user/user.ini")) {
        app_log(60, 4, "Can's load user's inifile!\n");
        return 0;
    }
    int userLock = settings.GetIntValue("PhoneSetting", "EnLock", 0);
    if (!settings.LoadFromFile("/phone/factory/user/user.ini")) {
        app_log(60, 4, "Can's load factory user's inifile!\n");
        return 0;
    }
    int factoryLock = settings.GetIntValue("PhoneSetting", "EnLock", 0);
    if ((userLock != 0) == (factoryLock != 0)) {
        app_log(60, 6, "No need trans password file !! Current status [%s]\n", statusWord(userLock));
        return 1;
    }
    // The factory setting is the form this firmware wants.
    return reencodeProtectedKeys(factoryLock != 0 ? kReencodeEncrypt : kReencodeDecrypt);
}
