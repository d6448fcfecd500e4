// XML through the store: what pugixml's own file functions would read and write.
#include "store/xml_files.h"
#include "support/phone_root.h"

using XmlFiles = PhoneRoot;

TEST_F(XmlFiles, LoadsAndSavesAsPugixmlFileFunctionsWould) {
    write("/config/data/a.xml", "<?xml version=\"1.0\"?>\n<!-- dropped -->\n<root a=\"1\">\n  <item/>\n</root>\n");
    pugi::xml_document doc;
    ASSERT_TRUE(store::loadXmlFile("/config/data/a.xml", doc));
    ASSERT_TRUE(store::saveXmlFile("/config/data/a.xml", doc));
    EXPECT_EQ(read("/config/data/a.xml"), "<?xml version=\"1.0\"?>\n<root a=\"1\">\n\t<item />\n</root>\n");

    EXPECT_EQ(store::loadXmlFile("/config/data/missing.xml", doc).status, pugi::status_file_not_found);
    write("/config/data/bad.xml", "<root>");
    EXPECT_FALSE(store::loadXmlFile("/config/data/bad.xml", doc));
}
