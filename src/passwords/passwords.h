// The stored-password protection switch.
#pragma once

// Re-encoding modes: the form the stored passwords are brought into.
constexpr int kReencodeEncrypt = 0;
constexpr int kReencodeDecrypt = 1;

// Per-account keys of the list live in the first four account files only.
constexpr int kFirstReencodedAccount = 0;
constexpr int kLastReencodedAccount = 3;

// Compares the user's and the factory's lock setting and re-encodes the protected keys
// when they disagree. 1 when they agree, 0 when a settings file cannot be loaded,
// otherwise the result of reencodeProtectedKeys.
int switchPasswordProtection();

// Brings every key the platform lists as protected into the given form, saving its
// file after each key. 0 when the list cannot be had, else 1.
int reencodeProtectedKeys(int mode);
