// Reading an input as the phone tool reads it, through the store.
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <sstream>

#include "lint/lint.h"
#include "store/config_store.h"
#include "store/files.h"
#include "store/xml_files.h"

namespace lint {

namespace {

// Comments "cfgupgrade-lint: disable=CHECK[,CHECK]" switch checks off for the element
// after them, or for the whole file before the root element. Read from a parse that
// keeps comments; the tool's parse drops them, so they change nothing on the phone.
void readQuietComments(XmlInput& input) {
    pugi::xml_document doc;
    if (!doc.load_buffer(input.original.data(), input.original.size(), pugi::parse_default | pugi::parse_comments))
        return;
    const std::string marker = "cfgupgrade-lint: disable=";
    auto quietFor = [&](const pugi::xml_node& comment, size_t from, size_t to) {
        std::string text = comment.value();
        size_t at = text.find(marker);
        if (at == std::string::npos) return;
        XmlInput::Quiet q{from, to, {}};
        size_t start = at + marker.size();
        // The names run to the first character no name has: a reason may follow.
        std::string list = text.substr(start, text.find_first_not_of("abcdefghijklmnopqrstuvwxyz-,", start) - start);
        std::istringstream each(list);
        for (std::string name; std::getline(each, name, ',');) q.checks.insert(name);
        input.quiet.push_back(std::move(q));
    };
    pugi::xml_node root = doc.document_element();
    for (pugi::xml_node c = doc.first_child(); c && c != root; c = c.next_sibling())
        if (c.type() == pugi::node_comment) quietFor(c, 0, input.original.size());
    for (pugi::xml_node c : root.children()) {
        if (c.type() != pugi::node_comment) continue;
        pugi::xml_node element = c.next_sibling(), after;
        while (element && element.type() != pugi::node_element) element = element.next_sibling();
        if (element) after = element.next_sibling();
        size_t to = after ? input.placeOf(after) : input.original.size();
        quietFor(c, static_cast<size_t>(std::max<ptrdiff_t>(c.offset_debug(), 0)), to);
    }
}

// A file the tool does not read is one finding, at pugixml's place when it has one.
void checkLoad(XmlInput& input, pugi::xml_parse_result result, int refusal, Findings& out) {
    input.converted = result.encoding != pugi::encoding_utf8;
    if (refusal) {
        out.add(input, 0, "does-not-load",
                std::string("the tool refuses the whole file: ") + store::fs::describe(refusal));
    } else if (!result) {
        size_t place = input.converted ? 0 : static_cast<size_t>(std::max<ptrdiff_t>(result.offset, 0));
        out.add(input, std::min(place, input.original.size()), "does-not-load",
                std::string(result.description()) + ": the tool reads nothing of this file");
    }
    input.loaded = !refusal && result;
}

}  // namespace

// A file named on the command line, read below its own directory rather than below "/":
// an emulator that maps "/" to a target's system root (qemu-user's -L) cannot then send
// the read elsewhere. Its links are followed first, since none may leave that root.
void namedFile(const std::string& path, std::string& root, std::string& logical) {
    char* resolved = realpath(path.c_str(), nullptr);
    std::string full = resolved ? resolved : path;
    std::free(resolved);
    size_t slash = full.rfind('/');
    root = slash == std::string::npos ? "." : slash == 0 ? "/" : full.substr(0, slash);
    logical = "/" + full.substr(slash == std::string::npos ? 0 : slash + 1);
}

// The store reads below the root of CFGUPGRADE_ROOT, as on the phone; a new root starts
// the store afresh.
void useRoot(const std::string& root) {
    setenv("CFGUPGRADE_ROOT", root.c_str(), 1);
    store::reset();
}

// Reads and parses one input as the phone tool does; false (with a line on standard
// error) when it cannot be read at all.
bool readInput(const std::string& root, const std::string& logical, XmlInput& input, Findings& out) {
    useRoot(root);
    int err = store::fs::readFile(logical, input.original, store::fs::FileKind::kXml);
    if (err) {
        std::fprintf(stderr, "cfgupgrade-lint: %s: %s\n", input.path.c_str(), store::fs::describe(err));
        return false;
    }
    readQuietComments(input);
    input.bytes = input.original;
    int refusal = 0;
    pugi::xml_parse_result result = store::parseXmlBytes(input.bytes, input.doc, true, refusal);
    checkLoad(input, result, refusal, out);
    return true;
}

}  // namespace lint
