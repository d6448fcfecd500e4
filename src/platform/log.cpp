#include "platform/log.h"

#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

const int kDefaultTraceLevel = 3;
const int kHighestLevel = 7;  // syslog's lowest priority

std::string vformat(const char* format, va_list args) {
    va_list copy;
    va_copy(copy, args);
    int length = std::vsnprintf(nullptr, 0, format, copy);
    va_end(copy);
    if (length < 0) return {};
    std::string text(static_cast<size_t>(length) + 1, '\0');
    std::vsnprintf(&text[0], text.size(), format, args);
    text.pop_back();
    return text;
}

// One write per record, so records from one run never interleave mid-line.
void writeRecord(int fd, const std::string& record) {
    const char* p = record.data();
    size_t left = record.size();
    while (left > 0) {
        ssize_t n = write(fd, p, left);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return;
        p += n;
        left -= static_cast<size_t>(n);
    }
}

void deliver(int priority, const std::string& prefix, const std::string& text) {
    std::string record = prefix + text;
    if (record.empty() || record.back() != '\n') record += '\n';

    const char* sink = std::getenv("CFGUPGRADE_LOG");
    if (!sink || !*sink || std::strcmp(sink, "-") == 0) {
        writeRecord(STDERR_FILENO, record);
    } else if (std::strcmp(sink, "syslog") == 0) {
        openlog("cfgupgrade", LOG_PID, LOG_USER);
        syslog(priority, "%s", record.c_str());
    } else {
        int fd = open(sink, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
        if (fd < 0) return;
        writeRecord(fd, record);
        close(fd);
    }
}

int syslogPriority(int level) { return level < 0 ? LOG_EMERG : level > 7 ? LOG_DEBUG : level; }

// Only a whole number from 0 to 7 counts; anything else (blanks, a word, a sign, an
// overflow) is the default, so a typo never opens the level-2 traces that carry
// password values.
int lowestTraceLevel() {
    const char* env = std::getenv("CFGUPGRADE_TRACE_LEVEL");
    if (!env || !*env) return kDefaultTraceLevel;
    int level = 0;
    for (; *env; ++env) {
        if (*env < '0' || *env > '9') return kDefaultTraceLevel;
        level = level * 10 + (*env - '0');
        if (level > kHighestLevel) return kDefaultTraceLevel;
    }
    return level;
}

}  // namespace

void app_log(int module, int level, const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::string text = vformat(format, args);
    va_end(args);
    deliver(syslogPriority(level), "app_log[" + std::to_string(module) + "/" + std::to_string(level) + "] ", text);
}

namespace ETL_TraceHelper {

void etlTrace(int level, const char* format, ...) {
    if (level < lowestTraceLevel()) return;
    va_list args;
    va_start(args, format);
    std::string text = vformat(format, args);
    va_end(args);
    deliver(syslogPriority(level), "etlTrace[" + std::to_string(level) + "] ", text);
}

}  // namespace ETL_TraceHelper
