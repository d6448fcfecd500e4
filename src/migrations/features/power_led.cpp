#include "migrations/accounts/accounts.h"
#include "migrations/features/features.h"
#include "migrations/features/recorded_number.h"

namespace {

// A recorded "ClosePowerLight" other than 0 means the power light was switched off.
bool lightSwitchedOff(const std::string& closePowerLight) {
    return !closePowerLight.empty() && recordedNumber(closePowerLight) != 0;
}

// With the power light off, the LED stays dark in every state but ringing.
void writeLightOff(HREGISTRY user) {
    registrySetInt(user, "PowerLed_Common", 0);
    registrySetInt(user, "PowerLed_Ring", 1);
    registrySetInt(user, "PowerLed_Mail", 0);
    registrySetInt(user, "PowerLed_Mute", 0);
    registrySetInt(user, "PowerLed_HoldHeld", 0);
    registrySetInt(user, "PowerLed_TalkDial", 0);
}

// The queue-status light goes dark with the power light, in accounts 0 to 15 that exist.
void switchOffQueueStatusLights() {
    for (int n = 0; n <= 15; ++n) {
        std::string path = accountFilePath(n);
        if (ETL_MiscHelper::pathFileExist(path)) etlSetProfileInt(path, "CallCenter", "bEnableQueueStatusLight", 0);
    }
}

// An idle-and-talk setting of 0 meant "on" when the light was recorded as explicitly on,
// and "off" otherwise.
int idleTalkValue(int recorded, const std::string& closePowerLight) {
    if (recorded != 0) return recorded;
    return !closePowerLight.empty() && recordedNumber(closePowerLight) == 0 ? 1 : 0;
}

}  // namespace

// Writes only what the record holds; the user file is flushed only when something was written.
void migratePowerLed() {
    HREGISTRY user = registryOpen("/config/user/user.ini", "PowerLed");
    HREGISTRY record = registryOpen("/tmp/VersionInfo.cfg", "Features");
    std::string closePowerLight = ETL_SubClass::registryGetString(record, "ClosePowerLight", "");
    bool changed = false;
    if (lightSwitchedOff(closePowerLight)) {
        writeLightOff(user);
        switchOffQueueStatusLights();
        changed = true;
    } else {
        std::string mail = ETL_SubClass::registryGetString(record, "PowerLedMail", "");
        if (!mail.empty()) {
            registrySetInt(user, "PowerLed_Mail", recordedNumber(mail));
            changed = true;
        }
    }
    std::string idleTalk = ETL_SubClass::registryGetString(record, "PowerLedIdle&Talk", "");
    if (!idleTalk.empty()) {
        int value = idleTalkValue(recordedNumber(idleTalk), closePowerLight);
        registrySetInt(user, "PowerLed_Common", value);
        registrySetInt(user, "PowerLed_TalkDial", value);
        changed = true;
    }
    if (changed) registryFlush(user);
}
