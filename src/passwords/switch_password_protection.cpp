#include "passwords/passwords.h"

// Not built yet: the switch does nothing when its turn comes.
int switchPasswordProtection() { return 0; }
