// The key layout rewrite on any line key file: a file that does not load or has
// another root is left byte for byte; a rewritten file loads again, and rewriting it
// once more changes nothing.
#include <pugixml.hpp>

#include "fuzz_root.h"
#include "migrations/features/features.h"

namespace {

const char kLineKeys[] = "/config/data/linekey.xml";

std::string rewrite(const std::string& bytes) {
    fuzz::plant(kLineKeys, bytes);
    migrateKeyLayoutFiles();
    store::commit();
    return fuzz::readBack(kLineKeys);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string bytes(reinterpret_cast<const char*>(data), size);
    pugi::xml_document doc;
    bool rewritable = doc.load_buffer(bytes.data(), bytes.size(), pugi::parse_default, pugi::encoding_auto) &&
                      doc.child("dsskey");
    std::string once = rewrite(bytes);
    if (!rewritable) {
        if (once != bytes) fuzz::fail("a file that is not a line key layout was changed");
        return 0;
    }
    pugi::xml_document again;
    if (!again.load_buffer(once.data(), once.size(), pugi::parse_default, pugi::encoding_auto))
        fuzz::fail("a rewritten file does not load");
    if (rewrite(once) != once) fuzz::fail("a second rewrite changed the file");
    return 0;
}
