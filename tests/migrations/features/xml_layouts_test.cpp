// Key layout and talking softkey files: input document, step, expected document.
#include "migrations/features/features.h"
#include "support/phone_root.h"

using XmlLayouts = PhoneRoot;

TEST_F(XmlLayouts, KeyLayoutsGetDerivedAttributesInFilesWithTheirRoot) {
    const char* keys = "<dsskey><item type=\"47\"><itemdata line=\"2\" xml_phonebook=\"5\" label=\"a\"/></item>"
                       "<item type=\"22\"><itemdata label=\"b\"/></item><item type=\"28\"><itemdata line=\"3\"/></item>"
                       "<item type=\"16\"><itemdata extension=\"21\"/></item>"
                       "<item type=\"55\"><itemdata pickup_value=\"o\"/></item><item type=\"15\"><itemdata line=\"1\"/>"
                       "</item><group><item type=\"22\"><itemdata/></item></group><key type=\"22\"><itemdata/></key>"
                       "</dsskey>";
    const char* migrated =
        "<?xml version=\"1.0\"?>\n<dsskey>\n"
        "\t<item type=\"47\">\n\t\t<itemdata line=\"2\" xml_phonebook=\"2\" label=\"a\" />\n\t</item>\n"
        "\t<item type=\"22\">\n\t\t<itemdata label=\"b\" xml_phonebook=\"0\" />\n\t</item>\n"
        "\t<item type=\"28\">\n\t\t<itemdata line=\"3\" history_type=\"3\" />\n\t</item>\n"
        "\t<item type=\"16\">\n\t\t<itemdata extension=\"21\" pickup_value=\"21\" />\n\t</item>\n"
        "\t<item type=\"55\">\n\t\t<itemdata pickup_value=\"\" />\n\t</item>\n"
        "\t<item type=\"15\">\n\t\t<itemdata line=\"1\" />\n\t</item>\n"
        "\t<group>\n\t\t<item type=\"22\">\n\t\t\t<itemdata />\n\t\t</item>\n\t</group>\n"
        "\t<key type=\"22\">\n\t\t<itemdata />\n\t</key>\n</dsskey>\n";
    struct { const char* path; const char* before; const char* after; } cases[] = {
        {"/config/data/linekey.xml", keys, migrated},
        {"/config/data/programkey.xml", keys, keys},  // another root: left alone
        {"/config/data/expkey0.xml", "<!-- c -->\n<dsskey>\n  <x/>\n</dsskey>",  // saved though unchanged
         "<?xml version=\"1.0\"?>\n<dsskey>\n\t<x />\n</dsskey>\n"},
        {"/config/data/expkey1.xml", "<dsskey><item type=\"22\">", "<dsskey><item type=\"22\">"},
    };
    for (const auto& c : cases) write(c.path, c.before);
    runStep(migrateKeyLayoutFiles);
    for (const auto& c : cases) EXPECT_EQ(read(c.path), c.after) << c.path;
    EXPECT_FALSE(exists("/config/data/expkey2.xml"));
}

TEST_F(XmlLayouts, TalkingSoftkeyRootIsRenamedOnce) {
    const char* talk = "<?xml version=\"1.0\"?>\n<Talk version=\"1\">\n\t<softkey index=\"0\" />\n</Talk>\n";
    const char* noFile = "No File[/config/softkey/Talking.xml]!\n";
    struct { const char* before; const char* after; const char* out; int result; } cases[] = {
        {"<!-- c --><OnTalk version=\"1\">\n  <softkey index=\"0\"/>\n</OnTalk>", talk, "", 1},
        {talk, talk, "No Node[OnTalk]!\n", 0},
        {"<Softkeys><OnTalk/></Softkeys>", "<Softkeys><OnTalk/></Softkeys>", "No Node[OnTalk]!\n", 0},
        {"<OnTalk>", "<OnTalk>", noFile, 0},
        {nullptr, "", noFile, 0},
    };
    for (const auto& c : cases) {
        fresh();
        if (c.before) write("/config/softkey/Talking.xml", c.before);
        testing::internal::CaptureStdout();
        EXPECT_EQ(renameTalkingSoftkey(), c.result);
        store::commit();
        EXPECT_EQ(testing::internal::GetCapturedStdout(), c.out);
        EXPECT_EQ(read("/config/softkey/Talking.xml"), c.after);
    }
}
