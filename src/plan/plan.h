// cfgupgrade-plan: the phone tool's run on images on this host, with the store's writes
// staged (store/staging.h), and what they would change shown.
//
// Each image runs in a child process forked for it: the tool's state (the store's cache,
// the password key, the log) starts fresh for every image, and up to --jobs images run at
// once. A child hands its result to the parent as messages on a pipe; the parent prints
// results in the order the images were named.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace plan {

enum class Format { kDiff, kJson, kSummary };

struct Options {
    Format format = Format::kDiff;
    std::string mode;
    long jobs = 1;
    bool log = false;     // each image's log on standard error
    bool colour = false;  // the diff in colour
};

// The messages of a child: a tag, a length, the bytes.
enum class Tag : char {
    kOutput = 'O',   // text for standard output
    kError = 'E',    // text for standard error
    kFailure = 'F',  // a line of the image's log that says something failed
    kChange = 'C',   // one change for the summary: fields (see summary.h)
    kErased = 'R',   // a value the translation erased: file, section, key
};

void appendMessage(std::string& out, Tag tag, std::string_view bytes);
// Fields of a message, each with its length.
void appendField(std::string& out, std::string_view bytes);
// The next message of `in` from `at`; false at the end (or a cut message).
bool nextMessage(std::string_view in, size_t& at, Tag& tag, std::string_view& bytes);
std::vector<std::string_view> fieldsOf(std::string_view bytes);

// Runs MODE on the image in this process, which must be a child forked for it, and
// writes its messages to `fd`. The exit status: 0 nothing would change, 1 something
// would, 2 the run logged a failure or the image is not a directory.
int runImage(const std::string& image, const Options& options, int fd);

}  // namespace plan
