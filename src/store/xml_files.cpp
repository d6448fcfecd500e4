#include "store/xml_files.h"

#include "store/config_store.h"

namespace store {

namespace {

// Collects pugixml's output in memory so the atomic writer can replace the file at once.
struct StringWriter : pugi::xml_writer {
    std::string bytes;
    void write(const void* data, size_t size) override { bytes.append(static_cast<const char*>(data), size); }
};

}  // namespace

pugi::xml_parse_result loadXmlFile(const std::string& logical, pugi::xml_document& doc) {
    std::string bytes;
    if (!readFile(logical, bytes)) {
        doc.reset();
        pugi::xml_parse_result missing;
        missing.status = pugi::status_file_not_found;
        return missing;
    }
    return doc.load_buffer(bytes.data(), bytes.size(), pugi::parse_default, pugi::encoding_auto);
}

bool saveXmlFile(const std::string& logical, const pugi::xml_document& doc) {
    StringWriter writer;
    doc.save(writer, "\t", pugi::format_indent, pugi::encoding_auto);
    return writeFile(logical, writer.bytes);
}

}  // namespace store
