#include "record/json.h"

#include <cstdint>
#include <optional>

namespace record {

namespace {

// The length of the well-formed UTF-8 sequence at `at`, or 0: no overlong forms, no
// surrogates, nothing above U+10FFFF.
size_t utf8Length(std::string_view s, size_t at) {
    auto byte = [&](size_t i) { return i < s.size() ? static_cast<uint8_t>(s[i]) : 0; };
    uint8_t b = byte(at);
    auto tail = [&](size_t i, uint8_t low = 0x80, uint8_t high = 0xBF) { return byte(i) >= low && byte(i) <= high && i < s.size(); };
    if (b < 0x80) return 1;
    if (b >= 0xC2 && b <= 0xDF) return tail(at + 1) ? 2 : 0;
    if (b >= 0xE0 && b <= 0xEF) {
        uint8_t low = b == 0xE0 ? 0xA0 : 0x80, high = b == 0xED ? 0x9F : 0xBF;
        return tail(at + 1, low, high) && tail(at + 2) ? 3 : 0;
    }
    if (b >= 0xF0 && b <= 0xF4) {
        uint8_t low = b == 0xF0 ? 0x90 : 0x80, high = b == 0xF4 ? 0x8F : 0xBF;
        return tail(at + 1, low, high) && tail(at + 2) && tail(at + 3) ? 4 : 0;
    }
    return 0;
}

void appendEscape(std::string& out, unsigned code) {
    static const char kHex[] = "0123456789abcdef";
    out += "\\u";
    for (int shift = 12; shift >= 0; shift -= 4) out += kHex[(code >> shift) & 0xF];
}

void appendField(std::string& out, const char* name, const std::optional<std::string>& value) {
    out += ",\"";
    out += name;
    out += "\":";
    if (value) appendJsonString(out, *value);
    else out += "null";
}

}  // namespace

void appendJsonString(std::string& out, std::string_view bytes) {
    out += '"';
    for (size_t at = 0; at < bytes.size();) {
        unsigned char c = static_cast<unsigned char>(bytes[at]);
        size_t length = utf8Length(bytes, at);
        if (length == 0) {
            appendEscape(out, 0xDC00 + c);
            ++at;
        } else if (length > 1) {
            out.append(bytes.substr(at, length));
            at += length;
        } else {
            if (c == '"' || c == '\\') out += '\\', out += static_cast<char>(c);
            else if (c == '\n') out += "\\n";
            else if (c == '\t') out += "\\t";
            else if (c == '\r') out += "\\r";
            else if (c < 0x20 || c == 0x7F) appendEscape(out, c);
            else out += static_cast<char>(c);
            ++at;
        }
    }
    out += '"';
}

std::string changeJson(const Change& change, std::string_view name, std::string_view value, std::string_view mode) {
    std::string out = "{\"";
    out.append(name).append("\":");
    appendJsonString(out, value);
    appendField(out, "mode", std::string(mode));
    appendField(out, "step", change.step);
    appendField(out, "op", change.op);
    appendField(out, "file", change.file);
    appendField(out, "section", change.section);
    appendField(out, "key", change.key);
    appendField(out, "old", change.oldValue);
    appendField(out, "new", change.newValue);
    appendField(out, "source", change.source);
    out += ",\"masked\":";
    out += change.masked ? "true" : "false";
    out += "}\n";
    return out;
}

}  // namespace record
