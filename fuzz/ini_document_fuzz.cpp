// The INI text: loading then saving gives back every byte; any sequence of sets reads
// back as set, also after a save and a new load; a refused set changes nothing.
#include <fuzzer/FuzzedDataProvider.h>

#include <map>

#include "driver.h"
#include "store/ini_text.h"

using ETL_FileHelper::IniText;

void fuzz::property(const std::string& input) {
    FuzzedDataProvider data(reinterpret_cast<const uint8_t*>(input.data()), input.size());
    std::string bytes = data.ConsumeRandomLengthString(4096);
    IniText doc = IniText::parse(bytes);
    if (doc.serialize() != bytes) fail("load then save is not the identity");
    std::map<std::pair<std::string, std::string>, std::string> set;
    while (data.remaining_bytes() > 0) {
        std::string section = data.ConsumeRandomLengthString(12), key = data.ConsumeRandomLengthString(12),
                    value = data.ConsumeRandomLengthString(24), before = doc.serialize();
        if (doc.set(section, key, value)) set[{section, key}] = value;
        else if (doc.serialize() != before) fail("a refused set changed the document");
    }
    IniText reloaded = IniText::parse(doc.serialize());
    for (const auto& [name, value] : set)
        if (doc.find(name.first, name.second) != value || reloaded.find(name.first, name.second) != value)
            fail("a set value does not read back");
}
