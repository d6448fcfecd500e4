// cfgupgrade-plan: the phone tool's run on images on this host, with the store's writes
// staged (store/staging.h), and what they would change shown.
//
// Images run in --jobs worker processes forked at the start, one image after another in
// each; a reset of the store before each run starts it from the tool's fresh state (the
// store's cache, staged writes, the lock, the password key). A worker hands each image's
// result to the parent as messages on a pipe, the last one kDone; the parent prints
// results in the order the images were named. A worker that dies is replaced, and the
// image it was running counts as failed.
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
    kDone = 'D',     // the image's run is over: its exit status, one digit
};

void appendMessage(std::string& out, Tag tag, std::string_view bytes);
// Fields of a message, each with its length.
void appendField(std::string& out, std::string_view bytes);
// The next message of `in` from `at`; false at the end or at a cut message (a message
// not all here yet), where `at` stays.
bool nextMessage(std::string_view in, size_t& at, Tag& tag, std::string_view& bytes);
std::vector<std::string_view> fieldsOf(std::string_view bytes);

// Makes this process, a worker forked for it, ready to run images: their output
// captured, their writes staged.
void prepareWorker();

// Runs MODE on the image in this worker and writes its messages to `fd`, the last one
// kDone with the status: 0 nothing would change, 1 something would, 2 the run logged a
// failure or the image is not a directory.
void runImage(const std::string& image, const Options& options, int fd);

}  // namespace plan
