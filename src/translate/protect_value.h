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

// The text a rule stores for `value`, in `stored`; 0, or the non-zero result of
// `encrypt` when the value cannot be protected (no usable key, no nonce, too long), in
// which case `stored` is empty and the caller stores nothing: a value meant to be
// protected is neither erased nor written in clear. Without `protect` the value comes
// back unchanged. With it, a value that is already protected (it decrypts, to a text
// without bytes of 0x80 or above) comes back unchanged and any other value as what
// `encrypt` writes. Logs nothing.
int protectValue(const std::string& value, bool protect, std::string& stored,
                 const PasswordRoutines& routines = platformPasswordRoutines());

// True when both texts are protected values that open to the same plain text.
bool sameProtectedText(const std::string& a, const std::string& b,
                       const PasswordRoutines& routines = platformPasswordRoutines());
