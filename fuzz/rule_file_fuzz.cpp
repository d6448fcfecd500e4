// The rule file, applied to a small phone root: whatever the rules, a file that no
// attribute of the rule file names (in any spelling) keeps its bytes.
#include <pugixml.hpp>

#include <set>

#include "driver.h"
#include "store/config_store.h"
#include "store/paths.h"
#include "translate/translate.h"

static const char* const kFiles[][2] = {
    {"/config/user/user.ini", "[PhoneSetting]\nEnLock = 1\nUnlockPIN = 2580\n[Ringer]\nstrRingFile = Ring3.wav\n"},
    {"/config/system/system.ini", "; system\r\n[Network]\r\nstrHostName = desk\r\n"},
    {"/config/user/voip/sipAccount0.cfg", "[account]\nLabel = Reception\npassword = s3cret;x\n"},
};

void fuzz::property(const std::string& input) {
    std::set<std::string> named;
    pugi::xml_document doc;
    doc.load_buffer(input.data(), input.size());
    for (pugi::xml_node item = doc.first_child().first_child(); item; item = item.next_sibling())
        for (pugi::xml_attribute a : item.attributes()) named.insert(store::fs::canonicalPath(a.value()));
    for (const auto& file : kFiles) plant(file[0], file[1]);
    plant("/phone/resource/configTranslate.xml", input);
    translateConfig();
    store::commit();
    for (const auto& file : kFiles)
        if (!named.count(file[0]) && readBack(file[0]) != file[1]) fail("a file no rule names changed");
}
