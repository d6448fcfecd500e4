#include "platform/config_mapper.h"

#include <pugixml.hpp>

#include <cstring>
#include <optional>
#include <string>

#include "store/xml_files.h"

namespace {

const char kListFile[] = "/phone/resource/encryptConfig.xml";

std::optional<std::string> attributeText(const pugi::xml_node& node, const char* name) {
    pugi::xml_attribute attribute = node.attribute(name);
    if (!attribute) return std::nullopt;
    return std::string(attribute.value());
}

}  // namespace

// An entry and the texts its pointers point into; it never moves once made.
struct CConfigMapper::Entry {
    CIniConfigInfo info{};
    std::optional<std::string> texts[4];

    explicit Entry(const pugi::xml_node& node, int id) {
        const char* names[] = {"default", "file", "section", "key"};
        const char** fields[] = {&info.strDefault, &info.strFile, &info.strSection, &info.strKey};
        for (int i = 0; i < 4; ++i) {
            texts[i] = attributeText(node, names[i]);
            *fields[i] = texts[i] ? texts[i]->c_str() : nullptr;
        }
        info.nId = id;
        info.bAccount = std::strcmp(node.attribute("account").value(), "1") == 0;
        pugi::xml_attribute encrypt = node.attribute("encrypt");
        info.bEncrypt = !(encrypt && std::strcmp(encrypt.value(), "0") == 0);
    }
};

CConfigMapper::CConfigMapper() = default;
CConfigMapper::~CConfigMapper() = default;

int CConfigMapper::GetAllEncryptConfig(std::list<CIniConfigInfo*>& entries) {
    pugi::xml_document doc;
    if (!store::loadXmlFile(kListFile, doc)) return 0;
    return ReadEncryptConfig(doc, entries);
}

int CConfigMapper::ReadEncryptConfig(const pugi::xml_document& doc, std::list<CIniConfigInfo*>& entries,
                                     std::vector<pugi::xml_node>* nodes) {
    pugi::xml_node root = doc.document_element();
    if (!root) return 0;
    for (pugi::xml_node node = root.first_child(); node; node = node.next_sibling()) {
        if (node.type() != pugi::node_element) continue;
        entries_.push_back(std::make_unique<Entry>(node, static_cast<int>(entries_.size())));
        entries.push_back(&entries_.back()->info);
        if (nodes) nodes->push_back(node);
    }
    return 1;
}
