// The factory CA certificate sync.
#pragma once

#include <string>
#include <vector>

// Copies the factory CA certificates that the configuration area lacks.
void syncFactoryCaCerts();

// Replaces `names` with the entry names of `directory` (all but "." and ".."), in the
// order the directory gives them; left empty when the directory cannot be read.
void listDirectoryNames(const std::string& directory, std::vector<std::string>& names);
