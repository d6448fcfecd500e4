// Reading a small file that holds a secret (the password key file).
//
// The ordinary reader copies through buffers of its own and grows its result; a secret
// must sit in one place that its owner wipes, so this one reads straight into the
// caller's buffer and keeps no copy anywhere.
#pragma once

#include <cstddef>
#include <string>

namespace store::fs {

struct SecretFile {
    std::size_t length = 0;      // bytes read into the caller's buffer
    bool othersMayRead = false;  // group or others have read permission
};

// Reads the whole regular file at `logical` into `buffer`. 0, or the errno that stopped
// it: EFBIG when it holds more than `capacity` bytes, EINVAL when it is not a regular
// file. Logs nothing: the caller says what a failure means. On failure the buffer may
// hold part of the file, so the caller wipes it either way.
int readSecretFile(const std::string& logical, char* buffer, std::size_t capacity, SecretFile& file);

}  // namespace store::fs
