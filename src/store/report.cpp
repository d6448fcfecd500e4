#include "store/report.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <string>

namespace store {

namespace {
ReportSink currentSink = nullptr;
}

void setReportSink(ReportSink sink) { currentSink = sink; }

void report(const char* format, ...) {
    if (!currentSink) return;
    va_list args, copy;
    va_start(args, format);
    va_copy(copy, args);
    // A line names paths and keys of any length: measured first, then formatted whole.
    int length = std::vsnprintf(nullptr, 0, format, copy);
    va_end(copy);
    std::string line(static_cast<size_t>(std::max(length, 0)) + 1, '\0');  // a failed measure: an empty line
    if (length > 0) std::vsnprintf(&line[0], line.size(), format, args);
    va_end(args);
    line.pop_back();
    currentSink(line.c_str());
}

}  // namespace store
