#include "store/xml_files.h"

#include <algorithm>
#include <cstdlib>

#include "store/config_store.h"
#include "store/documents.h"
#include "store/files.h"
#include "store/pages.h"

namespace store {

namespace {

// Collects pugixml's output in memory so the atomic writer can replace the file at once.
struct StringWriter : pugi::xml_writer {
    std::string bytes;
    void write(const void* data, size_t size) override { bytes.append(static_cast<const char*>(data), size); }
};

const int kMaxXmlDepth = 256;

// Element depth, counted without recursion: a deep file must not cost a deep stack.
int depthOf(const pugi::xml_document& doc) {
    int depth = 0, deepest = 0;
    pugi::xml_node node = doc.first_child();
    while (node) {
        deepest = std::max(deepest, depth + 1);
        if (node.first_child()) {
            node = node.first_child();
            ++depth;
            continue;
        }
        while (node && !node.next_sibling()) {
            node = node.parent();
            --depth;
            if (node == doc) return deepest;
        }
        if (node) node = node.next_sibling();
    }
    return deepest;
}

// pugixml takes its memory in pages of 32 KiB (a rule file of 3,000 rules is a megabyte
// of nodes and attributes): each one's pages asked for at once, not faulted in one by one.
void* allocateXmlMemory(size_t size) {
    void* memory = std::malloc(size);
    if (memory) prefaultPages(memory, size);
    return memory;
}

// True when the text holds "&#0;" in any spelling ("&#x00;", "&#000;"). XML forbids it;
// the parser would take it for the end of its text and drop what follows, so a rewrite
// would lose bytes the file had.
bool holdsNulReference(std::string_view text) {
    for (size_t at = text.find("&#"); at != std::string_view::npos; at = text.find("&#", at + 2)) {
        size_t digit = at + 2;
        bool hex = digit < text.size() && (text[digit] == 'x' || text[digit] == 'X');
        size_t end = text.find_first_not_of('0', digit + hex);
        if (end > digit + hex && end < text.size() && text[end] == ';') return true;
    }
    return false;
}

}  // namespace

pugi::xml_parse_result parseXmlBytes(std::string& bytes, pugi::xml_document& doc, bool inPlace, int& refusal) {
    refusal = 0;
    if (holdsNulReference(bytes)) {
        refusal = fs::kNulReference;
        return {};
    }
    pugi::xml_parse_result result =
        inPlace ? doc.load_buffer_inplace(&bytes[0], bytes.size(), pugi::parse_default, pugi::encoding_auto)
                : doc.load_buffer(bytes.data(), bytes.size(), pugi::parse_default, pugi::encoding_auto);
    // No layout or rule file is nested anywhere near this deep; past it, saving with one
    // tab per level would grow with the square of the depth.
    if (result && depthOf(doc) > kMaxXmlDepth) refusal = fs::kTooDeep;
    return result;
}

namespace {

// Two pointers stored: cheaper to set again before each parse than to guard.
void useXmlMemory() { pugi::set_memory_management_functions(allocateXmlMemory, std::free); }

// Reads the file and parses it as load_buffer would, inside `bytes` when `inPlace`.
pugi::xml_parse_result load(const std::string& logical, pugi::xml_document& doc, std::string& bytes, bool inPlace) {
    useXmlMemory();
    // A file that is not read, or read and refused (logged once), loads as a missing one.
    auto refuse = [&](int why) {
        if (why) fs::reportOnce("read", logical, why);
        doc.reset();
        pugi::xml_parse_result refused;
        refused.status = pugi::status_file_not_found;
        return refused;
    };
    if (!readBytes(logical, bytes, fs::FileKind::kXml)) return refuse(0);
    int refusal = 0;
    pugi::xml_parse_result result = parseXmlBytes(bytes, doc, inPlace, refusal);
    return refusal ? refuse(refusal) : result;
}

}  // namespace

pugi::xml_parse_result loadXmlFile(const std::string& logical, pugi::xml_document& doc) {
    std::string bytes;
    return load(logical, doc, bytes, false);
}

pugi::xml_parse_result loadXmlFileInPlace(const std::string& logical, pugi::xml_document& doc, std::string& bytes) {
    return load(logical, doc, bytes, true);
}

bool saveXmlFile(const std::string& logical, const pugi::xml_document& doc) {
    StringWriter writer;
    doc.save(writer, "\t", pugi::format_indent, pugi::encoding_auto);
    return writeFile(logical, writer.bytes);
}

}  // namespace store
