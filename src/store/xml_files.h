// XML files (rule file, key layouts, softkey layouts) through the store: read with
// pugixml's default options and automatic encoding, saved with one tab per level.
#pragma once

#include <pugixml.hpp>

#include <string>

namespace store {

// Parses the file as load_file(path, parse_default, encoding_auto) would; a missing or
// unreadable file, one over 4 MiB or needing more memory than XML may take, or one
// nested deeper than 256 elements gives status_file_not_found (all but the missing one
// logged).
pugi::xml_parse_result loadXmlFile(const std::string& logical, pugi::xml_document& doc);

// As loadXmlFile, but the document is parsed inside `bytes`, which must outlive it: a
// large file (the rule file) is then held once, not twice.
pugi::xml_parse_result loadXmlFileInPlace(const std::string& logical, pugi::xml_document& doc, std::string& bytes);

// What the loads above do once they have read the file: parses `bytes` (inside them when
// `inPlace`) and sets `refusal` to why a text pugixml may take is refused all the same
// (fs::kNulReference, fs::kTooDeep), else 0. A refused text loads as a missing file.
pugi::xml_parse_result parseXmlBytes(std::string& bytes, pugi::xml_document& doc, bool inPlace, int& refusal);

// Writes the bytes save_file(path, "\t", format_indent, encoding_auto) would write,
// through the atomic writer; an unchanged file is not rewritten.
bool saveXmlFile(const std::string& logical, const pugi::xml_document& doc);

}  // namespace store
