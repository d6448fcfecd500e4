// The JSON strings of the change record: any bytes give a string that a JSON reader takes
// (well-formed UTF-8, no raw control character, every escape one JSON knows) and that
// reads back, lone surrogates U+DC80..U+DCFF turned back into their bytes, as the bytes.
#include <cstdint>
#include <cstring>

#include "driver.h"
#include "record/json.h"

namespace {

unsigned hexValue(char c) {
    if (c >= '0' && c <= '9') return static_cast<unsigned>(c - '0');
    if (c >= 'a' && c <= 'f') return static_cast<unsigned>(c - 'a' + 10);
    if (c >= 'A' && c <= 'F') return static_cast<unsigned>(c - 'A' + 10);
    fuzz::fail("an escape that is not four hex digits");
}

// Well-formed UTF-8 of one character at `at`, checked as strictly as a JSON reader checks it.
size_t checkedCharacter(const std::string& s, size_t at) {
    auto byte = [&](size_t i) -> unsigned { return i < s.size() ? static_cast<uint8_t>(s[i]) : 0x100; };
    unsigned b = byte(at);
    size_t length = b < 0x80 ? 1 : b >= 0xC2 && b <= 0xDF ? 2 : b >= 0xE0 && b <= 0xEF ? 3 : b >= 0xF0 && b <= 0xF4 ? 4 : 0;
    if (length == 0) fuzz::fail("a byte that starts no UTF-8 character");
    unsigned code = length == 1 ? b : b & (0xFF >> (length + 1));
    for (size_t i = 1; i < length; ++i) {
        if ((byte(at + i) & 0xC0) != 0x80) fuzz::fail("a UTF-8 character cut short");
        code = code << 6 | (byte(at + i) & 0x3F);
    }
    static const unsigned kLeast[] = {0, 0, 0x80, 0x800, 0x10000};
    if (code < kLeast[length] || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) fuzz::fail("UTF-8 that is not well-formed");
    return length;
}

// Reads the string back as a JSON reader would, then turns the lone surrogates into bytes.
std::string decoded(const std::string& json) {
    if (json.size() < 2 || json.front() != '"' || json.back() != '"') fuzz::fail("not one quoted string");
    std::string bytes;
    for (size_t at = 1; at + 1 < json.size();) {
        char c = json[at];
        if (static_cast<unsigned char>(c) < 0x20) fuzz::fail("a raw control character");
        if (c == '"') fuzz::fail("a quote inside the string");
        if (c != '\\') {
            size_t length = checkedCharacter(json, at);
            bytes.append(json, at, length);
            at += length;
            continue;
        }
        char e = json[at + 1];
        const char* simple = "\"\\/bfnrt";
        const char* meaning = "\"\\/\b\f\n\r\t";
        if (const char* found = e ? std::strchr(simple, e) : nullptr) {
            bytes += meaning[found - simple];
            at += 2;
            continue;
        }
        if (e != 'u' || at + 6 > json.size() - 1) fuzz::fail("an escape JSON does not know");
        unsigned code = 0;
        for (int i = 2; i < 6; ++i) code = code << 4 | hexValue(json[at + i]);
        at += 6;
        if (code >= 0xDC80 && code <= 0xDCFF) bytes += static_cast<char>(code - 0xDC00);
        else if (code < 0x80) bytes += static_cast<char>(code);
        else fuzz::fail("an escape the writer never makes");
    }
    return bytes;
}

}  // namespace

void fuzz::property(const std::string& input) {
    std::string json;
    record::appendJsonString(json, input);
    if (decoded(json) != input) fail("the string does not read back as its bytes");
}
