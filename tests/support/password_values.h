// Stored values as tests look at them: INI lines and protected forms.
#pragma once

#include <string>

#include "platform/pw_data.h"

// The value of the first line "key=..." or "key = ..."; "(absent)" without one.
inline std::string valueOf(const std::string& ini, const std::string& key) {
    for (const std::string& lead : {"\n" + key + "=", "\n" + key + " = "}) {
        size_t at = ("\n" + ini).find(lead);
        if (at != std::string::npos) return ini.substr(at + lead.size() - 1, ini.find('\n', at) - at - lead.size() + 1);
    }
    return "(absent)";
}

inline std::string protectedForm(const std::string& plain) {
    char out[kPwDataBufferSize] = {};
    return pw_data_encrypt(plain.c_str(), out) == 0 ? out : "(failed)";
}

// A stored value as the tables write it: "*plain" for a protected form, else itself.
inline std::string seen(const std::string& value) {
    char plain[kPwDataBufferSize] = {};
    return pw_data_decrypt(value.c_str(), plain) == 0 ? "*" + std::string(plain) : value;
}
