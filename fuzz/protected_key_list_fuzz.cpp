// The protected-key list: every element below the root is one entry whose fields are
// its attributes; re-encoding by any list changes no file the list does not name, and
// re-encoding into the protected form and back gives every plain value back.
#include <pugixml.hpp>

#include <cstring>
#include <list>
#include <set>

#include "fuzz_root.h"
#include "passwords/passwords.h"
#include "platform/config_mapper.h"
#include "platform/pw_data.h"
#include "store/config_store.h"
#include "store/files.h"

namespace {

const char* const kFiles[][2] = {
    {"/config/user/user.ini", "[PhoneSetting]\nAdminPassword = admin\nUnlockPIN = 2580\nLong = " 
                              "0123456789012345678901234567890123456789012345678901234567890123456789\n"},
    {"/config/user/voip/sipAccount0.cfg", "[account]\r\npassword = s3cret;x\r\nLabel = Reception\r\n"},
    {"/config/user/voip/sipAccount2.cfg", "[account]\npassword =\nAuthName = 1003\n"},
    {"/config/system/system.ini", "[Network]\nstrPassword = net#pw\n"},
};

bool sameText(const char* field, const pugi::xml_attribute& attribute) {
    return attribute ? field && std::strcmp(field, attribute.value()) == 0 : field == nullptr;
}

// Checks the entries against the list file; returns the files the entries name.
std::set<std::string> checkEntries(const std::string& bytes) {
    CConfigMapper mapper;
    std::list<CIniConfigInfo*> entries;
    pugi::xml_document doc;
    bool loads = doc.load_buffer(bytes.data(), bytes.size(), pugi::parse_default, pugi::encoding_auto) && doc.document_element();
    if ((mapper.GetAllEncryptConfig(entries) != 0) != loads) fuzz::fail("list file loads differently");
    std::set<std::string> named;
    auto entry = entries.begin();
    if (!loads) return named;
    for (pugi::xml_node node = doc.document_element().first_child(); node; node = node.next_sibling()) {
        if (node.type() != pugi::node_element) continue;
        if (entry == entries.end()) fuzz::fail("an element without an entry");
        const CIniConfigInfo& info = **entry++;
        if (!sameText(info.strFile, node.attribute("file")) || !sameText(info.strSection, node.attribute("section")) ||
            !sameText(info.strKey, node.attribute("key")) || !sameText(info.strDefault, node.attribute("default")))
            fuzz::fail("entry texts differ from the attributes");
        if (info.bAccount != (std::strcmp(node.attribute("account").value(), "1") == 0) ||
            info.bEncrypt != (std::strcmp(node.attribute("encrypt").as_string("1"), "0") != 0))
            fuzz::fail("entry flags differ from the attributes");
        if (!info.bEncrypt) continue;
        if (info.bAccount)
            for (int n = 0; n <= 3; ++n) named.insert("/config/user/voip/sipAccount" + std::to_string(n) + ".cfg");
        else if (info.strFile)
            named.insert(store::fs::canonicalPath(info.strFile));
    }
    if (entry != entries.end()) fuzz::fail("an entry without an element");
    return named;
}

// A value that goes into protected form and comes back whole.
bool roundTrips(std::string_view value) {
    char plain[kPwDataBufferSize] = {};
    return !value.empty() && value.size() <= kPwDataLongestPlain && pw_data_decrypt(std::string(value).c_str(), plain) != 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string bytes(reinterpret_cast<const char*>(data), size);
    fuzz::freshRoot();
    for (const auto& file : kFiles) fuzz::plant(file[0], file[1]);
    fuzz::plant("/phone/resource/encryptConfig.xml", bytes);
    std::set<std::string> named = checkEntries(bytes);

    reencodeProtectedKeys(kReencodeEncrypt);
    store::commit();
    reencodeProtectedKeys(kReencodeDecrypt);
    store::commit();
    for (const auto& file : kFiles) {
        std::string now = fuzz::readBack(file[0]);
        if (!named.count(file[0]) && now != file[1]) fuzz::fail("a file the list does not name changed");
        auto before = ETL_FileHelper::IniText::parse(file[1]), after = ETL_FileHelper::IniText::parse(now);
        for (const char* section : {"PhoneSetting", "account", "Network"})
            for (const char* key : {"AdminPassword", "UnlockPIN", "Long", "password", "Label", "AuthName", "strPassword"}) {
                auto was = before.find(section, key);
                auto is = after.find(section, key);
                if (was && roundTrips(*was) && (!is || *is != *was)) fuzz::fail("a value did not come back from protection");
            }
    }
    return 0;
}
