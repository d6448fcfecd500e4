#include "translate/protect_value.h"

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
    // The routine cannot protect it (too long, no key): keep the value, never erase it.
    if (routines.encrypt(value.c_str(), buffer) != 0) return value;
    return buffer;
}
