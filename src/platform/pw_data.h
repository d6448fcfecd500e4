// The platform's password protection routines, as this tool's stand-in.
//
// Each takes a zero-terminated input text and an output buffer of kPwDataBufferSize
// bytes (no size is passed, as on the platform) and returns 0 for success. Neither
// ever writes more than kPwDataBufferSize bytes, terminator included.
//
// The protected form is "pw1:" followed by base64url (no padding) of a 12-byte random
// nonce, the AES-256-GCM ciphertext and the 16-byte tag. It is printable ASCII
// without blanks, ';', '#' or '=', so it survives any INI file. The longest plain text
// whose protected form fits is kPwDataLongestPlain bytes.
//
// Key: CFGUPGRADE_PW_KEYFILE names a file (a path as the phone sees it) holding the
// 32-byte key as 64 hex digits. Unset, a BUILT-IN DEVELOPMENT KEY is used: it is
// public, so values protected with it are protected from nobody. A key file that is
// set but missing, unreadable or malformed makes both routines fail; that is logged
// once per run (module 60, level 4), as is a key file that group or others may read.
// The key is read and the cipher set up once per run, on first use.
//
// A failure's non-zero result says why (kPwData...), so a caller that leaves a value
// as it was can say why in its own line, with the file and key it knows; encrypt
// itself logs nothing per value.
#pragma once

#include <cstddef>

constexpr std::size_t kPwDataBufferSize = 160;
constexpr std::size_t kPwDataLongestPlain = 88;

// Why a routine failed.
enum PwDataFailure {
    kPwDataNoKey = 1,         // the key file is set but cannot be used
    kPwDataTooLong = 2,       // the protected form would not fit in the buffer
    kPwDataNoNonce = 3,       // neither getrandom nor /dev/urandom gave a nonce
    kPwDataCipherFailed = 4,  // the cipher itself failed
    kPwDataNotProtected = 5,  // decrypt: not a value protected with the current key
};

// Words for a failure's result, to end a log line with; never a value.
const char* pw_data_failure_reason(int result);

// Writes the protected form of `input`. An input that is already protected with the
// current key comes back unchanged when its plain text has no byte of 0x80 or above,
// so repeated passes do not protect a value twice, and also when protecting it a second
// time would not fit, so a value is never lost to a rerun; the empty text stays empty
// and needs no key. Otherwise non-zero (kPwDataNoKey, kPwDataTooLong, kPwDataNoNonce,
// kPwDataCipherFailed), with the empty text written.
int pw_data_encrypt(const char* input, char* output);

// Writes the plain form of a value protected with the current key. Non-zero, with
// the empty text written, for anything else: kPwDataNoKey, or kPwDataNotProtected for
// a wrong prefix, bad base64, a failed tag. A value in the protected form that does not
// open is traced at level 3.
int pw_data_decrypt(const char* input, char* output);

// Logs the one warning of a run without a key file: the development key is in use.
// The tool's entry point calls it once per run.
void pw_data_report_key_source();
