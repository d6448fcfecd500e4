#include "migrations/accounts/accounts.h"

// Not built yet: both phases do nothing when their turn comes.
void gatherDirectIpAccount() {}
void installDirectIpAccount() {}
