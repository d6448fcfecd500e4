#include "record/secrets.h"

#include <list>
#include <string_view>

#include "platform/config_mapper.h"
#include "store/paths.h"
#include "store/xml_files.h"
#include "translate/translate_rule.h"

namespace record {

namespace {

const char kProtectedPrefix[] = "pw1:";
const char kRuleFile[] = "/phone/resource/configTranslate.xml";

std::string_view trimBlanks(std::string_view s) {
    while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
    while (!s.empty() && (s.back() == ' ' || s.back() == '\t' || s.back() == '\r')) s.remove_suffix(1);
    return s;
}

// Account entries name no file: they hold for every account file.
bool isAccountFile(const std::string& file) {
    size_t slash = file.rfind('/');
    std::string dir = file.substr(0, slash == std::string::npos ? 0 : slash);
    return dir.size() >= 5 && dir.compare(dir.size() - 5, 5, "/voip") == 0 && file.size() > 4 &&
           file.compare(file.size() - 4, 4, ".cfg") == 0;
}

}  // namespace

void Secrets::load() {
    CConfigMapper mapper;
    std::list<CIniConfigInfo*> entries;
    mapper.GetAllEncryptConfig(entries);
    for (const CIniConfigInfo* entry : entries) {
        if (!entry->strSection || !entry->strKey) continue;
        if (entry->bAccount) accountKeys_.insert({entry->strSection, entry->strKey});
        else if (entry->strFile)
            keys_.insert({store::fs::canonicalPath(entry->strFile), entry->strSection, entry->strKey});
    }
    pugi::xml_document doc;
    if (!store::loadXmlFile(kRuleFile, doc)) return;
    for (pugi::xml_node item = doc.first_child().first_child(); item; item = item.next_sibling()) {
        TranslateRule rule = parseTranslateRule(item);
        if (rule.dstEncrypt)
            keys_.insert({store::fs::canonicalPath(rule.dstFile), std::string(rule.dstSec), std::string(rule.dstKey)});
    }
}

bool Secrets::isSecret(const std::string& file, const std::string& section, const std::string& key) const {
    return keys_.count({store::fs::canonicalPath(file), section, key}) ||
           (isAccountFile(file) && accountKeys_.count({section, key}));
}

std::string Secrets::shown(const std::string& file, const std::string& section, const std::string& key,
                           const std::string& value) const {
    if (value.empty()) return value;
    if (value.compare(0, sizeof kProtectedPrefix - 1, kProtectedPrefix) == 0) return "(protected)";
    return isSecret(file, section, key) ? "(masked)" : value;
}

void Secrets::mask(Change& change) const {
    if (!change.section || !change.key) return;
    for (std::optional<std::string>* value : {&change.oldValue, &change.newValue}) {
        if (!*value) continue;
        std::string shownValue = shown(change.file, *change.section, *change.key, **value);
        if (shownValue != **value) change.masked = true;
        **value = std::move(shownValue);
    }
}

std::string Secrets::maskText(const std::string& file, const std::string& bytes) const {
    std::string out, section;
    out.reserve(bytes.size());
    for (size_t pos = 0; pos < bytes.size();) {
        size_t end = bytes.find('\n', pos);
        end = end == std::string::npos ? bytes.size() : end + 1;
        std::string_view line(bytes.data() + pos, end - pos);
        pos = end;
        std::string_view text = trimBlanks(line.substr(0, line.find('\n')));
        size_t close = text.find(']');
        if (!text.empty() && text.front() == '[' && close != std::string_view::npos) {
            section = std::string(trimBlanks(text.substr(1, close - 1)));
        } else if (size_t eq = line.find('='); eq != std::string_view::npos) {
            std::string key(trimBlanks(line.substr(0, eq)));
            std::string_view rest = line.substr(eq + 1);
            size_t ending = rest.find_last_not_of("\r\n");
            std::string_view tail = ending == std::string_view::npos ? rest : rest.substr(ending + 1);
            std::string value(trimBlanks(rest.substr(0, rest.size() - tail.size())));
            std::string masked = shown(file, section, key, value);
            if (masked != value) {
                size_t blanks = rest.find_first_not_of(" \t");
                out.append(line.substr(0, eq + 1)).append(rest.substr(0, blanks)).append(masked).append(tail);
                continue;
            }
        }
        out.append(line);
    }
    return out;
}

}  // namespace record
