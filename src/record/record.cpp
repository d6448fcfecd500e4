#include "record/record.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "driver/driver.h"
#include "record/json.h"
#include "record/secrets.h"
#include "store/config_store.h"
#include "store/files.h"
#include "store/staging.h"

#ifndef CFGUPGRADE_BUILD_TIME
#define CFGUPGRADE_BUILD_TIME 0
#endif

namespace record {

namespace {

std::vector<Change>& changes() {
    static std::vector<Change> list;
    return list;
}

const char kBootRun[] = "\"run\":\"boot ";

// The highest N of a "boot N" run in the record.
unsigned long highestBoot(const std::string& record) {
    unsigned long highest = 0;
    for (size_t at = record.find(kBootRun); at != std::string::npos; at = record.find(kBootRun, at + 1)) {
        unsigned long n = std::strtoul(record.c_str() + at + sizeof kBootRun - 1, nullptr, 10);
        if (n > highest) highest = n;
    }
    return highest;
}

}  // namespace

std::string runName(const std::string& record, std::time_t now) {
    // Before its own build, the clock has not been set since the last power-up.
    if (now <= static_cast<std::time_t>(CFGUPGRADE_BUILD_TIME)) return "boot " + std::to_string(highestBoot(record) + 1);
    char text[32];
    struct tm utc;
    gmtime_r(&now, &utc);
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
    return text;
}

std::string boundedRecord(const std::string& record, const std::string& lines, size_t limit) {
    std::string all = record;
    if (!all.empty() && all.back() != '\n') all += '\n';  // a line cut by hand stays a line of its own
    all += lines;
    size_t start = 0;
    while (all.size() - start > limit) {
        size_t next = all.find('\n', start);
        if (next == std::string::npos) return "";
        start = next + 1;
    }
    return all.substr(start);
}

void startChangeRecord() {
    const char* path = std::getenv("CFGUPGRADE_CHANGES");
    if (!path || !*path) return;
    store::fs::setChangeListener([](const store::fs::FileChange& change) { describeChange(change, runningStep(), changes()); });
}

void finishChangeRecord(const char* mode) {
    const char* path = std::getenv("CFGUPGRADE_CHANGES");
    store::fs::setChangeListener(nullptr);
    if (!path || !*path || changes().empty()) return;
    std::string record;
    // A record that exists but cannot be read is not written over: its lines would be lost.
    int err = store::fs::readFile(path, record, store::fs::FileKind::kCopy);
    if (err && err != ENOENT) return;
    Secrets secrets;
    secrets.load();
    std::string run = runName(record, std::time(nullptr)), lines;
    for (Change& change : changes()) {
        secrets.mask(change);
        lines += changeJson(change, "run", run, mode ? mode : "");
    }
    store::fs::writeFileAtomically(path, boundedRecord(record, lines, kRecordLimit));
}

}  // namespace record
