#include "bench/protect.h"

#if __has_include("platform/pw_data.h")
#include "platform/pw_data.h"

// The tool's own routine, so the protection switch finds values it can decode.
std::string protectedForm(const std::string& plain) {
    char output[kPwDataBufferSize] = {};
    return pw_data_encrypt(plain.c_str(), output) == 0 && output[0] ? output : plain;
}
#else
// A tool without password routines stores these keys plain.
std::string protectedForm(const std::string& plain) { return plain; }
#endif
