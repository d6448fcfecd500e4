// The direct-IP account file: gathered in mode 1, installed as account file 16 in mode 2.
#include <map>

#include "migrations/accounts/accounts.h"
#include "support/phone_root.h"

const char kDirectIp[] = "/config/user/voip/directip.cfg";
const char kFactory16[] = "/phone/factory/user/voip/sipAccount16.cfg";
const char kDirectory[] = "<dir>";  // a directory where a file is expected: copies to or from it fail

static std::string account(const std::string& label, const char* flag = "1") {
    return "[account]\nLabel=" + label + "\ndirectip = " + flag + "\n";
}

class DirectIpAccount : public PhoneRoot {
protected:
    // Puts a file, a directory or nothing (null) at a path.
    void place(const std::string& path, const char* content) {
        if (content && std::string(content) == kDirectory) makeDir(path);
        else if (content) write(path, content);
    }
};

TEST_F(DirectIpAccount, GatherMovesTheHighestFlaggedAccountAndKeepsWhatDidNotCopy) {
    // Account files, the direct-IP file before and after ("": none), the account files left as they were.
    struct { std::map<int, std::string> accounts; const char* before; std::string after; std::vector<int> left; }
    cases[] = {
        {{{0, account("a0")}, {5, account("a5", "2")}, {16, account("a16")}}, nullptr, account("a16"), {5}},
        {{{0, "[account]\n"}, {4, account("a4", "0")}}, "[old]\n", "[old]\n", {0, 4}},
        // 7 cannot be read: 9 is gathered and 4 removed, and 9 stays until 7's flag can be read.
        {{{4, account("a4")}, {7, kDirectory}, {9, account("a9")}}, nullptr, account("a9"), {9}},
        {{{4, account("a4")}, {9, account("a9")}}, kDirectory, "", {4, 9}},  // the destination is not writable
    };
    for (const auto& c : cases) {
        fresh();
        for (const auto& [n, text] : c.accounts) place(accountFilePath(n), text.c_str());
        place(kDirectIp, c.before);
        runStep(gatherDirectIpAccount);

        std::vector<int> left;
        for (const auto& [n, text] : c.accounts)
            if (read(accountFilePath(n)) == text) left.push_back(n);
        EXPECT_EQ(left, c.left) << c.after;
        EXPECT_EQ(read(kDirectIp), c.after);
        // A failed copy is logged once by the store, naming both files.
        EXPECT_EQ(log().find("Cannot copy [" + accountFilePath(9) + "] to [" + kDirectIp + "]") != std::string::npos,
                  c.before == kDirectory);
    }
}

TEST_F(DirectIpAccount, InstallPrefersTheDirectIpFileThenTheFactoryCopy) {
    // One mark goes from keys in sections only; a blank after the mark is spacing.
    const char* factory = "top=?x\n[account]\nLabel=?abc\nUser=??x\nPass=?\nHost=a?b\n; ?c\nSp = ? s\r\n[b]\nj=?y";
    const char *own = "[account]\nLabel=?own\n", *direct = "[account]\nLabel=?abc\n";
    // Account file 16, the direct-IP file and the factory copy before; account file 16 after.
    struct { const char* what; const char *before, *directIp, *factory; std::string after; bool directIpStays; }
    cases[] = {
        {"direct-IP file", own, direct, factory, direct, false},
        {"factory copy", own, nullptr, factory,
         "top=?x\n[account]\nLabel=abc\nUser=?x\nPass=\nHost=a?b\n; ?c\nSp = s\r\n[b]\nj=y", false},
        {"neither", own, nullptr, nullptr, own, false},
        {"direct-IP file unreadable", own, kDirectory, factory, own, true},
        {"account file 16 unwritable", kDirectory, direct, factory, "", true},
        {"factory copy fails", own, nullptr, kDirectory, own, false},
    };
    for (const auto& c : cases) {
        fresh();
        place(accountFilePath(16), c.before);
        place(kDirectIp, c.directIp);
        place(kFactory16, c.factory);
        runStep(installDirectIpAccount);
        runStep(removeInstalledDirectIpFile);  // the last step of mode 2

        EXPECT_EQ(read(accountFilePath(16)), c.after) << c.what;
        EXPECT_EQ(exists(kDirectIp), c.directIpStays) << c.what;
        EXPECT_EQ(read(kFactory16), c.factory == factory ? factory : "") << "the factory set is only read";
    }
}
