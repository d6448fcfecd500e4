// The four access families on one temporary root, and the atomic writer below them.
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/xattr.h>

#include <cstring>
#include <iostream>
#include <map>

#include "support/phone_root.h"

using namespace ETL_FileHelper;

using StoreTest = PhoneRoot;

const char* const kUser = "/config/user/user.ini";

TEST_F(StoreTest, EveryCompletedWriteIsSeenByEveryFamily) {
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

// The store changes a file's content in place when nobody else holds it; a document
// that does must keep the content it loaded, and unsaved values stay in the document.
TEST_F(StoreTest, ADocumentSeesWhatItLoadedAndSetUntilItLoadsAgain) {
    write(kUser, "[Net]\nk=0\n");
    iniFile early, writer;
    early.LoadFromFile(kUser);
    writer.LoadFromFile(kUser);
    writer.SetTextValue("Net", "k", "1");
    EXPECT_EQ(writer.GetIntValue("Net", "k", -9), 1);
    EXPECT_EQ(etlGetProfileInt(kUser, "Net", "k", -9), 0) << "not saved yet";
    for (int v = 1; v <= 3; ++v) {  // the second and third saves change the store's copy in place
        writer.SetTextValue("Net", "k", std::to_string(v));
        writer.SaveToFile();
        EXPECT_EQ(etlGetProfileInt(kUser, "Net", "k", -9), v);
    }
    etlSetProfileInt(kUser, "Net", "k", 4);
    EXPECT_EQ(writer.GetIntValue("Net", "k", -9), 3) << "a path-addressed set does not reach a loaded document";
    EXPECT_EQ(early.GetIntValue("Net", "k", -9), 0);
    writer.SetTextValue("Net", "other", "x");
    writer.SaveToFile();  // saves the whole document: its k=3 wins over the set of 4
    store::commit();
    EXPECT_EQ(read(kUser), "[Net]\nk=3\nother=x\n");
}

TEST_F(StoreTest, ReadsGiveDefaultsAndSetsCreateFilesButNoDirectories) {
    write("/config/a.ini", "[S]\nnum=12ab\nword=abc\nempty=\nneg= -7\nhuge=99999999999\n");
    struct { const char* key; int expected; } cases[] = {
        {"num", 12}, {"word", 0}, {"empty", 5}, {"neg", -7}, {"missing", 5}, {"huge", 2147483647},
    };
    for (const auto& c : cases) EXPECT_EQ(etlGetProfileInt("/config/a.ini", "S", c.key, 5), c.expected) << c.key;

    EXPECT_TRUE(etlSetProfileInt("/config/new.cfg", "S", "k", 1));
    for (const char* refused : {"/config/no/dir/x.ini", "relative.ini", "/tmp/other.cfg", "/config/../escape.ini"})
        EXPECT_FALSE(etlSetProfileInt(refused, "S", "k", 1)) << refused;
    store::commit();
    EXPECT_EQ(read("/config/new.cfg"), "[S]\nk=1\n");
    EXPECT_FALSE(exists("/config/no"));
    EXPECT_FALSE(exists("/escape.ini"));
}

TEST_F(StoreTest, AtomicWriterKeepsModeSkipsUnchangedBytesAndFailsLeavingTheTarget) {
    write(kUser, "[A]\nk=1\n");
    write("/config/user/.cfgupgrade-AbC12345", "left by a power cut");
    chmod(physical(kUser).c_str(), 0640);
    auto statOf = [&] { struct stat st {}; stat(physical(kUser).c_str(), &st); return st; };
    auto entries = [&] { return std::distance(std::filesystem::directory_iterator(physical("/config/user")), {}); };
    ino_t before = statOf().st_ino;
    etlSetProfileInt(kUser, "A", "k", 1);  // same bytes, through either path: nothing may be written
    store::commit();
    store::writeFile(kUser, "[A]\nk=1\n");
    EXPECT_EQ(statOf().st_ino, before);

    etlSetProfileInt(kUser, "A", "k", 2);
    EXPECT_TRUE(store::commit());
    EXPECT_NE(statOf().st_ino, before);
    EXPECT_EQ(statOf().st_mode & 07777, 0640u);
    EXPECT_EQ(entries(), 1) << "no temporary file is left, stale or new";

    // A file size limit makes write() fail part-way, as a full disk would.
    signal(SIGXFSZ, SIG_IGN);
    rlimit old;
    getrlimit(RLIMIT_FSIZE, &old);
    rlimit tiny = {4096, old.rlim_max};
    setrlimit(RLIMIT_FSIZE, &tiny);
    HREGISTRY big = registryOpen(kUser, "A");
    registrySetString(big, "k", std::string(8192, 'x'));
    registryFlush(big);
    bool committed = store::commit();
    setrlimit(RLIMIT_FSIZE, &old);
    EXPECT_FALSE(committed);
    EXPECT_EQ(read(kUser), "[A]\nk=2\n");
    EXPECT_EQ(etlGetProfileInt(kUser, "A", "k", 0), 2);  // later reads see what the disk holds
    EXPECT_EQ(entries(), 1);
    EXPECT_NE(log().find("app_log[60/4] Cannot write [/config/user/user.ini]: File too large"), std::string::npos);
}

TEST_F(StoreTest, CopiesCarryPendingChangesReplaceWhatWasLoadedAndReportFailure) {
    write("/config/src.cfg", "[account]\nx=1\n");
    write("/config/dst.cfg", "[account]\nx=0\n");
    EXPECT_EQ(etlGetProfileInt("/config/dst.cfg", "account", "x", -1), 0);
    etlSetProfileInt("/config/src.cfg", "account", "x", 2);
    EXPECT_TRUE(store::copyFile("/config/dst.cfg", "/config/src.cfg"));
    EXPECT_EQ(read("/config/dst.cfg"), "[account]\nx=2\n");
    EXPECT_EQ(etlGetProfileInt("/config/dst.cfg", "account", "x", -1), 2);

    EXPECT_FALSE(store::copyFile("/config/dst.cfg", "/config/missing.cfg"));
    EXPECT_FALSE(store::copyFile("/config/no/dir/dst.cfg", "/config/src.cfg"));
    EXPECT_EQ(read("/config/dst.cfg"), "[account]\nx=2\n");
    EXPECT_NE(log().find("app_log[60/4] Cannot copy [/config/src.cfg] to [/config/no/dir/dst.cfg]"), std::string::npos);
    EXPECT_TRUE(store::removeFile("/config/dst.cfg"));
    EXPECT_FALSE(ETL_MiscHelper::pathFileExist("/config/dst.cfg"));
}

TEST_F(StoreTest, PathsNamingOneFileShareItsChanges) {
    write("/config/a.ini", "[S]\n");
    makeDir("/config/sub");
    etlSetProfileInt("/config//a.ini", "S", "x", 1);
    etlSetProfileInt("/config/./a.ini", "S", "y", 2);
    etlSetProfileInt("/config/sub/../a.ini", "S", "z", 3);
    EXPECT_EQ(etlGetProfileInt("/config/a.ini", "S", "x", 0), 1);
    store::commit();
    EXPECT_EQ(read("/config/a.ini"), "[S]\nx=1\ny=2\nz=3\n");
}

// Every extended attribute of a file, by name; ACLs and labels are attributes too.
static std::map<std::string, std::string> attributesOf(const std::string& path) {
    std::map<std::string, std::string> out;
    char names[4096];
    ssize_t size = llistxattr(path.c_str(), names, sizeof names);
    for (ssize_t at = 0; at < size; at += static_cast<ssize_t>(std::strlen(names + at)) + 1) {
        char value[4096];
        ssize_t n = lgetxattr(path.c_str(), names + at, value, sizeof value);
        out[names + at] = std::string(value, n > 0 ? static_cast<size_t>(n) : 0);
    }
    return out;
}

TEST_F(StoreTest, ARewriteOrACopyKeepsTheReplacedFilesAttributes) {
    write(kUser, "[A]\nk=1\n");
    write("/config/src.cfg", "[S]\nfrom=src\n");
    write("/config/dst.cfg", "[D]\n");
    for (const char* target : {kUser, "/config/dst.cfg"}) {
        std::string path = physical(target);
        ASSERT_EQ(setxattr(path.c_str(), "user.origin", "phone", 5, 0), 0) << "user attributes: " << std::strerror(errno);
        if (std::system(("setfacl -m u:nobody:r '" + path + "' 2>/dev/null").c_str()) != 0)
            std::cout << "[ skipped ] ACL on " << target << ": setfacl is missing or the filesystem has no ACLs\n";
        if (setxattr(path.c_str(), "security.cfgupgrade", "label", 5, 0) != 0)
            std::cout << "[ skipped ] security attribute on " << target << ": " << std::strerror(errno) << " (needs root)\n";
    }
    setxattr(physical("/config/src.cfg").c_str(), "user.source", "only", 4, 0);
    auto userBefore = attributesOf(physical(kUser)), dstBefore = attributesOf(physical("/config/dst.cfg"));

    etlSetProfileInt(kUser, "A", "k", 2);
    EXPECT_TRUE(store::copyFile("/config/dst.cfg", "/config/src.cfg"));
    EXPECT_TRUE(store::commit());
    EXPECT_EQ(read(kUser), "[A]\nk=2\n");
    EXPECT_EQ(read("/config/dst.cfg"), "[S]\nfrom=src\n");
    EXPECT_EQ(attributesOf(physical(kUser)), userBefore);
    EXPECT_EQ(attributesOf(physical("/config/dst.cfg")), dstBefore) << "a copy keeps the destination's own";
}
