// JSON text for the host programs' machine output: one string, quoted and escaped.
// Header only, so that every host program can use it without a library of its own.
#pragma once

#include <cstdio>
#include <string>
#include <string_view>

namespace host {

// The text as a JSON string. Bytes of 0x80 and above pass unchanged: configuration
// texts are UTF-8, and a reader that meets a stray byte should see it, not a guess.
inline std::string jsonString(std::string_view text) {
    std::string out = "\"";
    for (unsigned char c : text) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c == '\n') {
            out += "\\n";
        } else if (c == '\t') {
            out += "\\t";
        } else if (c < 0x20 || c == 0x7f) {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
            out += escaped;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out + "\"";
}

}  // namespace host
