#include "migrations/features/features.h"

// Not built yet: these steps do nothing when their turn comes.
void recordOldSettings() {}
void migrateBlfLedMode() {}
void migratePowerLed() {}
void migrateKeyLayoutFiles() {}
void migrateSyslog() {}
int renameTalkingSoftkey() { return 0; }
