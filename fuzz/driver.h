// The one driver of every fuzz target. libFuzzer hands each input to the target's
// property on a phone root of its own (removed at exit, the log going nowhere); a
// property that does not hold aborts, so libFuzzer keeps the input.
#pragma once

#include <string>

namespace fuzz {

// What must hold for any input: each target defines it in a few lines.
void property(const std::string& input);

// Replaces a file of the root (by logical path) and starts the store afresh.
void plant(const std::string& logical, const std::string& bytes);

// The bytes of a file of the root; nothing when it is missing.
std::string readBack(const std::string& logical);

[[noreturn]] void fail(const char* what);

}  // namespace fuzz
