#include <cstdio>

#include "migrations/features/features.h"
#include "store/xml_files.h"

// Only a top-level "OnTalk" is renamed, so a layout already migrated is left as it is
// and the step can run at every start.
int renameTalkingSoftkey() {
    const char* path = "/config/softkey/Talking.xml";
    pugi::xml_document doc;
    if (!store::loadXmlFile(path, doc)) {
        std::printf("No File[%s]!\n", path);
        return 0;
    }
    pugi::xml_node talking = doc.child("OnTalk");
    if (talking.empty()) {
        std::printf("No Node[%s]!\n", "OnTalk");
        return 0;
    }
    talking.set_name("Talk");
    store::saveXmlFile(path, doc);
    return 1;
}
