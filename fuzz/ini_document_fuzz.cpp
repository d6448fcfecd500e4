// The INI document: loading then saving gives back every input byte for byte, and any
// sequence of sets is read back as set, before and after a save and a new load; a set
// that is refused changes nothing.
#include <fuzzer/FuzzedDataProvider.h>

#include <map>
#include <utility>

#include "fuzz_root.h"
#include "store/ini_text.h"

using ETL_FileHelper::IniText;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider input(data, size);
    std::string bytes = input.ConsumeRandomLengthString(4096);
    IniText doc = IniText::parse(bytes);
    if (doc.serialize() != bytes) fuzz::fail("load then save is not the identity");

    std::map<std::pair<std::string, std::string>, std::string> set;
    while (input.remaining_bytes() > 0) {
        std::string section = input.ConsumeRandomLengthString(12);
        std::string key = input.ConsumeRandomLengthString(12);
        std::string value = input.ConsumeRandomLengthString(24);
        std::string before = doc.serialize();
        if (doc.set(section, key, value))
            set[{section, key}] = value;
        else if (doc.serialize() != before)
            fuzz::fail("a refused set changed the document");
    }
    IniText reloaded = IniText::parse(doc.serialize());
    for (const auto& [name, value] : set) {
        auto now = doc.find(name.first, name.second);
        auto again = reloaded.find(name.first, name.second);
        if (!now || *now != value) fuzz::fail("a set value does not read back");
        if (!again || *again != value) fuzz::fail("a set value does not read back after save and load");
    }
    return 0;
}
