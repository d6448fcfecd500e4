// Where the store's refusals and failures go. The store is the ground floor and knows
// no log of its own: the program that uses it hands it a sink (the tool's entry point
// hands it the platform log, module 60 level 4). Without one, lines are dropped.
#pragma once

namespace store {

// Takes one line, without its line break.
using ReportSink = void (*)(const char* line);

void setReportSink(ReportSink sink);

// Formats one line ("Cannot write [PATH]: ERROR") and hands it to the sink.
void report(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace store
