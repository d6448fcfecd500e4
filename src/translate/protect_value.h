// The text a translation rule stores: the value itself, or its protected form.
#pragma once

#include <string>

// The two password routines protectValue calls; tests may supply their own.
struct PasswordRoutines {
    int (*encrypt)(const char* input, char* output);
    int (*decrypt)(const char* input, char* output);
};

// The platform's routines.
const PasswordRoutines& platformPasswordRoutines();

// Without `protect` the value comes back unchanged. With it, a value that is already
// protected comes back unchanged and any other value as its protected form; a value
// that cannot be protected (too long for the protected form, no usable key) is kept
// as it is rather than lost. Logs nothing.
std::string protectValue(const std::string& value, bool protect,
                         const PasswordRoutines& routines = platformPasswordRoutines());
