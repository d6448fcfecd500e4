// The factory CA certificate sync, run as a step against a temporary root.
#include <algorithm>

#include "certs/certs.h"
#include "support/phone_root.h"

using CaCertSync = PhoneRoot;

namespace {

const std::string kFactory = "/phone/factory/certs/phoneca/";
const std::string kConfig = "/config/certs/phoneca/";

std::string syncLine(const std::string& name) {
    return "app_log[60/6] Sync cert cp " + kFactory + name + " " + kConfig + name + "\n";
}

// The sync lines of a stretch of log, without the store's failure lines.
std::string syncLines(const std::string& log) {
    std::string lines;
    for (size_t at = log.find("app_log[60/6]"); at != std::string::npos; at = log.find("app_log[60/6]", at + 1))
        lines += log.substr(at, log.find('\n', at) + 1 - at);
    return lines;
}

}  // namespace

TEST_F(CaCertSync, CopiesWhatTheConfigurationLacksInDirectoryOrder) {
    struct {
        const char* what;
        std::vector<std::string> factory;  // certificate names; "dir/" is a subdirectory
        std::vector<std::string> present;  // already in the configuration area
        bool configDir;
        bool factoryDir;
    } cases[] = {
        {"empty factory directory", {}, {}, true, true},
        {"no factory directory", {}, {}, true, false},
        {"first present, second missing", {"RootA.pem", "RootB.pem"}, {"RootA.pem"}, true, true},
        {"dot name", {".hidden.pem"}, {}, true, true},
        {"subdirectory", {"sub/", "Leaf.pem"}, {}, true, true},
        {"many names", {"c1", "c2", "c3", "c4", "c5", "c6", "c7"}, {"c4"}, true, true},
        {"no configuration directory", {"RootA.pem", "RootB.pem"}, {}, false, true},
    };
    for (const auto& c : cases) {
        SetUp();
        if (c.factoryDir) makeDir(kFactory);
        for (const auto& name : c.factory)
            name.back() == '/' ? makeDir(kFactory + name) : write(kFactory + name, "factory " + name);
        if (c.configDir) makeDir(kConfig);
        for (const auto& name : c.present) write(kConfig + name, "own " + name);

        std::vector<std::string> listed;
        listDirectoryNames(kFactory, listed);
        runStep(syncFactoryCaCerts);

        std::string expectedSyncLines, stillMissing;
        for (const auto& name : listed) {
            bool present = std::find(c.present.begin(), c.present.end(), name) != c.present.end();
            bool directory = std::find(c.factory.begin(), c.factory.end(), name + "/") != c.factory.end();
            if (!present) expectedSyncLines += syncLine(name);
            if (present) {
                EXPECT_EQ(read(kConfig + name), "own " + name) << c.what;
            } else if (directory || !c.configDir) {
                EXPECT_FALSE(exists(kConfig + name)) << c.what << ' ' << name;
                stillMissing += syncLine(name);
            } else {
                EXPECT_EQ(read(kConfig + name), "factory " + name) << c.what;
            }
        }
        EXPECT_EQ(listed.size(), c.factory.size()) << c.what;
        EXPECT_EQ(syncLines(log()), expectedSyncLines) << c.what;
        EXPECT_EQ(exists(kConfig), c.configDir) << c.what;
        EXPECT_TRUE(!c.factory.empty() || log().empty()) << c.what;

        // A second run copies nothing; it only tries again what could not be copied.
        auto before = snapshot();
        size_t logged = log().size();
        runStep(syncFactoryCaCerts);
        EXPECT_EQ(snapshot(), before) << c.what;
        EXPECT_EQ(syncLines(log().substr(logged)), stillMissing) << c.what;
        TearDown();
    }
}

TEST_F(CaCertSync, HostileNamesAreCopiedAsOneFileEachAndNothingRuns) {
    const std::vector<std::string> names = {
        "two words.pem", "it's.pem", "a;touch pwned;b", "$(touch pwned)", "`touch pwned`",
        "-rf", "--help", "quote\"d", "star*", "x > pwned", "%s%n",
    };
    makeDir(kConfig);
    for (const auto& name : names) write(kFactory + name, "cert " + name);
    runStep(syncFactoryCaCerts);
    for (const auto& name : names) {
        EXPECT_EQ(read(kConfig + name), "cert " + name) << name;
        EXPECT_NE(log().find(syncLine(name)), std::string::npos) << name;
    }
    // Exactly the factory files and their copies: nothing was split, globbed or run.
    EXPECT_EQ(snapshot().size(), 2 * names.size());
}
