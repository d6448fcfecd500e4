#include "store/xml_files.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
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

int digitValue(char c, unsigned base) {
    if (c >= '0' && c <= '9') return c - '0';
    char lower = static_cast<char>(c | ' ');
    return base == 16 && lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

// True when the text holds a character reference that pugixml decodes to NUL: "&#" and
// decimal digits, or "&#x" and hex digits, then ';', whose value is 0 in the 32 bits
// pugixml reckons it in ("&#0;", "&#x00;", "&#4294967296;"). XML forbids it; pugixml
// takes it for the end of its text and drops what follows, so a rewrite would lose
// bytes the file had.
bool holdsNulReference(std::string_view text) {
    for (size_t at = text.find("&#"); at != std::string_view::npos; at = text.find("&#", at + 2)) {
        size_t i = at + 2;
        unsigned base = i < text.size() && text[i] == 'x' ? 16 : 10;
        size_t first = i += base == 16;
        uint32_t value = 0;
        for (int digit; i < text.size() && (digit = digitValue(text[i], base)) >= 0; ++i)
            value = value * base + static_cast<uint32_t>(digit);
        if (i > first && i < text.size() && text[i] == ';' && value == 0) return true;
    }
    return false;
}

// Finds such a reference where pugixml decodes references: an element's text, an attribute.
struct NulReferenceFinder : pugi::xml_tree_walker {
    bool found = false;
    bool for_each(pugi::xml_node& node) override {
        found = node.type() == pugi::node_pcdata && holdsNulReference(node.value());
        for (pugi::xml_attribute attribute : node.attributes())
            found = found || holdsNulReference(attribute.value());
        return !found;
    }
};

// True when the file holds a reference that its parse would decode to NUL. A comment or
// CDATA section may hold "&#0;" as text like any other. Only bytes that may hold one at
// all (the reference spelled in them, or NUL bytes, which UTF-16 and UTF-32 text is full
// of) are parsed once more, without decoding references, to see where it stands: that
// parse gives UTF-8 whatever the file's encoding.
bool decodesToNul(const std::string& bytes) {
    if (!holdsNulReference(bytes) && bytes.find('\0') == std::string::npos) return false;
    pugi::xml_document raw;
    unsigned options = pugi::parse_default & ~pugi::parse_escapes;
    if (!raw.load_buffer(bytes.data(), bytes.size(), options, pugi::encoding_auto)) return false;  // refused as malformed
    NulReferenceFinder finder;
    raw.traverse(finder);
    return finder.found;
}

}  // namespace

pugi::xml_parse_result parseXmlBytes(std::string& bytes, pugi::xml_document& doc, bool inPlace, int& refusal) {
    refusal = 0;
    if (decodesToNul(bytes)) {
        refusal = fs::kNulReference;
        return {};
    }
    xmlMemory().overBudget = false;
    pugi::xml_parse_result result =
        inPlace ? doc.load_buffer_inplace(&bytes[0], bytes.size(), pugi::parse_default, pugi::encoding_auto)
                : doc.load_buffer(bytes.data(), bytes.size(), pugi::parse_default, pugi::encoding_auto);
    // Memory that ran out is no fault of the file: said as what it is, never "malformed".
    if (result.status == pugi::status_out_of_memory)
        refusal = xmlMemory().overBudget ? fs::kOverBudget : ENOMEM;
    // No layout or rule file is nested anywhere near this deep; past it, saving with one
    // tab per level would grow with the square of the depth.
    else if (result && depthOf(doc) > kMaxXmlDepth)
        refusal = fs::kTooDeep;
    return result;
}

namespace {

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
    // Indenting makes a file larger than it was read; one the next run would refuse to
    // read is not written, and the file stays as it was.
    if (writer.tooLarge) {
        report("Cannot write [%s]: %s", logical.c_str(), fs::describe(EFBIG));
        return false;
    }
    return writeFile(logical, writer.bytes);
}

}  // namespace store
