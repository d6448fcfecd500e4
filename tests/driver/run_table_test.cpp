// The driver's run table, observed through the files and lines each mode produces.
#include "driver/driver.h"
#include "support/phone_root.h"

using RunTable = PhoneRoot;

namespace {

// Runs the driver in-process; what it printed.
std::string run(std::vector<std::string> args) {
    std::vector<char*> argv;
    for (auto& arg : args) argv.push_back(&arg[0]);
    testing::internal::CaptureStdout();
    EXPECT_EQ(runUpgrade(static_cast<int>(argv.size()), argv.data()), 0);
    return testing::internal::GetCapturedStdout();
}

}  // namespace

TEST_F(RunTable, EachModeRunsItsStepsGatesAndBacklightConversion) {
    struct {
        std::vector<std::string> args;
        const char* version;    // /config/version.ini
        const char* backlight;  // nBacklightTime before (null: none) and after
        const char* after;
        const char* out;        // standard output
        const char* logged;     // "T": the translation ran, "P": the password switch ran, "U": the usage line
    } cases[] = {
        {{"cfgupgrade", "all", "extra"}, "", "59", "3540", "iBackLightTime[59]\n", "TP"},
        {{"cfgupgrade", "dev"}, "", nullptr, "(absent)", "iBackLightTime[60]\n", "T"},
        {{"cfgupgrade", "dev"}, "", "60", "60", "iBackLightTime[60]\n", "T"},
        {{"cfgupgrade", "dev"}, "", "-2147483648", "-2147483648", "iBackLightTime[-2147483648]\n", "T"},
        {{"cfgupgrade", "all"}, "[SyncConfig]\nbEnableFromOld=0\n", "49", "49", "", "TP"},
        {{"cfgupgrade", "pwd"}, "", "49", "49", "", "P"},
        {{"cfgupgrade", "1"}, "", "49", "49", "", ""},
        {{"cfgupgrade", "2"}, "", "49", "49", "No File[/config/softkey/Talking.xml]!\n", ""},
        {{"cfgupgrade", "ALL"}, "", "49", "49", "", ""},
        {{"/usr/bin/cfgupgrade"}, "", "49", "49", "", "U"},  // no mode: no step runs
    };
    for (const auto& c : cases) {
        fresh();
        write("/config/user/user.ini", c.backlight ? "[Backlight]\nnBacklightTime=" + std::string(c.backlight) : "");
        write("/config/version.ini", c.version);
        write("/config/user/voip/sipAccount2.cfg", "[account]\n");
        const std::string mode = c.args.back() + " " + c.version;
        EXPECT_EQ(run(c.args), c.out) << mode;
        EXPECT_EQ(valueOf(read("/config/user/user.ini"), "nBacklightTime"), c.after) << mode;
        EXPECT_EQ(valueOf(read("/config/user/voip/sipAccount2.cfg"), "SCALineKeyNumber"),
                  c.args.size() > 1 ? "-1" : "(absent)") << mode;
        std::string logged = log().find("configTranslate") != std::string::npos ? "T" : "";
        if (log().find("factory user's") != std::string::npos) logged += "P";
        if (log() == "app_log[60/6] Usage: \n#/usr/bin/cfgupgrade [all|dev|pwd]\n") logged += "U";
        EXPECT_EQ(logged, c.logged) << mode;
    }
}
