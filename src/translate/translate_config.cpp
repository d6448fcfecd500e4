#include <cstdio>
#include <string>

#include "platform/log.h"
#include "store/config_store.h"
#include "store/xml_files.h"
#include "translate/protect_value.h"
#include "translate/translate.h"
#include "translate/translate_rule.h"

namespace {

const char kRuleFile[] = "/phone/resource/configTranslate.xml";
const char kUserFile[] = "/config/user/user.ini";

// The lock is read once per run; an unreadable user file means the lock is off.
bool lockIsOn() {
    ETL_FileHelper::iniFile user;
    if (!user.LoadFromFile(kUserFile)) return false;
    return user.GetIntValue("PhoneSetting", "EnLock", 0) != 0;
}

// A file that cannot be loaded reads as the empty text, not as the default.
std::string readIniText(const std::string& file, const std::string& section, const std::string& key,
                        const std::string& def) {
    ETL_FileHelper::iniFile ini;
    if (!ini.LoadFromFile(file)) {
        std::printf("Can's load user's inifile [%s]!\n", file.c_str());
        return "";
    }
    return ini.GetTextValue(section, key, def);
}

// A rule without a complete source clears its destination, unprotected.
std::string readRuleValue(const TranslateRule& rule, bool protect) {
    if (rule.srcFile.empty() || rule.srcSec.empty() || rule.srcKey.empty()) return "";
    return protectValue(readIniText(rule.srcFile, rule.srcSec, rule.srcKey, ""), protect);
}

bool hasDestination(const TranslateRule& rule) {
    return !rule.dstFile.empty() && !rule.dstSec.empty() && !rule.dstKey.empty();
}

// False when the destination cannot be loaded: the run stops there. The source is
// read and released before the destination is loaded, so an in-place rule reads
// the file as it stood before the rule.
bool applyRule(const TranslateRule& rule, bool lockOn) {
    std::string value = readRuleValue(rule, lockOn && rule.dstEncrypt);
    ETL_FileHelper::iniFile destination;
    // A destination outside the writable areas is one that cannot be loaded (logged once).
    if (!store::mayWrite(rule.dstFile) || !destination.LoadFromFile(rule.dstFile)) {
        std::puts("Can's load user's inifile!");
        return false;
    }
    if (destination.SetTextValue(rule.dstSec, rule.dstKey, value)) destination.SaveToFile();
    return true;
}

}  // namespace

bool translateConfig() {
    if (!ETL_MiscHelper::pathFileExist(kRuleFile)) {
        app_log(60, 4, "The file [%s] not exist !\n", kRuleFile);
        return false;
    }
    bool lockOn = lockIsOn();
    pugi::xml_document doc;
    if (!store::loadXmlFile(kRuleFile, doc)) {
        app_log(60, 4, "Load translate file failed!\n");
        return false;
    }
    pugi::xml_node root = doc.first_child();
    if (!root) {
        app_log(60, 4, "No config translate record!\n");
        return false;
    }
    pugi::xml_node item = root.first_child();
    if (!item) {
        app_log(60, 4, "No found item!\n");
        return false;
    }
    // Every item is looked at in document order; one without a complete destination
    // is passed over without a word.
    for (; item; item = item.next_sibling()) {
        TranslateRule rule = parseTranslateRule(item);
        if (!hasDestination(rule)) continue;
        if (!applyRule(rule, lockOn)) return false;
    }
    return true;
}
