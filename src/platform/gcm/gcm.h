// AES-256-GCM with a 12-byte nonce and a 16-byte tag, keyed once and then used for
// any number of values: per value only the nonce is set. One implementation is built,
// chosen by CFGUPGRADE_CIPHER: Nettle (the default) or OpenSSL's libcrypto.
#pragma once

#include <cstddef>
#include <memory>

class Gcm {
public:
    static constexpr std::size_t kKeyLength = 32;
    static constexpr std::size_t kNonceLength = 12;
    static constexpr std::size_t kTagLength = 16;

    // Null when the library cannot set the cipher up. The key is not kept: only the
    // library's key schedule, which the destructor wipes.
    static std::unique_ptr<Gcm> create(const unsigned char* key);
    ~Gcm();
    Gcm(const Gcm&) = delete;
    Gcm& operator=(const Gcm&) = delete;

    // out gets n bytes of cipher text, tag the tag; `data` (dataLength bytes) is
    // authenticated, not enciphered.
    bool seal(const unsigned char* nonce, const unsigned char* data, std::size_t dataLength,
              const unsigned char* plain, std::size_t n, unsigned char* out, unsigned char* tag);

    // The reverse of seal. False when the tag does not match; `out` may then hold
    // unauthenticated bytes, which the caller wipes.
    bool open(const unsigned char* nonce, const unsigned char* data, std::size_t dataLength,
              const unsigned char* sealed, std::size_t n, const unsigned char* tag, unsigned char* out);

private:
    struct State;
    explicit Gcm(std::unique_ptr<State> state);
    std::unique_ptr<State> state_;
};
