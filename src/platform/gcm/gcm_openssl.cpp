#include <openssl/crypto.h>
#include <openssl/evp.h>

#include "platform/gcm/gcm.h"

struct Gcm::State {
    EVP_CIPHER_CTX* ctx = nullptr;
    ~State() { EVP_CIPHER_CTX_free(ctx); }  // wipes the key schedule

    // A new message in one direction (1 encrypt, 0 decrypt) under the kept key.
    bool start(const unsigned char* nonce, int encrypt, const unsigned char* data, std::size_t dataLength) {
        int len = 0;
        return EVP_CipherInit_ex(ctx, nullptr, nullptr, nullptr, nonce, encrypt) == 1 &&
               EVP_CipherUpdate(ctx, nullptr, &len, data, static_cast<int>(dataLength)) == 1;
    }
};

// Only the one cipher is needed: the host's OpenSSL configuration file, which may load
// providers and modules, is never read.
std::unique_ptr<Gcm> Gcm::create(const unsigned char* key) {
    if (OPENSSL_init_crypto(OPENSSL_INIT_NO_LOAD_CONFIG, nullptr) != 1) return nullptr;
    auto state = std::make_unique<State>();
    state->ctx = EVP_CIPHER_CTX_new();
    if (!state->ctx || EVP_CipherInit_ex(state->ctx, EVP_aes_256_gcm(), nullptr, key, nullptr, 1) != 1)
        return nullptr;
    return std::unique_ptr<Gcm>(new Gcm(std::move(state)));
}

Gcm::Gcm(std::unique_ptr<State> state) : state_(std::move(state)) {}

Gcm::~Gcm() = default;

bool Gcm::seal(const unsigned char* nonce, const unsigned char* data, std::size_t dataLength,
               const unsigned char* plain, std::size_t n, unsigned char* out, unsigned char* tag) {
    EVP_CIPHER_CTX* ctx = state_->ctx;
    int len = 0;
    return state_->start(nonce, 1, data, dataLength) &&
           EVP_EncryptUpdate(ctx, out, &len, plain, static_cast<int>(n)) == 1 &&
           EVP_EncryptFinal_ex(ctx, out + len, &len) == 1 &&
           EVP_CIPHER_CTX_ctrl(ctx, EVP_CTRL_GCM_GET_TAG, static_cast<int>(kTagLength), tag) == 1;
}

bool Gcm::open(const unsigned char* nonce, const unsigned char* data, std::size_t dataLength,
               const unsigned char* sealed, std::size_t n, const unsigned char* tag, unsigned char* out) {
    EVP_CIPHER_CTX* ctx = state_->ctx;
    int len = 0;
    return state_->start(nonce, 0, data, dataLength) &&
           EVP_DecryptUpdate(ctx, out, &len, sealed, static_cast<int>(n)) == 1 &&
           EVP_CIPHER_CTX_ctrl(ctx, EVP_CTRL_GCM_SET_TAG, static_cast<int>(kTagLength),
                               const_cast<unsigned char*>(tag)) == 1 &&
           EVP_DecryptFinal_ex(ctx, out + len, &len) == 1;
}
