#include "migrations/features/features.h"
#include "store/xml_files.h"

namespace {

struct KeyLayoutFile {
    const char* path;
    const char* root;
};

// The line key, programmable key and expansion module layouts, in the order they are rewritten.
const KeyLayoutFile keyLayoutFiles[] = {
    {"/config/data/linekey.xml", "dsskey"},    {"/config/data/programkey.xml", "programkey"},
    {"/config/data/expkey0.xml", "dsskey"},    {"/config/data/expkey1.xml", "dsskey"},
    {"/config/data/expkey2.xml", "dsskey"},    {"/config/data/expkey3.xml", "dsskey"},
    {"/config/data/expkey4.xml", "dsskey"},    {"/config/data/expkey5.xml", "dsskey"},
};

// Key types whose derived parameters the current layout needs.
bool isPickupKey(int type) { return type == 14 || type == 16 || type == 55; }
bool isPhonebookKey(int type) { return type == 22 || type == 45 || type == 46 || type == 47 || type == 54; }
bool isHistoryKey(int type) { return type == 28; }

// An existing attribute keeps its place; a new one goes last.
pugi::xml_attribute attributeToWrite(pugi::xml_node node, const char* name) {
    pugi::xml_attribute attribute = node.attribute(name);
    return attribute ? attribute : node.append_attribute(name);
}

// Derives the parameters of one key from its "line" or "extension".
void rewriteKey(pugi::xml_node item) {
    pugi::xml_attribute typeAttribute = item.attribute("type");
    if (!typeAttribute) return;
    int type = typeAttribute.as_int(0);
    if (!isPickupKey(type) && !isPhonebookKey(type) && !isHistoryKey(type)) return;
    pugi::xml_node data = item.child("itemdata");
    if (!data) return;
    if (isPickupKey(type))
        attributeToWrite(data, "pickup_value").set_value(data.attribute("extension").as_string(""));
    else
        attributeToWrite(data, isPhonebookKey(type) ? "xml_phonebook" : "history_type")
            .set_value(data.attribute("line").as_int(0));
}

}  // namespace

// A file that is missing, not well-formed or has another root is left alone; a file
// whose root is found is saved even when no key changed.
void migrateKeyLayoutFiles() {
    for (const KeyLayoutFile& file : keyLayoutFiles) {
        pugi::xml_document doc;
        if (!store::loadXmlFile(file.path, doc)) continue;
        pugi::xml_node root = doc.child(file.root);
        if (!root) continue;
        for (pugi::xml_node item = root.child("item"); item; item = item.next_sibling("item")) rewriteKey(item);
        store::saveXmlFile(file.path, doc);
    }
}
