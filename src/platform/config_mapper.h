// The platform's list of protected configuration keys, as this tool's stand-in.
//
// The list is read from /phone/resource/encryptConfig.xml: every child element of
// the root element is one entry, in document order, whatever its name. Attributes
// "file", "section", "key" and "default" give the texts (absent: null); account="1"
// marks a key of the SIP account files; encrypt="0" marks an entry to be skipped.
#pragma once

#include <pugixml.hpp>

#include <list>
#include <memory>
#include <vector>

// One protected key. The texts are owned by the mapper that listed the entry.
struct CIniConfigInfo {
    int nId;  // position in the list file; not read by the tool
    const char* strDefault;
    const char* strFile;
    const char* strSection;
    const char* strKey;
    unsigned char bAccount;
    unsigned char bEncrypt;
};

class CConfigMapper {
public:
    CConfigMapper();
    ~CConfigMapper();
    CConfigMapper(const CConfigMapper&) = delete;
    CConfigMapper& operator=(const CConfigMapper&) = delete;

    // Appends the protected entries to `entries`; they stay valid while the mapper
    // lives. 0 when the list file is missing or not well-formed.
    int GetAllEncryptConfig(std::list<CIniConfigInfo*>& entries);

    // The same from a list document the caller has loaded: 0 when it has no root
    // element. `nodes`, when given, gets the element each entry was read from.
    int ReadEncryptConfig(const pugi::xml_document& doc, std::list<CIniConfigInfo*>& entries,
                          std::vector<pugi::xml_node>* nodes = nullptr);

private:
    struct Entry;
    std::vector<std::unique_ptr<Entry>> entries_;
};
