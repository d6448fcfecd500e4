#include <cstring>

#include "plan/plan.h"

namespace plan {

namespace {

void appendLength(std::string& out, size_t length) {
    uint32_t n = static_cast<uint32_t>(length);
    out.append(reinterpret_cast<const char*>(&n), sizeof n);
}

bool readLength(std::string_view in, size_t& at, size_t& length) {
    uint32_t n;
    if (in.size() - at < sizeof n) return false;
    std::memcpy(&n, in.data() + at, sizeof n);
    at += sizeof n;
    length = n;
    return in.size() - at >= length;
}

}  // namespace

void appendMessage(std::string& out, Tag tag, std::string_view bytes) {
    out += static_cast<char>(tag);
    appendLength(out, bytes.size());
    out.append(bytes);
}

void appendField(std::string& out, std::string_view bytes) {
    appendLength(out, bytes.size());
    out.append(bytes);
}

bool nextMessage(std::string_view in, size_t& at, Tag& tag, std::string_view& bytes) {
    size_t next = at + 1, length;
    if (at >= in.size() || !readLength(in, next, length)) return false;  // `at` stays at a cut message
    tag = static_cast<Tag>(in[at]);
    bytes = in.substr(next, length);
    at = next + length;
    return true;
}

std::vector<std::string_view> fieldsOf(std::string_view bytes) {
    std::vector<std::string_view> fields;
    size_t at = 0, length;
    while (at < bytes.size() && readLength(bytes, at, length)) {
        fields.push_back(bytes.substr(at, length));
        at += length;
    }
    return fields;
}

}  // namespace plan
