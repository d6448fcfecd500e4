// JSON text for the change objects. No JSON library Debian ships (cJSON, json-c, Jansson,
// nlohmann-json, RapidJSON) carries arbitrary bytes both ways: they copy invalid UTF-8
// into their output, refuse it, or replace it. Values here are bytes, so the escaping is
// written here, and the fuzz target json_string round-trips it.
//
// A string is written as UTF-8 where its bytes are well-formed UTF-8 (`"`, `\` and the
// control characters escaped); each byte that is not part of a well-formed sequence is
// written as the escape of the lone surrogate U+DC00 + byte (\udc80 to \udcff), as
// Python's "surrogateescape" does. Well-formed UTF-8 never holds a surrogate, so the
// bytes come back exactly: json.loads(line) and .encode("utf-8", "surrogateescape").
#pragma once

#include <string>
#include <string_view>

#include "record/change.h"

namespace record {

void appendJsonString(std::string& out, std::string_view bytes);

// One change as one line (newline included): {"NAME":VALUE,"mode":...,"step":...,"op":...,
// "file":...,"section":...,"key":...,"old":...,"new":...,"source":...,"masked":...}, absent
// values as null. NAME and VALUE are "run" and the run on the phone, "image" and the
// image's directory in the plan.
std::string changeJson(const Change& change, std::string_view name, std::string_view value, std::string_view mode);

}  // namespace record
