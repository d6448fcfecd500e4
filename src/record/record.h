// The change record on the phone: with CFGUPGRADE_CHANGES set to a path (as the phone
// sees it, inside a writable area), every run that changes something appends one JSON
// line per change (see change.h and json.h for the objects), after its last step,
// through the atomic writer. A run that changes nothing writes nothing. The file keeps
// the newest lines within kRecordLimit bytes; older ones are dropped whole. A record
// that cannot be read or written costs one log line and nothing else.
//
// The run of each line: the time of the run ("2026-11-25T15:22:42Z") when the clock is
// past the time the tool was built, otherwise "boot N", one more than the highest N the
// record holds (so runs stay ordered on a phone whose clock is not yet set).
#pragma once

#include <cstddef>
#include <ctime>
#include <string>
#include <vector>

#include "record/change.h"

namespace record {

constexpr size_t kRecordLimit = 64 * 1024;

// Starts listening to the store when CFGUPGRADE_CHANGES is set.
void startChangeRecord();

// Appends what the run changed; `mode` as the command line gave it.
void finishChangeRecord(const char* mode);

// The lines of `record` with `lines` appended, oldest lines dropped whole until the
// result fits in `limit` bytes.
std::string boundedRecord(const std::string& record, const std::string& lines, size_t limit);

// The run's name for the lines to append to `record`, at time `now`.
std::string runName(const std::string& record, std::time_t now);

}  // namespace record
