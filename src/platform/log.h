// The platform log and trace.
//
// Where records go is chosen by CFGUPGRADE_LOG: unset or "-" is standard error,
// "syslog" is syslog(3) with ident "cfgupgrade", anything else a file to append to.
// On standard error and in files a record reads "app_log[MODULE/LEVEL] TEXT" or
// "etlTrace[LEVEL] TEXT", ending with one line break.
//
// Trace records below CFGUPGRADE_TRACE_LEVEL are dropped: level 2 carries stored
// password values. It must be a whole number from 0 to 7; unset or anything else
// means the default, 3. app_log records are always delivered.
#pragma once

#define CFGUPGRADE_PRINTF(fmt, args) __attribute__((format(printf, fmt, args)))

void app_log(int module, int level, const char* format, ...) CFGUPGRADE_PRINTF(3, 4);

// Makes standard output and standard error safe to write whatever they are: closed,
// full, a pipe nobody reads. A line they cannot take is dropped; nothing stops or
// hangs the run (no SIGPIPE, no SIGXFSZ, no blocked write beyond a short grace). The
// log file is appended to only when it is a regular file reached without a link at its
// name; anything else there is refused once, on standard error. The steps' own
// printf and puts go the same way. The tool's entry point calls it first.
void prepareOutputStreams();

namespace ETL_TraceHelper {
void etlTrace(int level, const char* format, ...) CFGUPGRADE_PRINTF(2, 3);
}
