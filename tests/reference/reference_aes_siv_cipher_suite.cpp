// Kept as the yardstick of the differential test (see reference/reference.h).
#include "reference/reference_aes_siv_cipher_suite.h"

#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/params.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <utility>

namespace {

constexpr size_t kAes128SivKeyBytes = 32;
constexpr size_t kAes256SivKeyBytes = 64;
constexpr size_t kBlock = ReferenceAesSivCipherSuite::kSivLength;

struct CipherDeleter {
    void operator()(EVP_CIPHER* p) const { EVP_CIPHER_free(p); }
};
struct CipherCtxDeleter {
    void operator()(EVP_CIPHER_CTX* p) const { EVP_CIPHER_CTX_free(p); }
};
struct MacDeleter {
    void operator()(EVP_MAC* p) const { EVP_MAC_free(p); }
};
struct MacCtxDeleter {
    void operator()(EVP_MAC_CTX* p) const { EVP_MAC_CTX_free(p); }
};
using CipherPtr = std::unique_ptr<EVP_CIPHER, CipherDeleter>;
using CipherCtxPtr = std::unique_ptr<EVP_CIPHER_CTX, CipherCtxDeleter>;
using MacPtr = std::unique_ptr<EVP_MAC, MacDeleter>;
using MacCtxPtr = std::unique_ptr<EVP_MAC_CTX, MacCtxDeleter>;

// Drops whatever OpenSSL queued on this thread's error queue during the
// scope: the suite reports its failures itself, and errors of the caller
// queued earlier stay where they were.
class OpenSslErrorScope {
public:
    OpenSslErrorScope() { ERR_set_mark(); }
    ~OpenSslErrorScope() { ERR_pop_to_mark(); }
    OpenSslErrorScope(const OpenSslErrorScope&) = delete;
    OpenSslErrorScope& operator=(const OpenSslErrorScope&) = delete;
};

// A block that is wiped when it goes out of scope.
class ScratchBlock {
public:
    ScratchBlock() { std::memset(m_bytes, 0, sizeof(m_bytes)); }
    ~ScratchBlock() { OPENSSL_cleanse(m_bytes, sizeof(m_bytes)); }
    ScratchBlock(const ScratchBlock&) = delete;
    ScratchBlock& operator=(const ScratchBlock&) = delete;
    unsigned char* data() { return m_bytes; }

private:
    unsigned char m_bytes[kBlock];
};

// The failure texts of the last few suites that failed on this thread. Plain
// data, so it needs no destructor and is safe to use at any point of a
// thread's or the process's exit; the texts are string literals.
constexpr int kFailureSlots = 8;

struct FailureSlot {
    uint64_t suite_id;  // 0: unused
    const char* msg;
};

thread_local FailureSlot t_failures[kFailureSlots];
thread_local int t_next_failure_slot;

FailureSlot* FindFailure(uint64_t suite_id) {
    for (FailureSlot& slot : t_failures) {
        if (slot.suite_id == suite_id) return &slot;
    }
    return nullptr;
}

// Keeps msg as suite_id's last failure, taking over the oldest slot of
// another suite when the suite has none yet.
void RecordFailure(uint64_t suite_id, const char* msg) {
    FailureSlot* slot = FindFailure(suite_id);
    if (slot == nullptr) {
        slot = &t_failures[t_next_failure_slot];
        t_next_failure_slot = (t_next_failure_slot + 1) % kFailureSlots;
    }
    *slot = FailureSlot{suite_id, msg};
}

uint64_t NextSuiteId() {
    static std::atomic<uint64_t> next{1};
    return next.fetch_add(1, std::memory_order_relaxed);
}

int HexDigitValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// Decodes 2 * len hex digits of text into out; false on a non-hex character.
bool DecodeHex(const std::string& text, unsigned char* out, size_t len) {
    for (size_t i = 0; i < len; ++i) {
        const int high = HexDigitValue(text[2 * i]);
        const int low = HexDigitValue(text[2 * i + 1]);
        if (high < 0 || low < 0) return false;
        out[i] = static_cast<unsigned char>(high << 4 | low);
    }
    return true;
}

std::string LowerHex(const unsigned char* bytes, size_t len) {
    static const char kDigits[] = "0123456789abcdef";
    std::string text(2 * len, '0');
    for (size_t i = 0; i < len; ++i) {
        text[2 * i] = kDigits[bytes[i] >> 4];
        text[2 * i + 1] = kDigits[bytes[i] & 0xf];
    }
    return text;
}

// Multiplication by x in GF(2^128), the "dbl" of RFC 5297.
void DoubleBlock(unsigned char* block) {
    const unsigned char carry = block[0] >> 7;
    for (size_t i = 0; i + 1 < kBlock; ++i) {
        block[i] = static_cast<unsigned char>(block[i] << 1 | block[i + 1] >> 7);
    }
    block[kBlock - 1] = static_cast<unsigned char>(block[kBlock - 1] << 1 ^ (carry ? 0x87 : 0));
}

bool CmacBlock(EVP_MAC* mac, const OSSL_PARAM* params, const unsigned char* key, size_t key_len,
               const unsigned char* block, unsigned char* tag) {
    MacCtxPtr ctx(EVP_MAC_CTX_new(mac));
    size_t tag_len = 0;
    return ctx != nullptr && EVP_MAC_init(ctx.get(), key, key_len, params) == 1 &&
           EVP_MAC_update(ctx.get(), block, kBlock) == 1 && EVP_MAC_final(ctx.get(), tag, &tag_len, kBlock) == 1 &&
           tag_len == kBlock;
}

// The synthetic IV of the empty plaintext without associated data:
// S2V(K1, "") = CMAC(K1, dbl(CMAC(K1, 0^128)) xor 10^127), where K1 is the
// first half of the key (RFC 5297, section 2.4). OpenSSL's SIV ignores a
// zero-length update and then fails its final step, so this one value is
// computed here, once per key.
bool ComputeEmptySiv(const unsigned char* key, size_t key_len, unsigned char* siv) {
    MacPtr mac(EVP_MAC_fetch(nullptr, "CMAC", nullptr));
    if (mac == nullptr) return false;
    const size_t k1_len = key_len / 2;
    char cbc_name[16];
    std::snprintf(cbc_name, sizeof(cbc_name), "AES-%zu-CBC", k1_len * 8);
    const OSSL_PARAM params[] = {OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_CIPHER, cbc_name, 0),
                                 OSSL_PARAM_construct_end()};
    static const unsigned char kZero[kBlock] = {0};
    ScratchBlock d;
    if (!CmacBlock(mac.get(), params, key, k1_len, kZero, d.data())) return false;
    DoubleBlock(d.data());
    d.data()[0] ^= 0x80;
    return CmacBlock(mac.get(), params, key, k1_len, d.data(), siv);
}

}  // namespace

struct ReferenceAesSivCipherSuite::Impl {
    ~Impl() { Clear(); }

    // Back to the state before Init, with the key wiped.
    void Clear() {
        cipher.reset();
        OPENSSL_cleanse(key, sizeof(key));
        key_len = 0;
        OPENSSL_cleanse(empty_siv, sizeof(empty_siv));
        key_md5.clear();
    }

    bool ready() const { return cipher != nullptr; }

    unsigned char key[kAes256SivKeyBytes] = {0};
    size_t key_len = 0;
    unsigned char empty_siv[kBlock] = {0};
    std::string key_md5;
    CipherPtr cipher;  // set last: non-null means the suite is ready
};

ReferenceAesSivCipherSuite::ReferenceAesSivCipherSuite(std::string name)
    : m_name(std::move(name)), m_id(NextSuiteId()), m_impl(new Impl) {}

ReferenceAesSivCipherSuite::~ReferenceAesSivCipherSuite() = default;

const char* ReferenceAesSivCipherSuite::GetName() { return m_name.c_str(); }

int ReferenceAesSivCipherSuite::Fail(int result, const char* msg) {
    RecordFailure(m_id, msg);
    return result;
}

// A failed Init leaves the suite uninitialised: nothing is encrypted with a
// key the caller meant to replace.
int ReferenceAesSivCipherSuite::Init(const std::string& config) {
    Impl& impl = *m_impl;
    impl.Clear();
    const size_t key_len = config.size() / 2;
    if (config.size() % 2 != 0 || (key_len != kAes128SivKeyBytes && key_len != kAes256SivKeyBytes)) {
        return Fail(kErrBadKey, "key text must be 64 or 128 hex digits");
    }
    if (!DecodeHex(config, impl.key, key_len)) {
        impl.Clear();
        return Fail(kErrBadKey, "key text holds a character that is not a hex digit");
    }
    impl.key_len = key_len;

    OpenSslErrorScope errors;
    unsigned char md5[EVP_MAX_MD_SIZE];
    size_t md5_len = 0;
    if (EVP_Q_digest(nullptr, "MD5", nullptr, impl.key, key_len, md5, &md5_len) != 1) {
        impl.Clear();
        return Fail(kErrCrypto, "OpenSSL cannot compute MD5");
    }
    if (!ComputeEmptySiv(impl.key, key_len, impl.empty_siv)) {
        impl.Clear();
        return Fail(kErrCrypto, "OpenSSL cannot compute AES-CMAC");
    }
    CipherPtr cipher(
        EVP_CIPHER_fetch(nullptr, key_len == kAes128SivKeyBytes ? "AES-128-SIV" : "AES-256-SIV", nullptr));
    if (cipher == nullptr) {
        impl.Clear();
        return Fail(kErrCrypto, "OpenSSL does not provide AES-SIV");
    }
    impl.key_md5 = LowerHex(md5, md5_len);
    impl.cipher = std::move(cipher);
    return 0;
}

int ReferenceAesSivCipherSuite::Encrypt(const unsigned char* in, int inlen, unsigned char* out, int& outlen) {
    const int capacity = outlen;
    outlen = 0;
    if (out == nullptr || inlen < 0 || (in == nullptr && inlen > 0)) {
        return Fail(kErrInvalidArgument, "Encrypt: null buffer or negative length");
    }
    if (!m_impl->ready()) return Fail(kErrNotInitialized, "Encrypt: suite not initialised");
    if (capacity < static_cast<int64_t>(inlen) + kSivLength) {
        return Fail(kErrBufferTooSmall, "Encrypt: output buffer smaller than input length + 16");
    }
    if (inlen == 0) {
        std::memcpy(out, m_impl->empty_siv, kSivLength);
        outlen = kSivLength;
        return 0;
    }
    OpenSslErrorScope errors;
    CipherCtxPtr ctx(EVP_CIPHER_CTX_new());
    int body = 0;
    int tail = 0;
    if (ctx == nullptr ||
        EVP_EncryptInit_ex2(ctx.get(), m_impl->cipher.get(), m_impl->key, nullptr, nullptr) != 1 ||
        EVP_EncryptUpdate(ctx.get(), out + kSivLength, &body, in, inlen) != 1 ||
        EVP_EncryptFinal_ex(ctx.get(), out + kSivLength + body, &tail) != 1 || body + tail != inlen ||
        EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_AEAD_GET_TAG, kSivLength, out) != 1) {
        return Fail(kErrCrypto, "Encrypt: OpenSSL AES-SIV encryption failed");
    }
    outlen = kSivLength + inlen;
    return 0;
}

int ReferenceAesSivCipherSuite::Decrypt(const unsigned char* in, int inlen, unsigned char* out, int& outlen) {
    const int capacity = outlen;
    outlen = 0;
    if (in == nullptr || inlen < 0 || (out == nullptr && inlen > kSivLength)) {
        return Fail(kErrInvalidArgument, "Decrypt: null buffer or negative length");
    }
    if (!m_impl->ready()) return Fail(kErrNotInitialized, "Decrypt: suite not initialised");
    if (inlen < kSivLength) return Fail(kErrInputTooShort, "Decrypt: input shorter than the 16-byte IV");
    const int plain_len = inlen - kSivLength;
    if (capacity < plain_len) return Fail(kErrBufferTooSmall, "Decrypt: output buffer smaller than input length - 16");
    if (plain_len == 0) {
        if (CRYPTO_memcmp(in, m_impl->empty_siv, kSivLength) != 0) {
            return Fail(kErrAuthentication, "Decrypt: authentication failed");
        }
        return 0;
    }
    OpenSslErrorScope errors;
    CipherCtxPtr ctx(EVP_CIPHER_CTX_new());
    if (ctx == nullptr ||
        EVP_DecryptInit_ex2(ctx.get(), m_impl->cipher.get(), m_impl->key, nullptr, nullptr) != 1 ||
        EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_AEAD_SET_TAG, kSivLength, const_cast<unsigned char*>(in)) != 1) {
        return Fail(kErrCrypto, "Decrypt: OpenSSL AES-SIV set-up failed");
    }
    int body = 0;
    int tail = 0;
    if (EVP_DecryptUpdate(ctx.get(), out, &body, in + kSivLength, plain_len) != 1 ||
        EVP_DecryptFinal_ex(ctx.get(), out + body, &tail) != 1 || body + tail != plain_len) {
        // Never hand out plaintext that failed authentication.
        OPENSSL_cleanse(out, plain_len);
        return Fail(kErrAuthentication, "Decrypt: authentication failed");
    }
    outlen = plain_len;
    return 0;
}

const std::string ReferenceAesSivCipherSuite::GetCipherKeyMD5() { return m_impl->key_md5; }

const std::string ReferenceAesSivCipherSuite::GetErrMsg() {
    const FailureSlot* slot = FindFailure(m_id);
    return slot == nullptr ? std::string() : std::string(slot->msg);
}
