#include "translate/protect_value.h"

#include <cstring>

#include "platform/pw_data.h"

namespace {

// A decrypted text with a byte of 0x80 or above was not made from a plain value of
// ours: the input only happened to decrypt.
bool isPlainAscii(const char* text) {
    for (; *text; ++text)
        if (static_cast<unsigned char>(*text) >= 0x80) return false;
    return true;
}

}  // namespace

const PasswordRoutines& platformPasswordRoutines() {
    static const PasswordRoutines routines = {pw_data_encrypt, pw_data_decrypt};
    return routines;
}

std::string protectValue(const std::string& value, bool protect, const PasswordRoutines& routines) {
    if (!protect) return value;
    char buffer[kPwDataBufferSize] = {};
    if (routines.decrypt(value.c_str(), buffer) == 0 && isPlainAscii(buffer)) return value;
    // The result is not looked at: a routine that cannot protect the value (too long,
    // no key) writes the empty text and says why itself, and the empty text is stored,
    // so a value meant to be protected never stays in clear. The buffer is not cleared
    // again: the routine writes its whole output.
    routines.encrypt(value.c_str(), buffer);
    std::string result(buffer, strnlen(buffer, sizeof buffer));
    // It may hold the plain form of the input from the decrypt attempt.
    explicit_bzero(buffer, sizeof buffer);
    return result;
}
