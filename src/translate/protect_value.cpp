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

int protectValue(const std::string& value, bool protect, std::string& stored, const PasswordRoutines& routines) {
    if (!protect) {
        stored = value;
        return 0;
    }
    char buffer[kPwDataBufferSize] = {};
    if (routines.decrypt(value.c_str(), buffer) == 0 && isPlainAscii(buffer)) {
        explicit_bzero(buffer, sizeof buffer);
        stored = value;
        return 0;
    }
    // The buffer is not cleared again: the routine writes its whole output.
    int failure = routines.encrypt(value.c_str(), buffer);
    stored.assign(failure ? "" : buffer, failure ? 0 : strnlen(buffer, sizeof buffer));
    // It may hold the plain form of the input from the decrypt attempt.
    explicit_bzero(buffer, sizeof buffer);
    return failure;
}

bool sameProtectedText(const std::string& a, const std::string& b, const PasswordRoutines& routines) {
    char plainA[kPwDataBufferSize] = {};
    char plainB[kPwDataBufferSize] = {};
    bool same = routines.decrypt(a.c_str(), plainA) == 0 && routines.decrypt(b.c_str(), plainB) == 0 &&
                std::strcmp(plainA, plainB) == 0;
    // Both may hold a password in clear.
    explicit_bzero(plainA, sizeof plainA);
    explicit_bzero(plainB, sizeof plainB);
    return same;
}
