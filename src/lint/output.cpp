#include <algorithm>
#include <cstdio>
#include <map>

#include "host/json_string.h"
#include "lint/lint.h"

namespace lint {

namespace {

const char* severityName(Severity s) {
    return s == Severity::kError ? "error" : s == Severity::kWarning ? "warning" : "note";
}

// The colours compilers use: the place bold, the severity bold in its colour.
const char* severityColour(Severity s) {
    return s == Severity::kError ? "\033[1;31m" : s == Severity::kWarning ? "\033[1;35m" : "\033[1;36m";
}

// Line and column (both from 1, the column in bytes) of a byte place, from the
// places where the input's lines start, found once per input.
class Places {
public:
    std::pair<size_t, size_t> of(const XmlInput& input, size_t place) {
        auto [it, isNew] = starts_.try_emplace(&input);
        if (isNew) {
            it->second.push_back(0);
            for (size_t i = 0; i < input.original.size(); ++i)
                if (input.original[i] == '\n') it->second.push_back(i + 1);
        }
        const std::vector<size_t>& lines = it->second;
        size_t line = static_cast<size_t>(std::upper_bound(lines.begin(), lines.end(), place) - lines.begin());
        return {line, place - lines[line - 1] + 1};
    }

private:
    std::map<const XmlInput*, std::vector<size_t>> starts_;
};

void printOne(const XmlInput& input, size_t place, Severity severity, const std::string& check,
              const std::string& message, const OutputStyle& style, Places& places) {
    auto [line, column] = places.of(input, place);
    if (style.json) {
        std::printf("{\"file\":%s,\"line\":%zu,\"column\":%zu,\"severity\":\"%s\",\"check\":\"%s\",\"message\":%s}\n",
                    host::jsonString(input.path).c_str(), line, column, severityName(severity), check.c_str(),
                    host::jsonString(message).c_str());
    } else if (style.colour) {
        std::printf("\033[1m%s:%zu:%zu:\033[0m %s%s:\033[0m %s [%s]\n", input.path.c_str(), line, column,
                    severityColour(severity), severityName(severity), message.c_str(), check.c_str());
    } else {
        std::printf("%s:%zu:%zu: %s: %s [%s]\n", input.path.c_str(), line, column, severityName(severity),
                    message.c_str(), check.c_str());
    }
}

}  // namespace

void printFindings(std::vector<Finding>& findings, const OutputStyle& style) {
    std::stable_sort(findings.begin(), findings.end(), [](const Finding& a, const Finding& b) {
        return std::make_pair(a.input->order, a.place) < std::make_pair(b.input->order, b.place);
    });
    Places places;
    for (const Finding& f : findings) {
        printOne(*f.input, f.place, f.severity, f.check, f.message, style, places);
        // The note belongs to its finding, so it follows it wherever its own place is.
        if (f.relatedInput)
            printOne(*f.relatedInput, f.relatedPlace, Severity::kNote, f.check, f.relatedMessage, style, places);
    }
}

}  // namespace lint
