#include "platform/pw_data.h"

#include <fcntl.h>
#include <sys/random.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "platform/gcm/gcm.h"
#include "platform/log.h"
#include "store/config_store.h"
#include "store/files.h"
#include "store/secret_file.h"

namespace {

constexpr char kPrefix[] = "pw1:";
constexpr std::size_t kPrefixLength = sizeof kPrefix - 1;
constexpr std::size_t kKeyLength = Gcm::kKeyLength;
constexpr std::size_t kNonceLength = Gcm::kNonceLength;
constexpr std::size_t kTagLength = Gcm::kTagLength;
constexpr std::size_t kLongestProtected = kPwDataBufferSize - 1;

// Unpadded base64 length of n bytes.
constexpr std::size_t encodedLength(std::size_t n) { return (n * 4 + 2) / 3; }

constexpr std::size_t protectedLength(std::size_t plain) {
    return kPrefixLength + encodedLength(kNonceLength + plain + kTagLength);
}
static_assert(protectedLength(kPwDataLongestPlain) <= kLongestProtected &&
                  protectedLength(kPwDataLongestPlain + 1) > kLongestProtected,
              "the documented longest plain text is the one that fits");

// Nonce, cipher text and tag of the longest protected value: every buffer below is this
// size, on the stack, so no part of a value is ever left in freed heap memory.
constexpr std::size_t kLongestSealed = kNonceLength + kPwDataLongestPlain + kTagLength;

// DEVELOPMENT KEY. It is in the source, so it protects nothing: every real
// installation names its own key with CFGUPGRADE_PW_KEYFILE.
const unsigned char kDevelopmentKey[kKeyLength] = {'c', 'f', 'g', 'u', 'p', 'g', 'r', 'a', 'd', 'e', '-',
                                                   'D', 'E', 'V', 'E', 'L', 'O', 'P', 'M', 'E', 'N', 'T',
                                                   '-', 'K', 'E', 'Y', '-', '0', '0', '0', '0', '1'};

// 64 hex digits and a few blanks around them; anything longer is not a key file.
constexpr std::size_t kKeyFileCapacity = 128;

const char kBase64Url[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";

// Writes the unpadded base64url of n bytes and a terminator.
void encodeBase64Url(const unsigned char* data, std::size_t n, char* text) {
    for (std::size_t i = 0; i < n; i += 3) {
        unsigned long group = static_cast<unsigned long>(data[i]) << 16;
        if (i + 1 < n) group |= static_cast<unsigned long>(data[i + 1]) << 8;
        if (i + 2 < n) group |= data[i + 2];
        std::size_t chars = std::min<std::size_t>(n - i, 3) + 1;  // 3 bytes make 4, fewer one more than they are
        for (std::size_t c = 0; c < chars; ++c) *text++ = kBase64Url[(group >> (18 - 6 * c)) & 0x3f];
    }
    *text = '\0';
}

// The value of one base64url character, -1 for any other byte.
int base64UrlValue(char c) {
    if (c >= 'A' && c <= 'Z') return c - 'A';
    if (c >= 'a' && c <= 'z') return c - 'a' + 26;
    if (c >= '0' && c <= '9') return c - '0' + 52;
    return c == '-' ? 62 : c == '_' ? 63 : -1;
}

// Strict: only the url alphabet, and only the one spelling the encoder makes (the
// unused low bits of the last character are zero). False for anything longer than
// `capacity` bytes.
bool decodeBase64Url(const char* text, unsigned char* bytes, std::size_t capacity, std::size_t& n) {
    unsigned bits = 0;
    int count = 0;
    n = 0;
    for (; *text; ++text) {
        int value = base64UrlValue(*text);
        if (value < 0) return false;
        bits = ((bits << 6) | static_cast<unsigned>(value)) & 0xffff;
        if ((count += 6) < 8) continue;
        if (n == capacity) return false;
        bytes[n++] = static_cast<unsigned char>((bits >> (count -= 8)) & 0xff);
    }
    return count != 6 && (bits & ((1u << count) - 1)) == 0;
}

using Cipher = std::unique_ptr<Gcm>;

// The prefix is bound in as associated data, so a value cannot be moved under another.
const auto* const kBoundData = reinterpret_cast<const unsigned char*>(kPrefix);

bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// The key from 64 hex digits, blanks around them allowed.
bool parseHexKey(const char* text, std::size_t n, unsigned char* key) {
    std::size_t begin = 0, end = n;
    while (begin < end && isBlank(text[begin])) ++begin;
    while (end > begin && isBlank(text[end - 1])) --end;
    if (end - begin != 2 * kKeyLength) return false;
    for (std::size_t i = 0; i < kKeyLength; ++i) {
        int high = hexValue(text[begin + 2 * i]), low = hexValue(text[begin + 2 * i + 1]);
        if (high < 0 || low < 0) return false;
        key[i] = static_cast<unsigned char>(high << 4 | low);
    }
    return true;
}

void reportUnusableKeyFile(const char* file, const char* reason) {
    app_log(60, 4, "Cannot use password key file [%s]: %s; no password is protected or unprotected\n", file, reason);
}

// The key file's text and the key itself each live in one stack buffer that is wiped
// before this returns; afterwards the key exists only inside the cipher.
Cipher cipherFromKeyFile(const char* file) {
    char text[kKeyFileCapacity];
    store::fs::SecretFile info;
    int err = store::fs::readSecretFile(file, text, sizeof text, info);
    unsigned char key[kKeyLength];
    bool parsed = !err && parseHexKey(text, info.length, key);
    explicit_bzero(text, sizeof text);
    if (err) {
        reportUnusableKeyFile(file, err == EINVAL ? "not an absolute path to a regular file" : std::strerror(err));
        return nullptr;
    }
    if (!parsed) {
        reportUnusableKeyFile(file, "it does not hold 64 hex digits");
        return nullptr;
    }
    if (info.othersMayRead) app_log(60, 4, "Password key file [%s] can be read by group or others\n", file);
    Cipher cipher = Gcm::create(key);
    explicit_bzero(key, sizeof key);
    if (!cipher) reportUnusableKeyFile(file, "the cipher cannot be set up");
    return cipher;
}

// The cipher of this run, null when there is no usable key. It is set up on first use
// and kept to the end of the run; a key file is read, and a problem with it reported,
// once. A different key file (or root) than last time, or a reset of the store (a new
// run in this process), starts over: tests and the plan run many roots in one process.
Gcm* runCipher() {
    static Cipher cipher;
    static std::string source;  // empty until the first use: no key's name is empty
    static unsigned long storeReset = 0;
    const char* file = std::getenv("CFGUPGRADE_PW_KEYFILE");
    std::string wanted = file ? "file:" + store::fs::physicalPath(file).value_or(file) : "development key";
    if (wanted == source && storeReset == store::resetCount()) return cipher.get();
    source = wanted;
    storeReset = store::resetCount();
    cipher = file ? cipherFromKeyFile(file) : Gcm::create(kDevelopmentKey);
    return cipher.get();
}

// /dev/urandom is the kernel's generator, like getrandom: a device of this machine,
// not a file of the phone's, so it is opened as it is, not through the store.
bool readUrandom(unsigned char* nonce) {
    int fd = open("/dev/urandom", O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    ssize_t n = store::fs::readUninterrupted(fd, nonce, kNonceLength);
    int err = errno;
    close(fd);
    errno = err;
    return n == static_cast<ssize_t>(kNonceLength);
}

// The boot must never wait for the entropy pool: early on getrandom would block, so it
// is asked not to, and /dev/urandom answers then (and on kernels without getrandom).
// GCM needs nonces that never repeat, which urandom's output gives. A request this
// short is never interrupted by a signal.
bool freshNonce(unsigned char* nonce) {
    ssize_t n = getrandom(nonce, kNonceLength, GRND_NONBLOCK);
    if (n == static_cast<ssize_t>(kNonceLength)) return true;
    if (n < 0 && (errno == EAGAIN || errno == ENOSYS)) return readUrandom(nonce);
    return false;
}

// Writes the plain text of a protected value into `plain` (kPwDataBufferSize bytes),
// or returns false with `plain` empty. Anything longer than a protected value can be
// is rejected before decoding, so nothing here grows with the input.
bool unprotect(Gcm& gcm, const char* input, char* plain) {
    plain[0] = '\0';
    unsigned char sealed[kLongestSealed];
    std::size_t length = 0;
    if (std::strlen(input) > kLongestProtected || std::strncmp(input, kPrefix, kPrefixLength) != 0 ||
        !decodeBase64Url(input + kPrefixLength, sealed, sizeof sealed, length) ||
        length < kNonceLength + kTagLength)
        return false;
    std::size_t n = length - kNonceLength - kTagLength;
    auto* out = reinterpret_cast<unsigned char*>(plain);
    bool ok = gcm.open(sealed, kBoundData, kPrefixLength, sealed + kNonceLength, n, sealed + kNonceLength + n, out);
    plain[n] = '\0';
    // A zero byte could not survive the trip through a text.
    if (ok && std::strlen(plain) == n) return true;
    explicit_bzero(plain, n);
    return false;
}

// Writes the protected form of a non-empty input into `output`; 0, or why not. The
// caller names the value's place when it says why; nothing here knows it.
int protect(Gcm& gcm, const char* input, char* output) {
    std::size_t n = std::strlen(input);
    if (protectedLength(n) > kLongestProtected) return kPwDataTooLong;
    unsigned char sealed[kLongestSealed];
    if (!freshNonce(sealed)) return kPwDataNoNonce;
    if (!gcm.seal(sealed, kBoundData, kPrefixLength, reinterpret_cast<const unsigned char*>(input), n,
                  sealed + kNonceLength, sealed + kNonceLength + n))
        return kPwDataCipherFailed;
    std::memcpy(output, kPrefix, kPrefixLength);
    encodeBase64Url(sealed, kNonceLength + n + kTagLength, output + kPrefixLength);
    return 0;
}

// The translation's test for "already protected", kept here too so that the routine
// and the translation agree on what needs protecting: a plain text with a byte of
// 0x80 or above does not count as one of ours.
bool isPlainAscii(const char* text) {
    for (; *text; ++text)
        if (static_cast<unsigned char>(*text) >= 0x80) return false;
    return true;
}

// A value of ours that needs no further protection: its plain text is ASCII (the
// translation's test), or it holds a letter of 0x80 or above and a second protection
// would not fit. That second protection exists only because such a plain text fails the
// translation's test; where it cannot be made, the value as it stands is kept, so a
// rerun never loses it.
bool needsNoMoreProtection(Gcm& gcm, const char* input) {
    char plain[kPwDataBufferSize];
    bool ours = unprotect(gcm, input, plain);
    bool done = ours && (isPlainAscii(plain) || protectedLength(std::strlen(input)) > kLongestProtected);
    explicit_bzero(plain, sizeof plain);
    return done;
}

}  // namespace

const char* pw_data_failure_reason(int result) {
    switch (result) {
        case kPwDataNoKey: return "no usable password key";
        case kPwDataTooLong:
            static_assert(kPwDataLongestPlain == 88, "the words below name the bound");
            return "too long to protect (at most 88 bytes)";
        case kPwDataNoNonce: return "no random nonce";
        case kPwDataCipherFailed: return "the cipher failed";
        case kPwDataNotProtected: return "not a protected value";
        default: return "the password routine failed";
    }
}

int pw_data_encrypt(const char* input, char* output) {
    output[0] = '\0';
    // Nothing to hide, and no key needed: an empty password stays visibly empty.
    if (*input == '\0') return 0;
    Gcm* gcm = runCipher();
    if (!gcm) return kPwDataNoKey;
    if (needsNoMoreProtection(*gcm, input)) {
        std::memcpy(output, input, std::strlen(input) + 1);
        return 0;
    }
    return protect(*gcm, input, output);
}

int pw_data_decrypt(const char* input, char* output) {
    output[0] = '\0';
    Gcm* gcm = runCipher();
    if (!gcm) return kPwDataNoKey;
    if (unprotect(*gcm, input, output)) return 0;
    // Plain text failing here is the routine's everyday answer; only a value that looks
    // protected and does not open (another key, a damaged value) is worth a word.
    if (std::strncmp(input, kPrefix, kPrefixLength) == 0)
        ETL_TraceHelper::etlTrace(3, "pw_data_decrypt: a value in the protected form does not open with this key");
    return kPwDataNotProtected;
}

void pw_data_report_key_source() {
    if (!std::getenv("CFGUPGRADE_PW_KEYFILE"))
        app_log(60, 4,
                "CFGUPGRADE_PW_KEYFILE is unset: passwords are protected with the built-in development key, "
                "which protects nothing\n");
}
