// The direct-IP account file: gathered in mode 1, installed as account file 16 in mode 2.
#include <map>

#include "migrations/accounts/accounts.h"
#include "support/phone_root.h"

using DirectIpAccount = PhoneRoot;

namespace {

const char kDirectIp[] = "/config/user/voip/directip.cfg";
const char kFactory16[] = "/phone/factory/user/voip/sipAccount16.cfg";
const char kDirectory[] = "<dir>";  // stands for a directory where a file is expected

std::string flagged(int n, const char* flag = "1") {
    return "[account]\nLabel=acct" + std::to_string(n) + "\ndirectip = " + flag + "\n";
}

}  // namespace

TEST_F(DirectIpAccount, GatherMovesTheHighestFlaggedAccount) {
    struct {
        const char* what;
        std::map<int, std::string> accounts;
        const char* directIpBefore;  // null: none
        const char* directIpAfter;   // null: none
        std::vector<int> remaining;
    } cases[] = {
        {"3 and 7 flagged, 5 holds 2", {{3, flagged(3)}, {5, flagged(5, "2")}, {7, flagged(7)}}, nullptr,
         "acct7", {5}},
        {"16 flagged", {{2, flagged(2)}, {16, flagged(16)}}, nullptr, "acct16", {}},
        {"no flag", {{0, "[account]\nLabel=a\n"}, {4, flagged(4, "0")}}, "[account]\nLabel=old\n", "old", {0, 4}},
        {"destination not writable", {{4, flagged(4)}, {9, flagged(9)}}, kDirectory, nullptr, {4, 9}},
    };
    for (const auto& c : cases) {
        SetUp();
        for (const auto& [n, text] : c.accounts) write(accountFilePath(n), text);
        if (c.directIpBefore == kDirectory) makeDir(kDirectIp);
        else if (c.directIpBefore) write(kDirectIp, c.directIpBefore);

        runStep(gatherDirectIpAccount);

        std::vector<int> remaining;
        for (const auto& [n, text] : c.accounts)
            if (exists(accountFilePath(n))) {
                remaining.push_back(n);
                EXPECT_EQ(read(accountFilePath(n)), text) << c.what;
            }
        EXPECT_EQ(remaining, c.remaining) << c.what;
        if (c.directIpAfter) {
            EXPECT_NE(read(kDirectIp).find(std::string("Label=") + c.directIpAfter + "\n"), std::string::npos) << c.what;
        }
        // Each failed copy is one store line naming both files; nothing else is logged.
        std::string failures = c.directIpBefore == kDirectory
                                   ? "Cannot copy [" + accountFilePath(9) + "] to [" + kDirectIp + "]"
                                   : "";
        EXPECT_EQ(log().find("app_log[60/4] " + failures) != std::string::npos, !failures.empty()) << log();
        TearDown();
    }
}

TEST_F(DirectIpAccount, InstallPrefersTheDirectIpFileThenTheFactoryCopy) {
    const std::string factory = "[account]\nLabel=?abc\nUser=??x\nPass=?\nHost=a?b\n";
    struct {
        const char* what;
        const char* directIp;  // null: none
        const char* factory;   // null: none
        std::string account16After;
        bool directIpStays;
    } cases[] = {
        {"direct-IP file", "[account]\nLabel=?abc\ndirectip=1\n", factory.c_str(),
         "[account]\nLabel=?abc\ndirectip=1\n", false},
        {"factory copy", nullptr, factory.c_str(), "[account]\nLabel=abc\nUser=?x\nPass=\nHost=a?b\n", false},
        {"neither", nullptr, nullptr, "[account]\nLabel=?own\n", false},
        {"direct-IP copy fails", kDirectory, factory.c_str(), "[account]\nLabel=?own\n", true},
        {"factory copy fails", nullptr, kDirectory, "[account]\nLabel=?own\n", false},
    };
    for (const auto& c : cases) {
        SetUp();
        write(accountFilePath(16), "[account]\nLabel=?own\n");
        if (c.directIp == kDirectory) makeDir(kDirectIp);
        else if (c.directIp) write(kDirectIp, c.directIp);
        if (c.factory == kDirectory) makeDir(kFactory16);
        else if (c.factory) write(kFactory16, c.factory);

        runStep(installDirectIpAccount);

        EXPECT_EQ(read(accountFilePath(16)), c.account16After) << c.what;
        EXPECT_EQ(exists(kDirectIp), c.directIpStays) << c.what;
        if (c.factory && c.factory != kDirectory) {
            EXPECT_EQ(read(kFactory16), factory) << c.what;
        }
        TearDown();
    }
}

TEST_F(DirectIpAccount, StripValueMarksTakesOneMarkFromKeysInSections) {
    struct { const char* before; const char* after; } cases[] = {
        {"[a]\nk=?abc\n", "[a]\nk=abc\n"},
        {"[a]\nk = ??x\n", "[a]\nk = ?x\n"},
        {"[a]\nk=?\n", "[a]\nk=\n"},
        {"[a]\nk=a?b\n", "[a]\nk=a?b\n"},
        {"[a]\nk = ? spaced\n", "[a]\nk = spaced\n"},
        {"top=?kept\n; ?comment\n[a]\n?odd line\nk=?x\n[b]\nj=?y\r\n", "top=?kept\n; ?comment\n[a]\n?odd line\nk=x\n[b]\nj=y\r\n"},
    };
    for (const auto& c : cases) {
        SetUp();
        write("/config/f.cfg", c.before);
        EXPECT_EQ(stripValueMarks("/config/f.cfg"), 1) << c.before;
        commit();
        EXPECT_EQ(read("/config/f.cfg"), c.after);
        TearDown();
    }
    makeDir("/config/unreadable.cfg");
    for (const char* path : {"", "/config/missing.cfg", "/config/unreadable.cfg"})
        EXPECT_EQ(stripValueMarks(path), 0) << path;
    commit();
    EXPECT_FALSE(exists("/config/missing.cfg"));
}
