// An image's run, in a worker process: the tool's steps on it, and its result as messages.
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <optional>
#include <set>
#include <tuple>

#include "driver/driver.h"
#include "platform/log.h"
#include "plan/plan.h"
#include "plan/unified_diff.h"
#include "record/change.h"
#include "record/json.h"
#include "record/secrets.h"
#include "store/config_store.h"
#include "store/report.h"
#include "store/run_lock.h"
#include "store/staging.h"

namespace plan {

namespace {

// A file as the run found it and as it would leave it.
struct FileStates {
    std::optional<std::string> first, last;
};

struct Collected {
    std::vector<record::Change> changes;
    std::vector<std::string> order;  // files, in the order of their first change
    std::map<std::string, FileStates> files;
    record::Describer describer;
};

void listen(Collected& collected) {
    store::fs::setChangeListener([&collected](const store::fs::FileChange& change) {
        collected.describer.describe(change, runningStep(), collected.changes);
        auto [entry, added] = collected.files.try_emplace(change.logical);
        if (added) {
            entry->second.first = change.before;
            collected.order.push_back(change.logical);
        }
        entry->second.last = change.after ? std::optional<std::string>(std::string(*change.after)) : std::nullopt;
    });
}

// Where the worker's standard output and error go: a file in memory that holds what
// one run wrote, the steps' own lines and the log (which goes to standard error).
int& captured() {
    static int fd = -1;
    return fd;
}

// Empties the capture for the next run.
void startCapture() {
    std::fflush(stdout);
    if (ftruncate(captured(), 0) == 0) lseek(captured(), 0, SEEK_SET);  // standard output and error share the offset
}

std::string readCaptured() {
    std::fflush(stdout);
    std::string text;
    char buffer[16384];
    ssize_t n;
    for (off_t at = 0; (n = pread(captured(), buffer, sizeof buffer, at)) > 0; at += n) text.append(buffer, static_cast<size_t>(n));
    return text;
}

// A line that says something failed: an app_log record of level 4 or below, a trace of 3 or below.
bool isFailure(const std::string& line) {
    int level = INT_MAX, module = 0;
    if (std::sscanf(line.c_str(), "app_log[%d/%d]", &module, &level) == 2) return level <= 4;
    if (std::sscanf(line.c_str(), "etlTrace[%d]", &level) == 1) return level <= 3;
    return false;
}

bool isBinary(const std::optional<std::string>& bytes) { return bytes && bytes->find('\0') != std::string::npos; }

std::string shownFile(const record::Secrets& secrets, const std::string& file, const std::optional<std::string>& bytes) {
    if (!bytes) return "";
    return record::isIniName(file) ? secrets.maskText(file, *bytes) : *bytes;
}

std::string diffOf(const std::string& image, const Collected& collected, const record::Secrets& secrets, bool colour) {
    DiffColours colours;
    if (colour) colours = {"\033[1m", "\033[36m", "\033[31m", "\033[32m", "\033[m"};
    std::string out;
    std::vector<std::string> files = collected.order;
    std::sort(files.begin(), files.end());  // as git diff orders them
    for (const std::string& file : files) {
        const FileStates& states = collected.files.at(file);
        std::string before = shownFile(secrets, file, states.first), after = shownFile(secrets, file, states.last);
        if (states.first.has_value() == states.last.has_value() && before == after) continue;
        std::string header = std::string(colours.header) + "diff " + image + " " + file + "\n--- " +
                             (states.first ? file : "/dev/null") + "\n+++ " + (states.last ? file : "/dev/null");
        out += header + colours.reset + "\n";
        if (isBinary(states.first) || isBinary(states.last)) out += "Binary file " + file + " would change\n";
        else out += unifiedHunks(before, after, colours);
    }
    return out;
}

// The summary's changes, one per key (or file) and image: the first old value and the
// last new one.
void summaryMessages(const Collected& collected, std::string& out) {
    std::map<std::tuple<std::string, std::string, std::string, std::string>, std::pair<std::string, std::string>> net;
    std::vector<std::tuple<std::string, std::string, std::string, std::string>> order;
    std::set<std::tuple<std::string, std::string, std::string>> erased;
    for (const record::Change& c : collected.changes) {
        bool isKey = c.key.has_value();
        auto id = std::make_tuple(c.file, c.section.value_or(""), c.key.value_or(""), isKey ? std::string("key") : c.op);
        auto [entry, added] = net.try_emplace(id, c.oldValue.value_or(""), c.newValue.value_or(""));
        if (added) order.push_back(id);
        else entry->second.second = c.newValue.value_or("");
        if (isKey && c.step == "translation" && c.oldValue && !c.oldValue->empty() && c.newValue && c.newValue->empty())
            erased.insert({c.file, *c.section, *c.key});
    }
    for (const auto& id : order) {
        std::string fields;
        for (const std::string& f : {std::get<0>(id), std::get<1>(id), std::get<2>(id), std::get<3>(id), net[id].first, net[id].second})
            appendField(fields, f);
        appendMessage(out, Tag::kChange, fields);
    }
    for (const auto& [file, section, key] : erased) {
        std::string fields;
        for (const std::string& f : {file, section, key}) appendField(fields, f);
        appendMessage(out, Tag::kErased, fields);
    }
}

void writeAll(int fd, const std::string& bytes) {
    for (size_t at = 0; at < bytes.size();) {
        ssize_t n = write(fd, bytes.data() + at, bytes.size() - at);
        if (n <= 0) return;
        at += static_cast<size_t>(n);
    }
}

// One image's run; its messages go to `out`, and its status is returned.
int runOne(const std::string& image, const Options& options, std::string& out) {
    struct stat st;
    if (stat(image.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
        appendMessage(out, Tag::kError, "cfgupgrade-plan: " + image + ": not a directory\n");
        return 2;
    }
    setenv("CFGUPGRADE_ROOT", image.c_str(), 1);
    store::reset();  // a new root: nothing of the last image's run is kept
    startCapture();
    Collected collected;
    listen(collected);
    std::string mode = options.mode;
    char program[] = "cfgupgrade";
    char* argv[] = {program, &mode[0], nullptr};
    runUpgrade(2, argv);
    store::unlockConfigTree();  // while this worker waits, another may run the same image
    store::fs::setChangeListener(nullptr);
    std::string log = readCaptured();
    bool failed = false;
    for (size_t pos = 0; pos < log.size();) {
        size_t end = log.find('\n', pos);
        end = end == std::string::npos ? log.size() : end + 1;
        std::string line = log.substr(pos, end - pos - (log[end - 1] == '\n'));
        pos = end;
        if (options.log) appendMessage(out, Tag::kError, image + ": " + line + "\n");
        if (isFailure(line)) failed = true, appendMessage(out, Tag::kFailure, line);
    }
    record::Secrets secrets;
    secrets.load();
    for (record::Change& change : collected.changes) secrets.mask(change);
    if (options.format == Format::kDiff) appendMessage(out, Tag::kOutput, diffOf(image, collected, secrets, options.colour));
    if (options.format == Format::kJson) {
        std::string lines;
        for (const record::Change& change : collected.changes) lines += record::changeJson(change, "image", image, options.mode);
        appendMessage(out, Tag::kOutput, lines);
    }
    if (options.format == Format::kSummary) summaryMessages(collected, out);
    return failed ? 2 : collected.changes.empty() ? 0 : 1;
}

}  // namespace

void prepareWorker() {
    captured() = memfd_create("cfgupgrade-plan-log", MFD_CLOEXEC);
    if (captured() >= 0) dup2(captured(), STDOUT_FILENO), dup2(captured(), STDERR_FILENO);
    setvbuf(stdout, nullptr, _IOLBF, 0);  // the steps' lines in their place among the log's
    store::setReportSink([](const char* line) { app_log(60, 4, "%s", line); });
    store::fs::setStaging(true);
}

void runImage(const std::string& image, const Options& options, int fd) {
    std::string out;
    int status = runOne(image, options, out);
    appendMessage(out, Tag::kDone, std::string(1, static_cast<char>('0' + status)));
    writeAll(fd, out);
}

}  // namespace plan
