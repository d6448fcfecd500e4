#include "migrations/features/recorded_number.h"

#include <algorithm>
#include <climits>
#include <cstdlib>

int recordedNumber(const std::string& text) {
    long value = std::strtol(text.c_str(), nullptr, 10);
    // Clamped so that a 64-bit host reads what the phone's 32-bit strtol reads.
    return static_cast<int>(std::clamp<long>(value, INT_MIN, INT_MAX));
}
