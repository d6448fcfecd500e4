#include "certs/certs.h"

// Not built yet: the sync does nothing when its turn comes.
void syncFactoryCaCerts() {}
