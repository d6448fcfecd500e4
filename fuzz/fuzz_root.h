// A temporary phone root for one fuzzing process: CFGUPGRADE_ROOT points at a fresh
// directory made on first use and removed at exit; the log goes nowhere.
#pragma once

#include <string>

namespace fuzz {

const std::string& phoneRoot();

// Points CFGUPGRADE_ROOT at a new empty directory below phoneRoot() (the last one is
// removed), for code that keeps state keyed by physical path from call to call.
void freshRoot();

// Replaces a file of the current root (by logical path) and starts the store afresh.
void plant(const std::string& logical, const std::string& bytes);

// The bytes of a file of the root; nothing when it is missing.
std::string readBack(const std::string& logical);

// Fails the run with a message, so libFuzzer keeps the input that caused it.
[[noreturn]] void fail(const char* what);

}  // namespace fuzz
