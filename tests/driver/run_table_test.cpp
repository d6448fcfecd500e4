// The driver's run table, observed through the files and lines each mode produces.
#include "driver/driver.h"
#include "support/phone_root.h"

using RunTable = PhoneRoot;

namespace {

int run(std::vector<std::string> args) {
    std::vector<char*> argv;
    for (auto& arg : args) argv.push_back(&arg[0]);
    return runUpgrade(static_cast<int>(argv.size()), argv.data());
}

}  // namespace

TEST_F(RunTable, EachModeRunsItsStepsAndGates) {
    struct {
        std::vector<std::string> args;
        const char* version;   // /config/version.ini
        bool accountStep;      // SCALineKeyNumber made explicit
        const char* backlight; // stored nBacklightTime afterwards
        const char* out;       // standard output
    } cases[] = {
        {{"cfgupgrade", "all"}, "", true, "2940", "iBackLightTime[49]\n"},
        {{"cfgupgrade", "dev", "extra"}, "", true, "2940", "iBackLightTime[49]\n"},
        {{"cfgupgrade", "all"}, "[SyncConfig]\nbEnableFromOld=0\n", true, "49", ""},
        {{"cfgupgrade", "pwd"}, "", true, "49", ""},
        {{"cfgupgrade", "1"}, "", true, "49", ""},
        {{"cfgupgrade", "2"}, "", true, "49", "No File[/config/softkey/Talking.xml]!\n"},
        {{"cfgupgrade", "ALL"}, "", true, "49", ""},
        {{"cfgupgrade", ""}, "", true, "49", ""},
        {{"cfgupgrade"}, "", false, "49", ""},
    };
    for (const auto& c : cases) {
        fresh();
        write("/config/user/user.ini", "[Backlight]\nnBacklightTime=49\n");
        write("/config/version.ini", c.version);
        write("/config/user/voip/sipAccount2.cfg", "[account]\n");
        testing::internal::CaptureStdout();
        EXPECT_EQ(run(c.args), 0);
        std::string out = testing::internal::GetCapturedStdout();
        EXPECT_EQ(read("/config/user/voip/sipAccount2.cfg").find("SCALineKeyNumber=-1") != std::string::npos,
                  c.accountStep);
        EXPECT_NE(read("/config/user/user.ini").find(std::string("nBacklightTime=") + c.backlight), std::string::npos);
        EXPECT_EQ(out, c.out);
    }
}

TEST_F(RunTable, BacklightConversionTable) {
    struct { const char* stored; const char* printed; const char* after; } cases[] = {
        {nullptr, "60", nullptr}, {"59", "59", "3540"}, {"60", "60", "60"}, {"1", "1", "60"},
        {"0", "0", "0"}, {"-2", "-2", "-120"}, {"-2147483648", "-2147483648", "-2147483648"},
    };
    for (const auto& c : cases) {
        fresh();
        write("/config/user/user.ini", c.stored ? std::string("[Backlight]\nnBacklightTime=") + c.stored + "\n" : "");
        testing::internal::CaptureStdout();
        run({"cfgupgrade", "dev"});
        EXPECT_EQ(testing::internal::GetCapturedStdout(), std::string("iBackLightTime[") + c.printed + "]\n");
        std::string user = read("/config/user/user.ini");
        std::string expected = c.after ? std::string("nBacklightTime=") + c.after + "\n" : "";
        EXPECT_EQ(user.find("nBacklightTime") != std::string::npos, c.after != nullptr) << user;
        EXPECT_NE(user.find(expected), std::string::npos) << user;
    }
}

TEST_F(RunTable, UsageLineWithoutModeTouchesNothing) {
    write("/config/user/user.ini", "[Backlight]\nnBacklightTime=5\n");
    auto before = snapshot();
    EXPECT_EQ(run({"/usr/bin/cfgupgrade"}), 0);
    EXPECT_EQ(snapshot(), before);
    EXPECT_EQ(log(), "app_log[60/6] Usage: \n#/usr/bin/cfgupgrade [all|dev|pwd]\n");
}
