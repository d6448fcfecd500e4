#include "store/xml_files.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdlib>

#include "store/config_store.h"
#include "store/documents.h"
#include "store/files.h"
#include "store/pages.h"
#include "store/report.h"

namespace store {

namespace {

// Collects pugixml's output in memory so the atomic writer can replace the file at once;
// past the size an XML file may have it stops collecting (see saveXmlFile).
struct StringWriter : pugi::xml_writer {
    std::string bytes;
    bool tooLarge = false;
    void write(const void* data, size_t size) override {
        tooLarge = tooLarge || size > fs::sizeLimit(fs::FileKind::kXml) - bytes.size();
        if (!tooLarge) bytes.append(static_cast<const char*>(data), size);
    }
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

// What every XML document alive at once (the rule file, a layout) may hold: a rule file
// of 10,000 rules needs about 2.6 MiB. XML costs many times its bytes as nodes (an 8 MiB
// file of empty elements would need 150 MiB), so the bytes alone bound nothing.
const size_t kXmlMemoryBudget = 6u << 20;

struct XmlMemory {
    size_t live = 0;          // bytes handed to pugixml and not yet given back
    bool overBudget = false;  // an allocation was refused for the budget, not by the system
};

XmlMemory& xmlMemory() {
    static XmlMemory memory;
    return memory;
}

// Each block starts with its size, so that freeing it gives its share of the budget back.
const size_t kBlockHeader = alignof(std::max_align_t);

// pugixml takes its memory in pages of 32 KiB (a rule file of 3,000 rules is a megabyte
// of nodes and attributes): each one's pages asked for at once, not faulted in one by one.
// Past the budget it gets nothing, as when memory runs out: the parse ends with
// status_out_of_memory and the file is refused, whatever else the run holds.
void* allocateXmlMemory(size_t size) {
    XmlMemory& memory = xmlMemory();
    if (size > kXmlMemoryBudget - memory.live) {
        memory.overBudget = true;
        return nullptr;
    }
    void* block = std::malloc(kBlockHeader + size);
    if (!block) return nullptr;
    prefaultPages(block, kBlockHeader + size);
    *static_cast<size_t*>(block) = size;
    memory.live += size;
    return static_cast<char*>(block) + kBlockHeader;
}

void freeXmlMemory(void* pointer) {
    if (!pointer) return;
    void* block = static_cast<char*>(pointer) - kBlockHeader;
    xmlMemory().live -= *static_cast<size_t*>(block);
    std::free(block);
}

// Installed before any document can take memory, so every block is freed by the
// function that made it.
[[maybe_unused]] const bool kXmlMemoryInstalled = (pugi::set_memory_management_functions(allocateXmlMemory, freeXmlMemory), true);

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

// Reads the file and parses it as load_buffer would, inside `bytes` when `inPlace`.
pugi::xml_parse_result load(const std::string& logical, pugi::xml_document& doc, std::string& bytes, bool inPlace) {
    // A file that is not read, or read and refused (logged once), loads as a missing one.
    auto refuse = [&](int why) {
        if (why) fs::reportOnce("read", logical, why);
        doc.reset();
        pugi::xml_parse_result refused;
        refused.status = pugi::status_file_not_found;
        return refused;
    };
    if (!readBytes(logical, bytes, fs::FileKind::kXml)) return refuse(0);
    if (holdsNulReference(bytes)) return refuse(fs::kNulReference);
    xmlMemory().overBudget = false;
    pugi::xml_parse_result result =
        inPlace ? doc.load_buffer_inplace(&bytes[0], bytes.size(), pugi::parse_default, pugi::encoding_auto)
                : doc.load_buffer(bytes.data(), bytes.size(), pugi::parse_default, pugi::encoding_auto);
    // Memory that ran out is no fault of the file: said as what it is, never "malformed".
    if (result.status == pugi::status_out_of_memory) return refuse(xmlMemory().overBudget ? fs::kOverBudget : ENOMEM);
    // No layout or rule file is nested anywhere near this deep; past it, saving with one
    // tab per level would grow with the square of the depth.
    if (result && depthOf(doc) > kMaxXmlDepth) return refuse(fs::kTooDeep);
    return result;
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
    // Indenting makes a file larger than it was read; one the next run would refuse to
    // read is not written, and the file stays as it was.
    if (writer.tooLarge) {
        report("Cannot write [%s]: %s", logical.c_str(), fs::describe(EFBIG));
        return false;
    }
    return writeFile(logical, writer.bytes);
}

}  // namespace store
