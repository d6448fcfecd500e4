#include <cstdio>
#include <string>

#include "platform/log.h"
#include "platform/pw_data.h"
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

// Texts reused from rule to rule, so that a rule allocates nothing of its own.
struct RuleBuffers {
    std::string srcFile;
    std::string dstFile;
    std::string value;
    std::string scratch;
};

// A rule without a complete source clears its destination, unprotected. A source file
// that cannot be loaded reads as the empty text, not as the default. 0, or why the
// value could not be protected (the password routine's result).
int readRuleValue(const TranslateRule& rule, bool protect, RuleBuffers& buffers) {
    buffers.value.clear();
    if (rule.srcFile.empty() || rule.srcSec.empty() || rule.srcKey.empty()) return 0;
    buffers.srcFile.assign(rule.srcFile);
    buffers.scratch.clear();  // what an unloadable source reads as
    if (!store::readText(buffers.srcFile, rule.srcSec, rule.srcKey, buffers.scratch))
        std::printf("Can's load user's inifile [%s]!\n", buffers.srcFile.c_str());
    return protectValue(buffers.scratch, protect, buffers.value);
}

bool hasDestination(const TranslateRule& rule) {
    return !rule.dstFile.empty() && !rule.dstSec.empty() && !rule.dstKey.empty();
}

// Whether the destination loads and may be written, asked as a set would ask it, for a
// rule that sets nothing: the walk still stops where a set would have stopped it.
bool destinationLoads(const TranslateRule& rule, RuleBuffers& buffers) {
    return store::mayWrite(buffers.dstFile) && store::readText(buffers.dstFile, rule.dstSec, rule.dstKey, buffers.scratch);
}

// False when the destination cannot be loaded: the run stops there. The source is
// read into a text of its own before the destination is set, so an in-place rule
// reads the file as it stood before the rule. A value that cannot be protected leaves
// the destination as it was (erasing it, or storing it in clear, would lose or expose
// a password), with one line that says where and why, never the value.
// A destination that already protects the text this rule would store keeps its bytes:
// protecting again changes only the nonce, and would write the file on every boot.
bool destinationProtectsSame(const TranslateRule& rule, RuleBuffers& buffers) {
    return store::readText(buffers.dstFile, rule.dstSec, rule.dstKey, buffers.scratch) &&
           sameProtectedText(buffers.scratch, buffers.value);
}

bool applyRule(const TranslateRule& rule, bool lockOn, RuleBuffers& buffers) {
    bool protect = lockOn && rule.dstEncrypt;
    int unprotectable = readRuleValue(rule, protect, buffers);
    buffers.dstFile.assign(rule.dstFile);
    if (unprotectable) {
        if (!destinationLoads(rule, buffers)) {
            std::puts("Can's load user's inifile!");
            return false;
        }
        app_log(60, 4, "Cannot protect [%s] section [%.*s] key [%.*s]: %s; it is left as it was\n",
                buffers.dstFile.c_str(), static_cast<int>(rule.dstSec.size()), rule.dstSec.data(),
                static_cast<int>(rule.dstKey.size()), rule.dstKey.data(), pw_data_failure_reason(unprotectable));
        return true;
    }
    if (protect && store::mayWrite(buffers.dstFile) && destinationProtectsSame(rule, buffers)) return true;
    // A destination outside the writable areas is one that cannot be loaded (logged once).
    if (store::setText(buffers.dstFile, rule.dstSec, rule.dstKey, buffers.value) == store::TextSet::kFileRefused) {
        std::puts("Can's load user's inifile!");
        return false;
    }
    return true;
}

}  // namespace

bool translateConfig() {
    if (!ETL_MiscHelper::pathFileExist(kRuleFile)) {
        app_log(60, 4, "The file [%s] not exist !\n", kRuleFile);
        return false;
    }
    bool lockOn = lockIsOn();
    std::string bytes;  // the rule file, parsed in place: it must outlive the document
    pugi::xml_document doc;
    if (!store::loadXmlFileInPlace(kRuleFile, doc, bytes)) {
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
    RuleBuffers buffers;
    for (; item; item = item.next_sibling()) {
        TranslateRule rule = parseTranslateRule(item);
        if (!hasDestination(rule)) continue;
        if (!applyRule(rule, lockOn, buffers)) return false;
    }
    return true;
}
