// The list of protected keys: whatever it lists, protecting every listed key and then
// unprotecting it gives back every value the files held.
#include "driver.h"
#include "passwords/passwords.h"
#include "store/config_store.h"

static const char* const kFiles[][2] = {
    {"/config/user/user.ini", "[PhoneSetting]\nAdminPassword = admin\nUnlockPIN = 2580\nLong = "
                              "0123456789012345678901234567890123456789012345678901234567890123456789\n"},
    {"/config/user/voip/sipAccount0.cfg", "[account]\r\npassword = s3cret;x\r\nLabel = Reception\r\n"},
    {"/config/user/voip/sipAccount2.cfg", "[account]\npassword =\nAuthName = 1003\n"},
    {"/config/system/system.ini", "[Network]\nstrPassword = net#pw\n"},
};

static void reencodeWith(const std::string& list, int mode) {
    fuzz::plant("/phone/resource/encryptConfig.xml", list);
    reencodeProtectedKeys(mode);
    store::commit();
}

void fuzz::property(const std::string& input) {
    // The step keeps its last file loaded for the whole process, as on the phone; a
    // failed load is what makes it forget, so each input starts with one.
    reencodeWith("<l><i file=\"/none.ini\" section=\"s\" key=\"k\"/></l>", kReencodeDecrypt);
    for (const auto& file : kFiles) plant(file[0], file[1]);
    reencodeWith(input, kReencodeEncrypt);
    reencodeWith(input, kReencodeDecrypt);
    for (const auto& file : kFiles) {
        auto before = ETL_FileHelper::IniText::parse(file[1]), after = ETL_FileHelper::IniText::parse(readBack(file[0]));
        for (const char* section : {"PhoneSetting", "account", "Network"})
            for (const char* key : {"AdminPassword", "UnlockPIN", "Long", "password", "Label", "AuthName", "strPassword"})
                if (before.find(section, key) && after.find(section, key) != before.find(section, key))
                    fail("a value did not come back from protection");
    }
}
