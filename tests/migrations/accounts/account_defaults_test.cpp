// Shared-line key count and ring-back timeout, run as steps against a temporary root.
#include "migrations/accounts/accounts.h"
#include "support/phone_root.h"

using AccountDefaults = PhoneRoot;

TEST_F(AccountDefaults, ScaLineKeyNumberBecomesExplicitInExistingFilesOnly) {
    struct { int account; const char* before; const char* after; } cases[] = {
        {0, "[account]\nLabel=a\n", "[account]\nLabel=a\nSCALineKeyNumber=-1\n"},
        {3, "", "[account]\nSCALineKeyNumber=-1\n"},
        {6, "[account]\nSCALineKeyNumber=0\n", "[account]\nSCALineKeyNumber=0\n"},
        {7, "[account]\nSCALineKeyNumber = -1\n", "[account]\nSCALineKeyNumber = -1\n"},
        {16, "[other]\nx=1\n", "[other]\nx=1\n[account]\nSCALineKeyNumber=-1\n"},
    };
    for (const auto& c : cases) write(accountFilePath(c.account), c.before);
    makeDir(accountFilePath(9));  // cannot be read: passed over, the others still change
    runStep(migrateScaLineKeyNumber);
    for (const auto& c : cases) EXPECT_EQ(read(accountFilePath(c.account)), c.after) << c.account;
    for (int n : {1, 2, 4, 8, 15}) EXPECT_FALSE(exists(accountFilePath(n)));
}

TEST_F(AccountDefaults, RingbackTimeoutIsSeededFromAccountZeroOnlyWhenUnset) {
    struct { const char* user; const char* account0; const char* expected; } cases[] = {
        {"", "[account]\nCancelTimer=120\n", "120"},
        {"[Feature]\nRingbackTimeout=-1\n", "[account]\nCancelTimer=90\n", "90"},
        {"", nullptr, "180"},
        {"", "[account]\nOther=1\n", "180"},  // account file 1 holds 99: only account file 0 counts
        {"[Feature]\nRingbackTimeout=0\n", "[account]\nCancelTimer=120\n", "0"},
    };
    for (const auto& c : cases) {
        fresh();
        write("/config/user/user.ini", c.user);
        if (c.account0) write(accountFilePath(0), c.account0);
        write(accountFilePath(1), "[account]\nCancelTimer=99\n");
        runStep(migrateRingbackTimeout);
        std::string user = read("/config/user/user.ini");
        EXPECT_NE(user.find(std::string("RingbackTimeout=") + c.expected + "\n"), std::string::npos) << user;
        EXPECT_EQ(read(accountFilePath(0)), c.account0 ? c.account0 : "");
    }
}
