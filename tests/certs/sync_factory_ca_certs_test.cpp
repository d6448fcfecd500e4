// The factory CA certificate sync, run as a step against a temporary root.
#include <algorithm>

#include "certs/certs.h"
#include "support/phone_root.h"

using CaCertSync = PhoneRoot;

namespace {

const std::string kFactory = "/phone/factory/certs/phoneca/";
const std::string kConfig = "/config/certs/phoneca/";

// The sync lines of a stretch of log, in order, without the store's failure lines.
std::string syncLines(const std::string& log) {
    std::string lines;
    for (size_t at = log.find("app_log[60/6]"); at != std::string::npos; at = log.find("app_log[60/6]", at + 1))
        lines += log.substr(at, log.find('\n', at) + 1 - at);
    return lines;
}

}  // namespace

TEST_F(CaCertSync, CopiesWhatTheConfigurationLacksInDirectoryOrderWithoutAShell) {
    struct {
        const char* what;
        std::vector<std::string> factory;  // a name ending in '/' is a subdirectory
        std::vector<std::string> present;  // already in the configuration area
        bool configDir;
    } cases[] = {
        {"empty factory directory", {}, {}, true},
        {"everything present", {"RootA.pem"}, {"RootA.pem"}, true},
        {"first present, second missing", {"RootA.pem", "RootB.pem"}, {"RootA.pem"}, true},
        {"dot name and subdirectory", {".hidden.pem", "sub/"}, {}, true},
        {"many names", {"c1", "c2", "c3", "c4", "c5", "c6", "c7"}, {"c4"}, true},
        {"no configuration directory", {"RootA.pem", "RootB.pem"}, {}, false},
        {"hostile names", {"two words", "it's", "a;touch x;b", "$(touch x)", "`touch x`", "-rf", "x > y", "%s%n"},
         {}, true},
    };
    for (const auto& c : cases) {
        fresh();
        makeDir(kFactory);
        for (const auto& name : c.factory)
            name.back() == '/' ? makeDir(kFactory + name) : write(kFactory + name, "factory " + name);
        if (c.configDir) makeDir(kConfig);
        for (const auto& name : c.present) write(kConfig + name, "own " + name);
        std::vector<std::string> listed;
        listDirectoryNames(kFactory, listed);
        EXPECT_EQ(listed.size(), c.factory.size()) << c.what;

        runStep(syncFactoryCaCerts);

        std::string expectedLines;
        for (const auto& name : listed) {
            bool present = std::count(c.present.begin(), c.present.end(), name) != 0;
            bool copyable = c.configDir && std::count(c.factory.begin(), c.factory.end(), name) != 0;
            if (!present) expectedLines += "app_log[60/6] Sync cert cp " + kFactory + name + " " + kConfig + name + "\n";
            EXPECT_EQ(exists(kConfig + name), present || copyable) << c.what << ": " << name;
            EXPECT_EQ(read(kConfig + name), present ? "own " + name : copyable ? "factory " + name : "") << c.what;
        }
        EXPECT_EQ(syncLines(log()), expectedLines) << c.what;
        EXPECT_EQ(exists(kConfig), c.configDir) << c.what;

        // A second run changes nothing.
        auto before = snapshot();
        runStep(syncFactoryCaCerts);
        EXPECT_EQ(snapshot(), before) << c.what;
    }
}

TEST_F(CaCertSync, MissingFactoryDirectoryLogsNothing) {
    makeDir(kConfig);
    runStep(syncFactoryCaCerts);
    EXPECT_EQ(log(), "");
}
