#include "bench/protect.h"

// Until the password routines are part of the tool, keys are stored plain.
std::string protectedForm(const std::string& plain) { return plain; }
