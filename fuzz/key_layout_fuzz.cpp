// The key layout rewrite on any line key file: a file that is not a layout is left byte
// for byte; a rewritten file loads again, and rewriting it once more changes nothing.
#include <pugixml.hpp>

#include "driver.h"
#include "migrations/features/features.h"

static std::string rewrite(const std::string& bytes) {
    fuzz::plant("/config/data/linekey.xml", bytes);
    migrateKeyLayoutFiles();
    store::commit();
    return fuzz::readBack("/config/data/linekey.xml");
}

void fuzz::property(const std::string& input) {
    pugi::xml_document doc;
    bool layout = doc.load_buffer(input.data(), input.size()) && doc.child("dsskey");
    std::string once = rewrite(input);
    if (!layout && once != input) fail("a file that is not a line key layout was changed");
    if (layout && !doc.load_buffer(once.data(), once.size())) fail("a rewritten file does not load");
    if (layout && rewrite(once) != once) fail("a second rewrite changed the file");
}
