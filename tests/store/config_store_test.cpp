// The four access families on one temporary root, and the atomic writer below them.
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <filesystem>

#include "store/config_store.h"
#include "support/phone_root.h"

using namespace ETL_FileHelper;

using StoreTest = PhoneRoot;

const char* const kUser = "/config/user/user.ini";

TEST_F(StoreTest, EveryCompletedWriteIsSeenByEveryFamily) {
    makeDir("/config/user");
    // Each writer sets Net/k to a new number; each reader must then see it.
    std::function<void(int)> writers[] = {
        [](int v) { etlSetProfileInt(kUser, "Net", "k", v); },
        [](int v) { etlSetRegistryInt(kUser, "Net", "k", v); },
        [](int v) { HREGISTRY h = registryOpen(kUser, "Net"); registrySetInt(h, "k", v); registryFlush(h); },
        [](int v) { iniFile f; f.LoadFromFile(kUser); f.SetTextValue("Net", "k", std::to_string(v)); f.SaveToFile(); },
    };
    std::function<int()> readers[] = {
        [] { return etlGetProfileInt(kUser, "Net", "k", -9); },
        [] { return etlGetRegistryInt(kUser, "Net", "k", -9); },
        [] { return std::atoi(ETL_SubClass::registryGetString(registryOpen(kUser, "Net"), "k", "").c_str()); },
        [] { iniFile f; return f.LoadFromFile(kUser) ? f.GetIntValue("Net", "k", -9) : -8; },
    };
    write(kUser, "[Net]\nk=0\n");
    int value = 0;
    for (auto& writeValue : writers)
        for (auto& readValue : readers) {
            writeValue(++value);
            EXPECT_EQ(readValue(), value);
        }
    store::commit();
    EXPECT_EQ(read(kUser), "[Net]\nk=" + std::to_string(value) + "\n");
}

TEST_F(StoreTest, ReadsGiveDefaultsAndSetsCreateFilesButNoDirectories) {
    write("/config/a.ini", "[S]\nnum=12ab\nword=abc\nempty=\nneg= -7\nhuge=99999999999\n");
    struct { const char* key; int expected; } cases[] = {
        {"num", 12}, {"word", 0}, {"empty", 5}, {"neg", -7}, {"missing", 5}, {"huge", 2147483647},
    };
    for (const auto& c : cases) EXPECT_EQ(etlGetProfileInt("/config/a.ini", "S", c.key, 5), c.expected) << c.key;
    EXPECT_EQ(etlGetProfileInt("/config/none.ini", "S", "num", 5), 5);
    EXPECT_EQ(ETL_SubClass::registryGetString(registryOpen("/none.ini", "S"), "k", "dflt"), "dflt");
    EXPECT_EQ(ETL_SubClass::registryGetString(nullptr, "k", "dflt"), "dflt");
    EXPECT_FALSE(registryFlush(nullptr));

    EXPECT_TRUE(etlSetProfileInt("/tmp/new.cfg", "S", "k", 1));
    EXPECT_FALSE(etlSetProfileInt("/no/such/dir/x.ini", "S", "k", 1));
    EXPECT_FALSE(etlSetProfileInt("/config/../escape.ini", "S", "k", 1));
    EXPECT_FALSE(etlSetProfileInt("relative.ini", "S", "k", 1));
    store::commit();
    EXPECT_EQ(read("/tmp/new.cfg"), "[S]\nk=1\n");
    EXPECT_FALSE(exists("/no"));
    EXPECT_FALSE(std::filesystem::exists(root_ + "/../escape.ini"));
}

TEST_F(StoreTest, TwoHandlesOnOneFileBothReachIt) {
    HREGISTRY features = registryOpen("/tmp/VersionInfo.cfg", "Features");
    HREGISTRY syslog = registryOpen("/tmp/VersionInfo.cfg", "Syslog");
    registrySetString(features, "BLFLedOffIdle", "1");
    registrySetString(syslog, "strServerName", "");
    registryFlush(features);
    registryFlush(syslog);
    store::commit();
    EXPECT_EQ(read("/tmp/VersionInfo.cfg"), "[Features]\nBLFLedOffIdle=1\n[Syslog]\nstrServerName=\n");
}

TEST_F(StoreTest, DocumentsLoadReplaceAndSaveWhereLoaded) {
    write(kUser, "[PhoneSetting]\nEnLock=1\n[Only]\nuser=1\n");
    write("/phone/factory/user/user.ini", "[PhoneSetting]\nEnLock=0\n");
    iniFile doc;
    EXPECT_EQ(doc.LoadFromFile("/config/missing.ini"), 0);
    ASSERT_NE(doc.LoadFromFile(kUser), 0);
    ASSERT_NE(doc.LoadFromFile("/phone/factory/user/user.ini"), 0);
    EXPECT_EQ(doc.GetTextValue("Only", "user", "gone"), "gone");
    EXPECT_NE(doc.SetTextValue("PhoneSetting", "EnLock", "2"), 0);
    EXPECT_NE(doc.SaveToFile(), 0);
    store::commit();
    EXPECT_EQ(read("/phone/factory/user/user.ini"), "[PhoneSetting]\nEnLock=2\n");

    // Walking the nodes: sections are 3, keys 2, other lines neither.
    write("/a.cfg", "top=1\n[S]\n; c\nk=?v\n[Empty]\n");
    iniFile walk;
    ASSERT_NE(walk.LoadFromFile("/a.cfg"), 0);
    std::string seen;
    for (iniObject* node : walk.objects()) {
        seen += std::to_string(node->type());
        if (node->type() == 3)
            for (iniObject* inner : static_cast<iniSection*>(node)->objects()) seen += std::to_string(inner->type());
    }
    EXPECT_EQ(seen, "23123");
}

TEST_F(StoreTest, AtomicWriterKeepsModeLeavesNoTempAndSkipsUnchangedBytes) {
    write(kUser, "[A]\nk=1\n");
    chmod(physical(kUser).c_str(), 0640);
    struct stat before;
    stat(physical(kUser).c_str(), &before);

    etlSetProfileInt(kUser, "A", "k", 1);  // same bytes: nothing may be written
    store::commit();
    struct stat same;
    stat(physical(kUser).c_str(), &same);
    EXPECT_EQ(same.st_ino, before.st_ino);

    etlSetProfileInt(kUser, "A", "k", 2);
    store::commit();
    struct stat after;
    stat(physical(kUser).c_str(), &after);
    EXPECT_NE(after.st_ino, before.st_ino);
    EXPECT_EQ(after.st_mode & 07777, 0640u);
    EXPECT_EQ(read(kUser), "[A]\nk=2\n");
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(physical("/config/user")), {}), 1);
}

TEST_F(StoreTest, FailedWriteLeavesTargetAndRemovesStaleTemporaries) {
    write(kUser, "[A]\nk=1\n");
    write("/config/user/.user.ini.cfgupgrade-AbC123", "left by a power cut");
    // A file size limit makes write() fail part-way, as a full disk would.
    signal(SIGXFSZ, SIG_IGN);
    rlimit old;
    getrlimit(RLIMIT_FSIZE, &old);
    rlimit tiny = {4096, old.rlim_max};
    setrlimit(RLIMIT_FSIZE, &tiny);
    iniFile doc;
    doc.LoadFromFile(kUser);
    doc.SetTextValue("A", "k", std::string(8192, 'x'));
    doc.SaveToFile();
    bool committed = store::commit();
    setrlimit(RLIMIT_FSIZE, &old);

    EXPECT_FALSE(committed);
    EXPECT_EQ(read(kUser), "[A]\nk=1\n");
    EXPECT_EQ(etlGetProfileInt(kUser, "A", "k", 0), 1);  // later reads see what the disk holds
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(physical("/config/user")), {}), 1);
    EXPECT_NE(log().find("app_log[60/4] Cannot write [/config/user/user.ini]: File too large"), std::string::npos);
}

TEST_F(StoreTest, CopiesReplaceAtomicallyAndReportFailure) {
    write("/src.cfg", "[account]\nx=1\n");
    write("/dst.cfg", "old");
    EXPECT_TRUE(store::copyFile("/dst.cfg", "/src.cfg"));
    EXPECT_EQ(read("/dst.cfg"), "[account]\nx=1\n");
    EXPECT_FALSE(store::copyFile("/dst.cfg", "/missing.cfg"));
    EXPECT_FALSE(store::copyFile("/no/dir/dst.cfg", "/src.cfg"));
    EXPECT_EQ(read("/dst.cfg"), "[account]\nx=1\n");
    EXPECT_NE(log().find("Cannot copy [/src.cfg] to [/no/dir/dst.cfg]"), std::string::npos);

    // A pending change to the source travels with the copy.
    etlSetProfileInt("/src.cfg", "account", "x", 2);
    ETL_SubClass::etlCopyFile("/dst.cfg", "/src.cfg");
    EXPECT_EQ(read("/dst.cfg"), "[account]\nx=2\n");
    EXPECT_TRUE(ETL_MiscHelper::pathFileExist("/dst.cfg"));
    EXPECT_TRUE(store::removeFile("/dst.cfg"));
    EXPECT_FALSE(ETL_MiscHelper::pathFileExist("/dst.cfg"));
}
