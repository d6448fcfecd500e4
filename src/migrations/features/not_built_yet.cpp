#include "migrations/features/features.h"

// Not built yet: these steps do nothing when their turn comes.
void migrateKeyLayoutFiles() {}
int renameTalkingSoftkey() { return 0; }
