// Checks of the protected-key list, each reading the entries as CConfigMapper makes them.
#include <algorithm>
#include <map>
#include <string>
#include <tuple>

#include "lint/lint.h"
#include "lint/names.h"
#include "store/paths.h"

namespace lint {

namespace {

const std::vector<std::string_view> kListAttributes = {"default", "file", "section", "key", "account", "encrypt"};

void checkParts(const XmlInput& input, size_t place, const CIniConfigInfo& entry, Findings& out) {
    std::string missing;
    if (!entry.bAccount && !entry.strFile) missing += "file";
    if (!entry.strSection) missing += missing.empty() ? "section" : ", section";
    if (!entry.strKey) missing += missing.empty() ? "key" : ", key";
    if (!missing.empty())
        out.add(input, place, "key-list-missing-part",
                "entry without " + missing + ": the protection switch passes over it");
}

// The two flags read one exact text each; any other text is the other meaning.
void checkValues(const XmlInput& input, const pugi::xml_node& node, Findings& out) {
    struct Flag {
        const char* name;
        const char* meaning;
    } flags[] = {{"account", "the tool reads it as account=\"0\" (the file named by 'file')"},
                 {"encrypt", "the tool reads it as encrypt=\"1\" (re-encoded)"}};
    for (const Flag& flag : flags) {
        pugi::xml_attribute a = node.attribute(flag.name);
        std::string_view value = a.value();
        if (a && value != "1" && value != "0")
            out.add(
                input, input.placeOf(a, node), "key-list-value",
                std::string(flag.name) + "=\"" + std::string(value) + "\" is neither \"1\" nor \"0\": " + flag.meaning);
    }
}

void checkAttributeNames(const XmlInput& input, const pugi::xml_node& node, Findings& out) {
    for (pugi::xml_attribute a : node.attributes()) {
        std::string_view name = a.name();
        if (std::find(kListAttributes.begin(), kListAttributes.end(), name) != kListAttributes.end()) continue;
        std::string_view meant = closestName(name, kListAttributes);
        out.add(input, input.placeOf(a, node), "key-list-attribute",
                "'" + std::string(name) + "' is not read by the tool" +
                    (meant.empty() ? std::string() : " (meant '" + std::string(meant) + "'?)"));
    }
}

// An entry's key: the account files' section and key, or a file's path, section and key.
std::tuple<bool, std::string, std::string, std::string> keyOf(const CIniConfigInfo& entry) {
    return {entry.bAccount != 0, entry.bAccount || !entry.strFile ? "" : store::fs::canonicalPath(entry.strFile),
            entry.strSection ? entry.strSection : "", entry.strKey ? entry.strKey : ""};
}

}  // namespace

void checkKeyList(const XmlInput& input, const KeyList& keys, Findings& out) {
    std::map<std::tuple<bool, std::string, std::string, std::string>, size_t> first;
    size_t i = 0;
    for (const CIniConfigInfo* entry : keys.entries) {
        const pugi::xml_node& node = keys.nodes[i++];
        size_t place = input.placeOf(node);
        checkAttributeNames(input, node, out);
        checkValues(input, node, out);
        checkParts(input, place, *entry, out);
        if (!entry->strSection || !entry->strKey) continue;
        auto [earlier, isNew] = first.emplace(keyOf(*entry), place);
        if (isNew) continue;
        out.add(Finding(input, place, "key-list-duplicate", "this key is listed by an earlier entry too")
                    .withNote(input, earlier->second, "the earlier entry"));
    }
}

}  // namespace lint
