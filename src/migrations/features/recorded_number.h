// Numbers in the version record are held as text.
#pragma once

#include <string>

// The leading decimal number of a recorded text, read as strtol reads it in base 10
// (leading blanks and a sign accepted, 0 when there are no digits). A number beyond
// the range of int saturates, as it does on the phone, whose long is 32 bits wide.
int recordedNumber(const std::string& text);
