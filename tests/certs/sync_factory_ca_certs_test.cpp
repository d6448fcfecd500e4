// The factory CA certificate sync, run as a step against a temporary root.
#include "certs/certs.h"
#include "support/phone_root.h"

using CaCertSync = PhoneRoot;

TEST_F(CaCertSync, CopiesWhatTheConfigurationLacksInDirectoryOrderWithoutAShell) {
    const std::string factory = "/phone/factory/certs/phoneca/", config = "/config/certs/phoneca/";
    // A name ending in '/' is a subdirectory; RootA.pem is already in the configuration.
    const std::vector<std::string> names = {"RootA.pem", "RootB.pem", ".hidden.pem", "sub/", "two words", "it's",
                                            "a;touch x;b", "$(touch x)", "`touch x`", "-rf", "x > y", "%s%n",
                                            std::string(255, 'n')};  // the longest name a directory holds
    for (bool configDir : {true, false}) {
        fresh();
        for (const auto& name : names) name.back() == '/' ? makeDir(factory + name) : write(factory + name, name);
        if (configDir) write(config + "RootA.pem", "own");
        std::vector<std::string> listed;
        listDirectoryNames(factory, listed);
        ASSERT_EQ(listed.size(), names.size());

        runStep(syncFactoryCaCerts);

        std::string expected;
        for (const auto& name : listed) {
            bool present = configDir && name == "RootA.pem";
            bool copied = configDir && !present && name != "sub";
            if (!present) expected += "app_log[60/6] Sync cert cp " + factory + name + " " + config + name + "\n";
            EXPECT_EQ(exists(config + name), present || copied) << name;
            EXPECT_EQ(read(config + name), present ? "own" : copied ? name : "") << name;
        }
        // The sync lines, in order, without the store's lines about the copies that failed.
        std::string lines, all = log();
        for (size_t at = all.find("app_log[60/6]"); at != std::string::npos; at = all.find("app_log[60/6]", at + 1))
            lines += all.substr(at, all.find('\n', at) + 1 - at);
        EXPECT_EQ(lines, expected) << configDir;
        EXPECT_EQ(exists(config), configDir);
    }
    // No factory directory: nothing to say.
    fresh();
    makeDir(config);
    runStep(syncFactoryCaCerts);
    EXPECT_EQ(log(), "");
}
