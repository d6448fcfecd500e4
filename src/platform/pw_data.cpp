#include "platform/pw_data.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <sys/random.h>

#include <array>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "platform/log.h"
#include "store/config_store.h"

namespace {

using Key = std::array<unsigned char, 32>;

constexpr char kPrefix[] = "pw1:";
constexpr std::size_t kPrefixLength = sizeof kPrefix - 1;
constexpr std::size_t kNonceLength = 12;
constexpr std::size_t kTagLength = 16;
constexpr std::size_t kLongestProtected = kPwDataBufferSize - 1;

// Unpadded base64 length of n bytes.
constexpr std::size_t encodedLength(std::size_t n) { return (n * 4 + 2) / 3; }

constexpr std::size_t protectedLength(std::size_t plain) {
    return kPrefixLength + encodedLength(kNonceLength + plain + kTagLength);
}
static_assert(protectedLength(kPwDataLongestPlain) <= kLongestProtected &&
                  protectedLength(kPwDataLongestPlain + 1) > kLongestProtected,
              "the documented longest plain text is the one that fits");

// DEVELOPMENT KEY. It is in the source, so it protects nothing: every real
// installation names its own key with CFGUPGRADE_PW_KEYFILE.
const Key kDevelopmentKey = {'c', 'f', 'g', 'u', 'p', 'g', 'r', 'a', 'd', 'e', '-', 'D', 'E', 'V', 'E', 'L',
                             'O', 'P', 'M', 'E', 'N', 'T', '-', 'K', 'E', 'Y', '-', '0', '0', '0', '0', '1'};

const char kBase64Url[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";

std::string encodeBase64Url(const unsigned char* data, std::size_t n) {
    std::string text;
    text.reserve(encodedLength(n));
    for (std::size_t i = 0; i < n; i += 3) {
        unsigned long group = static_cast<unsigned long>(data[i]) << 16;
        if (i + 1 < n) group |= static_cast<unsigned long>(data[i + 1]) << 8;
        if (i + 2 < n) group |= data[i + 2];
        std::size_t chars = n - i >= 3 ? 4 : n - i + 1;
        for (std::size_t c = 0; c < chars; ++c) text += kBase64Url[(group >> (18 - 6 * c)) & 0x3f];
    }
    return text;
}

// Strict: only the url alphabet, and only the one spelling the encoder makes.
bool decodeBase64Url(const std::string& text, std::string& bytes) {
    bytes.clear();
    unsigned bits = 0;
    int count = 0;
    for (char c : text) {
        const char* at = c ? std::strchr(kBase64Url, c) : nullptr;
        if (!at) return false;
        bits = ((bits << 6) | static_cast<unsigned>(at - kBase64Url)) & 0xffff;
        if ((count += 6) >= 8) bytes += static_cast<char>((bits >> (count -= 8)) & 0xff);
    }
    return encodeBase64Url(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size()) == text;
}

// Said once per key file and problem, not once per password.
void reportKeyProblem(const std::string& path, const char* problem) {
    static std::string lastReported;
    std::string report = path + '\n' + problem;
    if (report == lastReported) return;
    lastReported = report;
    ETL_TraceHelper::etlTrace(3, "Password key file [%s] %s: no password is protected or unprotected", path.c_str(),
                              problem);
}

// The translation's test for "already protected", kept here too so that the routine
// and the translation agree on what needs protecting: a plain text with a byte of
// 0x80 or above does not count as one of ours.
bool isPlainAscii(const std::string& text) {
    for (unsigned char c : text)
        if (c >= 0x80) return false;
    return true;
}

bool parseHexKey(std::string text, Key& key) {
    const char* blanks = " \t\r\n";
    text.erase(text.find_last_not_of(blanks) + 1);
    text.erase(0, text.find_first_not_of(blanks));
    if (text.size() != key.size() * 2) return false;
    for (std::size_t i = 0; i < key.size(); ++i) {
        char pair[3] = {text[2 * i], text[2 * i + 1], '\0'};
        if (!std::isxdigit(static_cast<unsigned char>(pair[0])) || !std::isxdigit(static_cast<unsigned char>(pair[1])))
            return false;
        key[i] = static_cast<unsigned char>(std::strtoul(pair, nullptr, 16));
    }
    return true;
}

// The key file is read on every call: it is tiny, and the routines are called a few
// dozen times per run at most.
bool loadKey(Key& key) {
    const char* path = std::getenv("CFGUPGRADE_PW_KEYFILE");
    if (!path || !*path) {
        key = kDevelopmentKey;
        return true;
    }
    std::string text;
    if (!store::readFile(path, text)) {
        reportKeyProblem(path, "cannot be read");
        return false;
    }
    bool ok = parseHexKey(text, key);
    OPENSSL_cleanse(&text[0], text.size());
    if (!ok) reportKeyProblem(path, "does not hold 64 hex digits");
    return ok;
}

// The kernel's generator gives the nonce: OpenSSL's own generator would cost the tool
// most of a megabyte of memory at boot for twelve bytes per value.
bool freshNonce(unsigned char* nonce) {
    return getrandom(nonce, kNonceLength, 0) == static_cast<ssize_t>(kNonceLength);
}

// Only the one cipher is needed: the host's OpenSSL configuration file, which may load
// providers and modules, is never read.
bool initCrypto() {
    static const bool ready = OPENSSL_init_crypto(OPENSSL_INIT_NO_LOAD_CONFIG, nullptr) == 1;
    return ready;
}

using CipherContext = std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)>;

// Starts AES-256-GCM in one direction (1 encrypt, 0 decrypt) with the prefix bound in
// as associated data, so a value cannot be moved under another prefix. Null on failure.
CipherContext startGcm(const Key& key, const unsigned char* nonce, int encrypt) {
    CipherContext ctx(initCrypto() ? EVP_CIPHER_CTX_new() : nullptr, EVP_CIPHER_CTX_free);
    int len = 0;
    if (ctx && EVP_CipherInit_ex(ctx.get(), EVP_aes_256_gcm(), nullptr, key.data(), nonce, encrypt) == 1 &&
        EVP_CipherUpdate(ctx.get(), nullptr, &len, reinterpret_cast<const unsigned char*>(kPrefix),
                         static_cast<int>(kPrefixLength)) == 1)
        return ctx;
    return CipherContext(nullptr, EVP_CIPHER_CTX_free);
}

// out gets n bytes of cipher text, tag the tag.
bool encryptGcm(const Key& key, const unsigned char* nonce, const unsigned char* plain, int n, unsigned char* out,
                unsigned char* tag) {
    CipherContext ctx = startGcm(key, nonce, 1);
    int len = 0;
    return ctx && EVP_EncryptUpdate(ctx.get(), out, &len, plain, n) == 1 &&
           EVP_EncryptFinal_ex(ctx.get(), out + len, &len) == 1 &&
           EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_GCM_GET_TAG, static_cast<int>(kTagLength), tag) == 1;
}

// The reverse of encryptGcm; false when the tag does not match.
bool decryptGcm(const Key& key, const unsigned char* nonce, const unsigned char* sealed, int n,
                const unsigned char* tag, unsigned char* out) {
    CipherContext ctx = startGcm(key, nonce, 0);
    int len = 0;
    return ctx && EVP_DecryptUpdate(ctx.get(), out, &len, sealed, n) == 1 &&
           EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_GCM_SET_TAG, static_cast<int>(kTagLength),
                               const_cast<unsigned char*>(tag)) == 1 &&
           EVP_DecryptFinal_ex(ctx.get(), out + len, &len) == 1;
}

// Plain text of a protected value, or false. Anything longer than a protected value
// can be is rejected before decoding, so nothing here grows with the input.
bool unprotect(const Key& key, const char* input, std::string& plain) {
    std::size_t length = std::strlen(input);
    if (length > kLongestProtected || std::strncmp(input, kPrefix, kPrefixLength) != 0) return false;
    std::string raw;
    if (!decodeBase64Url(input + kPrefixLength, raw)) return false;
    if (raw.size() < kNonceLength + kTagLength) return false;
    const auto* bytes = reinterpret_cast<const unsigned char*>(raw.data());
    std::size_t n = raw.size() - kNonceLength - kTagLength;
    plain.assign(n, '\0');
    bool ok = decryptGcm(key, bytes, bytes + kNonceLength, static_cast<int>(n), bytes + kNonceLength + n,
                         reinterpret_cast<unsigned char*>(&plain[0]));
    // A zero byte could not survive the trip through a text.
    if (ok && plain.find('\0') == std::string::npos) return true;
    OPENSSL_cleanse(&plain[0], plain.size());
    plain.clear();
    return false;
}

// Each failure is traced with its reason, never with the value: the person who set up
// the phone learns why a value was stored empty.
bool protect(const Key& key, const char* input, std::string& result) {
    std::size_t n = std::strlen(input);
    if (protectedLength(n) > kLongestProtected) {
        ETL_TraceHelper::etlTrace(3, "pw_data_encrypt: a value of %zu bytes is too long to protect (at most %zu)", n,
                                  kPwDataLongestPlain);
        return false;
    }
    std::string raw(kNonceLength + n + kTagLength, '\0');
    auto* bytes = reinterpret_cast<unsigned char*>(&raw[0]);
    if (!freshNonce(bytes)) {
        ETL_TraceHelper::etlTrace(3, "pw_data_encrypt: no random nonce: %s", std::strerror(errno));
        return false;
    }
    auto* plain = reinterpret_cast<const unsigned char*>(input);
    if (!encryptGcm(key, bytes, plain, static_cast<int>(n), bytes + kNonceLength, bytes + kNonceLength + n)) {
        ETL_TraceHelper::etlTrace(3, "pw_data_encrypt: the cipher failed");
        return false;
    }
    result = kPrefix + encodeBase64Url(bytes, raw.size());
    return true;
}

// Copies a text that is known to fit, terminator included.
void writeText(char* output, const std::string& text) { std::memcpy(output, text.c_str(), text.size() + 1); }

}  // namespace

int pw_data_encrypt(const char* input, char* output) {
    output[0] = '\0';
    Key key;
    if (!loadKey(key)) return 1;
    std::string text;
    int result = 0;
    bool alreadyProtected = unprotect(key, input, text) && isPlainAscii(text);
    OPENSSL_cleanse(&text[0], text.size());
    if (alreadyProtected) {
        writeText(output, input);
    } else if (*input == '\0') {
        // Nothing to hide: an empty password stays visibly empty.
    } else if (protect(key, input, text)) {
        writeText(output, text);
    } else {
        result = 1;
    }
    OPENSSL_cleanse(key.data(), key.size());
    return result;
}

int pw_data_decrypt(const char* input, char* output) {
    output[0] = '\0';
    Key key;
    if (!loadKey(key)) return 1;
    std::string plain;
    bool ok = unprotect(key, input, plain);
    OPENSSL_cleanse(key.data(), key.size());
    // Plain text failing here is the routine's everyday answer; only a value that looks
    // protected and does not open (another key, a damaged value) is worth a word.
    if (!ok && std::strncmp(input, kPrefix, kPrefixLength) == 0)
        ETL_TraceHelper::etlTrace(3, "pw_data_decrypt: a value in the protected form does not open with this key");
    if (!ok) return 1;
    writeText(output, plain);
    OPENSSL_cleanse(&plain[0], plain.size());
    return 0;
}
