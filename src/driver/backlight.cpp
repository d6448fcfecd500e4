#include <algorithm>
#include <climits>
#include <cstdio>

#include "driver/driver.h"
#include "store/config_store.h"

void convertBacklightTime() {
    const char* userFile = "/config/user/user.ini";
    int minutes = etlGetRegistryInt(userFile, "Backlight", "nBacklightTime", 60);
    std::printf("iBackLightTime[%d]\n", minutes);
    if (minutes >= 60) return;
    // A value far below zero is garbage; it saturates rather than wrapping around.
    long long seconds = static_cast<long long>(minutes) * 60;
    etlSetRegistryInt(userFile, "Backlight", "nBacklightTime", static_cast<int>(std::max<long long>(seconds, INT_MIN)));
}
