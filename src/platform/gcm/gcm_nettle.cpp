#include <nettle/gcm.h>
#include <nettle/memops.h>

#include <cstring>

#include "platform/gcm/gcm.h"

// Nettle's context holds the key schedule, the hash key's tables and the state of one
// message; setting the nonce resets only the last.
struct Gcm::State {
    gcm_aes256_ctx ctx;
};

std::unique_ptr<Gcm> Gcm::create(const unsigned char* key) {
    auto state = std::make_unique<State>();
    gcm_aes256_set_key(&state->ctx, key);
    return std::unique_ptr<Gcm>(new Gcm(std::move(state)));
}

Gcm::Gcm(std::unique_ptr<State> state) : state_(std::move(state)) {}

Gcm::~Gcm() { explicit_bzero(&state_->ctx, sizeof state_->ctx); }

bool Gcm::seal(const unsigned char* nonce, const unsigned char* data, std::size_t dataLength,
               const unsigned char* plain, std::size_t n, unsigned char* out, unsigned char* tag) {
    gcm_aes256_set_iv(&state_->ctx, kNonceLength, nonce);
    gcm_aes256_update(&state_->ctx, dataLength, data);
    gcm_aes256_encrypt(&state_->ctx, n, out, plain);
    gcm_aes256_digest(&state_->ctx, kTagLength, tag);
    return true;
}

bool Gcm::open(const unsigned char* nonce, const unsigned char* data, std::size_t dataLength,
               const unsigned char* sealed, std::size_t n, const unsigned char* tag, unsigned char* out) {
    gcm_aes256_set_iv(&state_->ctx, kNonceLength, nonce);
    gcm_aes256_update(&state_->ctx, dataLength, data);
    gcm_aes256_decrypt(&state_->ctx, n, out, sealed);
    unsigned char expected[kTagLength];
    gcm_aes256_digest(&state_->ctx, kTagLength, expected);
    // In constant time: how much of a forged tag matched must not show.
    return memeql_sec(expected, tag, kTagLength) != 0;
}
