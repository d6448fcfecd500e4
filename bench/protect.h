// The protected form of a value, as the phone's password routine stores it, so the
// image holds protected keys for the protection switch to decode.
#pragma once

#include <string>

std::string protectedForm(const std::string& plain);
