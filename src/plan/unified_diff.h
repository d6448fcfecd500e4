// A unified diff of two texts, line by line, as diff -u writes it (three lines of context).
#pragma once

#include <string>

namespace plan {

struct DiffColours {
    const char* header = "";   // the ---/+++ lines
    const char* hunk = "";     // @@ lines
    const char* removed = "";
    const char* added = "";
    const char* reset = "";
};

// The hunks ("@@ ... @@" and the lines) of the change from `before` to `after`; empty
// when they are the same. The headers are the caller's.
std::string unifiedHunks(const std::string& before, const std::string& after, const DiffColours& colours);

}  // namespace plan
