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
// protected (it decrypts, to a text without bytes of 0x80 or above) comes back
// unchanged and any other value as what `encrypt` writes: its protected form, or the
// empty text when the routine cannot protect it (too long, no usable key). Logs nothing.
std::string protectValue(const std::string& value, bool protect,
                         const PasswordRoutines& routines = platformPasswordRoutines());
