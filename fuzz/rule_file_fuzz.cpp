// The rule file: every rule element reads as its attributes say, with the destination
// defaulted field by field from the source; and applying the file on a small phone
// root changes no file that no complete rule names as its destination.
#include <pugixml.hpp>

#include <set>

#include "fuzz_root.h"
#include "store/config_store.h"
#include "store/files.h"
#include "translate/translate.h"
#include "translate/translate_rule.h"

namespace {

const char* const kFiles[][2] = {
    {"/config/user/user.ini", "[PhoneSetting]\nEnLock = 1\nUnlockPIN = 2580\n[Ringer]\nstrRingFile = Ring3.wav\n"},
    {"/config/system/system.ini", "; system\r\n[Network]\r\nstrHostName = desk\r\n"},
    {"/config/user/voip/sipAccount0.cfg", "[account]\nLabel = Reception\npassword = s3cret;x\n"},
};

std::string attribute(const pugi::xml_node& node, const char* name) { return node.attribute(name).as_string(""); }

std::string defaulted(const std::string& dst, const std::string& src) { return dst.empty() ? src : dst; }

// Checks one rule against its attributes; returns the destination a complete rule names.
std::string checkRule(const pugi::xml_node& item) {
    TranslateRule rule = parseTranslateRule(item);
    std::string srcFile = attribute(item, "srcFile"), srcSec = attribute(item, "srcSec"), srcKey = attribute(item, "srcKey");
    if (rule.srcFile != srcFile || rule.srcSec != srcSec || rule.srcKey != srcKey) fuzz::fail("source fields");
    if (rule.dstFile != defaulted(attribute(item, "dstFile"), srcFile) ||
        rule.dstSec != defaulted(attribute(item, "dstSec"), srcSec) || rule.dstKey != defaulted(attribute(item, "dstKey"), srcKey))
        fuzz::fail("destination fields");
    if (rule.dstEncrypt != (item.attribute("dstEncrypt") && attribute(item, "dstEncrypt") == "1")) fuzz::fail("dstEncrypt");
    return rule.dstSec.empty() || rule.dstKey.empty() ? "" : store::fs::canonicalPath(rule.dstFile);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string bytes(reinterpret_cast<const char*>(data), size);
    std::set<std::string> destinations;
    pugi::xml_document doc;
    if (doc.load_buffer(bytes.data(), bytes.size(), pugi::parse_default, pugi::encoding_auto))
        for (pugi::xml_node item = doc.first_child().first_child(); item; item = item.next_sibling())
            destinations.insert(checkRule(item));

    for (const auto& file : kFiles) fuzz::plant(file[0], file[1]);
    fuzz::plant("/phone/resource/configTranslate.xml", bytes);
    translateConfig();
    store::commit();
    for (const auto& file : kFiles)
        if (!destinations.count(file[0]) && fuzz::readBack(file[0]) != file[1]) fuzz::fail("a file no rule names changed");
    return 0;
}
