#include <cstdio>
#include <cstring>
#include <exception>

#include "certs/certs.h"
#include "driver/driver.h"
#include "migrations/accounts/accounts.h"
#include "migrations/features/features.h"
#include "passwords/passwords.h"
#include "platform/log.h"
#include "store/config_store.h"
#include "store/run_lock.h"
#include "translate/translate.h"

namespace {

enum Mode { kAll, kDev, kPwd, kOne, kTwo, kOther, kModeCount };
enum class Gate { kNone, kBacklight, kRecording, kVersionRecord };

struct Step {
    const char* name;
    void (*run)();
    Gate gate;
    bool runsIn[kModeCount];
};

// Every step, in run order, and the modes that run it. Results are not looked at:
// a step's outcome never changes which steps follow.
const Step kRunTable[] = {
    //                                                                          all    dev    pwd    "1"    "2"    other
    {"shared-line key count",     [] { migrateScaLineKeyNumber(); }, Gate::kNone,          {true,  true,  true,  true,  true,  true}},
    {"ring-back timeout",         [] { migrateRingbackTimeout(); },  Gate::kNone,          {true,  true,  true,  true,  true,  true}},
    {"translation",               [] { translateConfig(); },         Gate::kNone,          {true,  true,  false, false, false, false}},
    {"backlight time",            [] { convertBacklightTime(); },    Gate::kBacklight,     {true,  true,  false, false, false, false}},
    {"CA certificate sync",       [] { syncFactoryCaCerts(); },      Gate::kNone,          {true,  true,  false, false, false, false}},
    {"password protection",       [] { switchPasswordProtection(); },Gate::kNone,          {true,  false, true,  false, false, false}},
    {"record old settings",       [] { recordOldSettings(); },       Gate::kRecording,     {false, false, false, true,  false, false}},
    {"gather direct-IP account",  [] { gatherDirectIpAccount(); },   Gate::kNone,          {false, false, false, true,  false, false}},
    {"BLF LED",                   [] { migrateBlfLedMode(); },       Gate::kVersionRecord, {false, false, false, false, true,  false}},
    {"power LED",                 [] { migratePowerLed(); },         Gate::kVersionRecord, {false, false, false, false, true,  false}},
    {"key layouts",               [] { migrateKeyLayoutFiles(); },   Gate::kVersionRecord, {false, false, false, false, true,  false}},
    {"syslog",                    [] { migrateSyslog(); },           Gate::kVersionRecord, {false, false, false, false, true,  false}},
    {"install direct-IP account", [] { installDirectIpAccount(); },  Gate::kNone,          {false, false, false, false, true,  false}},
    {"talking softkey",           [] { renameTalkingSoftkey(); },    Gate::kNone,          {false, false, false, false, true,  false}},
    {"remove installed direct-IP",[] { removeInstalledDirectIpFile(); }, Gate::kNone,      {false, false, false, false, true,  false}},
};

Mode parseMode(const char* text) {
    const char* names[] = {"all", "dev", "pwd", "1", "2"};
    for (int m = kAll; m < kOther; ++m)
        if (std::strcmp(text, names[m]) == 0) return static_cast<Mode>(m);
    return kOther;
}

// A gate's file that exists but cannot be read closes the gate: its default would stand
// in for a flag nobody could see, and a conversion run twice loses the setting. The store
// logs the failed read, and the next run asks again.
bool backlightGateOpen() {
    const char* file = "/config/version.ini";
    bool enabled = etlGetRegistryInt(file, "SyncConfig", "bEnableFromOld", 1) != 0;
    return enabled && !store::unreadable(file);
}

// The user side is read only when the factory side asks for recording. (An unreadable
// factory file reads as 0, which already keeps the gate closed.)
bool recordingGateOpen() {
    const char* factory = "/phone/factory/user/user.ini";
    const char* user = "/config/user/user.ini";
    return etlGetProfileInt(factory, "Sync", "SyncCfgByVersion", 0) == 1 &&
           etlGetProfileInt(user, "Sync", "SyncCfgByVersion", 0) == 0 && !store::unreadable(user);
}

bool versionRecordExists() { return ETL_MiscHelper::pathFileExist("/tmp/VersionInfo.cfg") != 0; }

// Runs one step and makes its changes durable before the next step starts. Nothing a
// step meets may end the run: an exception (std::bad_alloc on input too large to hold,
// included) ends that step alone, with one line saying which, and what it completed is
// still committed, since every change the store holds is whole.
const char* currentStep = nullptr;

void runGuarded(const Step& step) {
    currentStep = step.name;
    const char* what = nullptr;
    try {
        step.run();
    } catch (const std::exception& e) {
        what = e.what();
    } catch (...) {
        what = "unknown exception";
    }
    if (what) ETL_TraceHelper::etlTrace(3, "Step [%s] stopped: %s", step.name, what);
    try {
        store::commit();
    } catch (const std::exception& e) {
        ETL_TraceHelper::etlTrace(3, "Step [%s] not saved: %s", step.name, e.what());
    } catch (...) {
        ETL_TraceHelper::etlTrace(3, "Step [%s] not saved: unknown exception", step.name);
    }
    currentStep = nullptr;
}

}  // namespace

const char* runningStep() { return currentStep; }

int runUpgrade(int argc, char** argv) {
    if (argc <= 1) {
        app_log(60, 6, "Usage: \n#%s [all|dev|pwd]\n", argc > 0 && argv[0] ? argv[0] : "");
        return 0;
    }
    Mode mode = parseMode(argv[1]);
    if (!store::lockConfigTree()) return 0;
    // The version record is tested once, when the first step that needs it is reached,
    // so its four steps run together or not at all.
    int versionRecord = -1;
    for (const Step& step : kRunTable) {
        if (!step.runsIn[mode]) continue;
        bool open = true;
        if (step.gate == Gate::kBacklight) open = backlightGateOpen();
        if (step.gate == Gate::kRecording) open = recordingGateOpen();
        if (step.gate == Gate::kVersionRecord) {
            if (versionRecord < 0) versionRecord = versionRecordExists() ? 1 : 0;
            open = versionRecord == 1;
        }
        if (!open) continue;
        runGuarded(step);
    }
    std::fflush(stdout);
    return 0;
}
