#include "protobuf_api/aes_siv_cipher_suite.h"

#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <utility>

namespace {

constexpr size_t kAes128SivKeyBytes = 32;
constexpr size_t kAes256SivKeyBytes = 64;
constexpr size_t kBlock = AesSivCipherSuite::kSivLength;

struct CipherDeleter {
    void operator()(EVP_CIPHER* p) const { EVP_CIPHER_free(p); }
};
struct CipherCtxDeleter {
    void operator()(EVP_CIPHER_CTX* p) const { EVP_CIPHER_CTX_free(p); }
};
using CipherPtr = std::unique_ptr<EVP_CIPHER, CipherDeleter>;
using CipherCtxPtr = std::unique_ptr<EVP_CIPHER_CTX, CipherCtxDeleter>;

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

// Multiplication by x in GF(2^128), the "dbl" of RFC 5297 (and of the CMAC
// subkeys of RFC 4493).
void DoubleBlock(unsigned char* block) {
    const unsigned char carry = block[0] >> 7;
    for (size_t i = 0; i + 1 < kBlock; ++i) {
        block[i] = static_cast<unsigned char>(block[i] << 1 | block[i + 1] >> 7);
    }
    block[kBlock - 1] = static_cast<unsigned char>(block[kBlock - 1] << 1 ^ (carry ? 0x87 : 0));
}

// to ^= from, over one block.
void XorBlock(unsigned char* to, const unsigned char* from) {
    uint64_t a[2];
    uint64_t b[2];
    std::memcpy(a, to, kBlock);
    std::memcpy(b, from, kBlock);
    a[0] ^= b[0];
    a[1] ^= b[1];
    std::memcpy(to, a, kBlock);
}

// A 64-bit number to or from its big-endian bytes.
uint64_t SwapToBigEndian(uint64_t value) {
#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    return __builtin_bswap64(value);
#else
    return value;
#endif
}

uint64_t LoadBigEndian64(const unsigned char* p) {
    uint64_t value;
    std::memcpy(&value, p, sizeof(value));
    return SwapToBigEndian(value);
}

void StoreBigEndian64(uint64_t value, unsigned char* p) {
    value = SwapToBigEndian(value);
    std::memcpy(p, &value, sizeof(value));
}

// n (below kBlock) bytes at from (null when n is 0) into a block that is
// zero after them.
void LoadPartialBlock(const unsigned char* from, size_t n, unsigned char* block) {
    std::memset(block, 0, kBlock);
    if (n > 0) std::memcpy(block, from, n);
}

const char* CbcName(size_t key_len) { return key_len == kAes128SivKeyBytes ? "AES-128-CBC" : "AES-256-CBC"; }

const char* EcbName(size_t key_len) { return key_len == kAes128SivKeyBytes ? "AES-128-ECB" : "AES-256-ECB"; }

// The OpenSSL contexts of one encryption, keyed once: AES-CBC under the first
// half of the key, whose chain is S2V's CMAC, and AES-ECB under the second,
// which makes the key stream of the CTR pass from its counter blocks.
// Neither is set up again per call: an ECB pass keeps no state, and a CBC
// pass leaves its last output block as the IV of the next, which `chain`
// keeps, so that a pass that must start from a zero IV adds it to its first
// input block instead. Freeing them wipes the key schedules.
struct SivContexts {
    SivContexts() = default;
    ~SivContexts() { OPENSSL_cleanse(chain, sizeof(chain)); }
    SivContexts(const SivContexts&) = delete;
    SivContexts& operator=(const SivContexts&) = delete;

    CipherCtxPtr cbc;
    CipherCtxPtr ecb;
    unsigned char chain[kBlock] = {0};  // the CBC context's IV
};

// New contexts for a SIV key of key_len bytes; null when OpenSSL fails.
std::unique_ptr<SivContexts> NewContexts(EVP_CIPHER* cbc, EVP_CIPHER* ecb, const unsigned char* key, size_t key_len) {
    std::unique_ptr<SivContexts> contexts(new (std::nothrow) SivContexts);
    if (contexts == nullptr) return nullptr;
    const size_t half = key_len / 2;
    contexts->cbc.reset(EVP_CIPHER_CTX_new());
    contexts->ecb.reset(EVP_CIPHER_CTX_new());
    if (contexts->cbc == nullptr || contexts->ecb == nullptr ||
        EVP_EncryptInit_ex2(contexts->cbc.get(), cbc, key, contexts->chain, nullptr) != 1 ||
        EVP_EncryptInit_ex2(contexts->ecb.get(), ecb, key + half, nullptr, nullptr) != 1 ||
        EVP_CIPHER_CTX_set_padding(contexts->cbc.get(), 0) != 1 ||
        EVP_CIPHER_CTX_set_padding(contexts->ecb.get(), 0) != 1) {
        return nullptr;
    }
    return contexts;
}

// One EVP call over `blocks` whole blocks at in, into out (which may be in).
// On a keyed context with whole blocks it does not fail, and so queues no
// error.
bool Pass(EVP_CIPHER_CTX* ctx, unsigned char* out, const unsigned char* in, size_t blocks) {
    return EVP_Cipher(ctx, out, in, static_cast<unsigned int>(blocks * kBlock)) > 0;
}

// The CBC chain with a zero IV over `blocks` (at least one) blocks at buf,
// in place: the CBC-MAC of what buf held, as its last block, into mac.
bool ChainFromZero(SivContexts& contexts, unsigned char* buf, size_t blocks, unsigned char* mac) {
    XorBlock(buf, contexts.chain);  // undoes the IV the context goes on from
    if (!Pass(contexts.cbc.get(), buf, buf, blocks)) return false;
    std::memcpy(contexts.chain, buf + (blocks - 1) * kBlock, kBlock);
    std::memcpy(mac, contexts.chain, kBlock);
    return true;
}

// What the CMAC of S2V derives from the first half of the key alone.
struct S2vKeys {
    unsigned char k1[kBlock];       // the CMAC subkey of a whole last block
    unsigned char k2[kBlock];       // the CMAC subkey of a padded last block
    unsigned char d[kBlock];        // D = CMAC(K, 0^128), where every S2V starts
    unsigned char short_t[kBlock];  // dbl(D) xor k1: T of a string shorter than a block, before pad(S)
};

// RFC 5297 S2V of the plaintext alone (n = 1, no associated data), into
// siv. T is laid out in room (at least len + 16 bytes, which it overwrites)
// with the CMAC subkey of its last block already added, so that the CMAC is
// one CBC pass over it.
bool S2v(SivContexts& contexts, const S2vKeys& keys, const unsigned char* in, size_t len, unsigned char* room,
         unsigned char* siv) {
    if (len < kBlock) {
        // T = dbl(D) xor pad(S), one whole block.
        LoadPartialBlock(in, len, room);
        room[len] = 0x80;
        XorBlock(room, keys.short_t);
        return ChainFromZero(contexts, room, 1, siv);
    }
    // T = S xorend D: the last block of S with D added.
    std::memcpy(room, in, len);
    XorBlock(room + len - kBlock, keys.d);
    const size_t blocks = (len + kBlock - 1) / kBlock;
    unsigned char* last = room + (blocks - 1) * kBlock;
    const size_t tail = len % kBlock;
    if (tail == 0) {
        XorBlock(last, keys.k1);
    } else {
        last[tail] = 0x80;
        std::memset(last + tail + 1, 0, kBlock - tail - 1);
        XorBlock(last, keys.k2);
    }
    return ChainFromZero(contexts, room, blocks, siv);
}

// The CTR pass of RFC 5297 (section 2.6) from IV siv: out[16, 16 + len) is
// in xor the key stream, the ECB pass over the counter blocks Q, Q + 1, ...
// (Q is siv with bits 63 and 31 cleared; the counter is a 128-bit big-endian
// number). The counter blocks and key stream are made in out[0, 16 + len),
// which they fit, and the ciphertext is written from the end backwards, so
// that each key-stream byte is used before its place is written; nothing of
// the key stream is left behind.
bool Ctr(SivContexts& contexts, const unsigned char* siv, const unsigned char* in, size_t len, unsigned char* out) {
    const size_t blocks = (len + kBlock - 1) / kBlock;
    uint64_t high = LoadBigEndian64(siv);
    uint64_t low = LoadBigEndian64(siv + 8) & ~(uint64_t{1} << 63 | uint64_t{1} << 31);
    for (size_t i = 0; i < blocks; ++i) {
        StoreBigEndian64(high, out + i * kBlock);
        StoreBigEndian64(low, out + i * kBlock + 8);
        if (++low == 0) ++high;
    }
    if (!Pass(contexts.ecb.get(), out, out, blocks)) return false;
    ScratchBlock block;  // the last block's unused key stream is wiped with it
    size_t at = len - len % kBlock;
    if (at != len) {
        // The last, partial block.
        LoadPartialBlock(in + at, len - at, block.data());
        XorBlock(block.data(), out + at);
        std::memcpy(out + kBlock + at, block.data(), len - at);
    }
    while (at > 0) {
        at -= kBlock;
        std::memcpy(block.data(), out + at, kBlock);
        XorBlock(block.data(), in + at);
        std::memcpy(out + kBlock + at, block.data(), kBlock);
    }
    return true;
}

// SivEncrypt of fewer than 16 bytes, the common key field: T, the counter
// block and the key stream are one block each, made in a scratch block.
bool SivEncryptShort(SivContexts& contexts, const S2vKeys& keys, const unsigned char* in, size_t len,
                     unsigned char* out) {
    ScratchBlock block;  // zero
    // T = dbl(D) xor pad(S), with the CMAC subkey, from a zero IV.
    std::memcpy(block.data(), in, len);
    block.data()[len] = 0x80;
    XorBlock(block.data(), keys.short_t);
    if (!ChainFromZero(contexts, block.data(), 1, out)) return false;
    // The counter block Q: the IV with bits 63 and 31 cleared.
    block.data()[8] &= 0x7f;
    block.data()[12] &= 0x7f;
    if (!Pass(contexts.ecb.get(), block.data(), block.data(), 1)) return false;
    for (size_t i = 0; i < len; ++i) out[kBlock + i] = in[i] ^ block.data()[i];
    return true;
}

// The whole encryption of len (at least one) bytes: the synthetic IV, then
// the ciphertext, into out (len + 16 bytes).
bool SivEncrypt(SivContexts& contexts, const S2vKeys& keys, const unsigned char* in, size_t len, unsigned char* out) {
    if (len < kBlock) return SivEncryptShort(contexts, keys, in, len, out);
    unsigned char siv[kBlock];
    if (!S2v(contexts, keys, in, len, out, siv) || !Ctr(contexts, siv, in, len, out)) return false;
    std::memcpy(out, siv, kBlock);
    return true;
}

// The keys S2V derives from the first half of the key, and the IV of the
// empty plaintext, computed with fresh contexts.
bool DeriveS2vKeys(SivContexts& contexts, S2vKeys* keys, unsigned char* empty_siv) {
    // L = AES(K, 0^128); k1 = dbl(L), k2 = dbl(k1) (RFC 4493).
    ScratchBlock block;
    if (!ChainFromZero(contexts, block.data(), 1, keys->k1)) return false;
    DoubleBlock(keys->k1);
    std::memcpy(keys->k2, keys->k1, kBlock);
    DoubleBlock(keys->k2);
    // D = CMAC(K, 0^128): one whole block.
    std::memcpy(block.data(), keys->k1, kBlock);
    if (!ChainFromZero(contexts, block.data(), 1, keys->d)) return false;
    std::memcpy(keys->short_t, keys->d, kBlock);
    DoubleBlock(keys->short_t);
    XorBlock(keys->short_t, keys->k1);
    return S2v(contexts, *keys, nullptr, 0, block.data(), empty_siv);
}

// A few keyed contexts kept for reuse, so that an encryption sets nothing up.
// Any thread takes one (or makes one when none is free) and gives it back;
// slots are atomic, so there is no lock, and no more than kSlots contexts are
// kept. Freeing the pool wipes their keys.
class ContextPool {
public:
    ContextPool() = default;
    ~ContextPool() { Clear(); }
    ContextPool(const ContextPool&) = delete;
    ContextPool& operator=(const ContextPool&) = delete;

    std::unique_ptr<SivContexts> Take() {
        for (std::atomic<SivContexts*>& slot : m_slots) {
            if (slot.load(std::memory_order_relaxed) == nullptr) continue;
            if (SivContexts* contexts = slot.exchange(nullptr, std::memory_order_acquire)) {
                return std::unique_ptr<SivContexts>(contexts);
            }
        }
        return nullptr;
    }

    void Give(std::unique_ptr<SivContexts> contexts) {
        for (std::atomic<SivContexts*>& slot : m_slots) {
            SivContexts* expected = nullptr;
            if (slot.compare_exchange_strong(expected, contexts.get(), std::memory_order_release,
                                             std::memory_order_relaxed)) {
                contexts.release();
                return;
            }
        }
    }  // no free slot: the contexts are freed

    // Frees every kept context. Not concurrent with Take or Give.
    void Clear() {
        for (std::atomic<SivContexts*>& slot : m_slots) {
            delete slot.exchange(nullptr, std::memory_order_acq_rel);
        }
    }

private:
    static constexpr size_t kSlots = 8;
    std::atomic<SivContexts*> m_slots[kSlots] = {};
};

}  // namespace

struct AesSivCipherSuite::Impl {
    ~Impl() { Clear(); }

    // Back to the state before Init, with the key wiped.
    void Clear() {
        cipher.reset();
        pool.Clear();
        cbc.reset();
        ecb.reset();
        OPENSSL_cleanse(key, sizeof(key));
        key_len = 0;
        OPENSSL_cleanse(&s2v, sizeof(s2v));
        OPENSSL_cleanse(empty_siv, sizeof(empty_siv));
        key_md5.clear();
    }

    bool ready() const { return cipher != nullptr; }

    unsigned char key[kAes256SivKeyBytes] = {0};
    size_t key_len = 0;
    S2vKeys s2v = {};  // derived from the first half of the key
    // The IV of the empty plaintext: OpenSSL's SIV ignores a zero-length
    // update and then fails its final step, so Decrypt checks this one itself.
    unsigned char empty_siv[kBlock] = {0};
    std::string key_md5;
    CipherPtr cbc;     // AES-CBC of the key's size
    CipherPtr ecb;     // AES-ECB of the key's size
    ContextPool pool;  // keyed contexts for Encrypt
    CipherPtr cipher;  // AES-SIV, for Decrypt; set last: non-null means the suite is ready
};

AesSivCipherSuite::AesSivCipherSuite(std::string name)
    : m_name(std::move(name)), m_id(NextSuiteId()), m_impl(new Impl) {}

AesSivCipherSuite::~AesSivCipherSuite() = default;

const char* AesSivCipherSuite::GetName() { return m_name.c_str(); }

int AesSivCipherSuite::Fail(int result, const char* msg) {
    RecordFailure(m_id, msg);
    return result;
}

// A failed Init leaves the suite uninitialised: nothing is encrypted with a
// key the caller meant to replace.
int AesSivCipherSuite::Init(const std::string& config) {
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
    impl.cbc.reset(EVP_CIPHER_fetch(nullptr, CbcName(key_len), nullptr));
    impl.ecb.reset(EVP_CIPHER_fetch(nullptr, EcbName(key_len), nullptr));
    std::unique_ptr<SivContexts> contexts = impl.cbc != nullptr && impl.ecb != nullptr
                                                ? NewContexts(impl.cbc.get(), impl.ecb.get(), impl.key, key_len)
                                                : nullptr;
    if (contexts == nullptr || !DeriveS2vKeys(*contexts, &impl.s2v, impl.empty_siv)) {
        impl.Clear();
        return Fail(kErrCrypto, "OpenSSL cannot compute AES-CMAC");
    }
    CipherPtr cipher(EVP_CIPHER_fetch(nullptr, key_len == kAes128SivKeyBytes ? "AES-128-SIV" : "AES-256-SIV", nullptr));
    if (cipher == nullptr) {
        impl.Clear();
        return Fail(kErrCrypto, "OpenSSL does not provide AES-SIV");
    }
    impl.pool.Give(std::move(contexts));
    impl.key_md5 = LowerHex(md5, md5_len);
    impl.cipher = std::move(cipher);
    return 0;
}

int AesSivCipherSuite::Encrypt(const unsigned char* in, int inlen, unsigned char* out, int& outlen) {
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
    Impl& impl = *m_impl;
    std::unique_ptr<SivContexts> contexts = impl.pool.Take();
    if (contexts == nullptr) {
        // Setting up may queue errors; the passes on keyed contexts do not.
        OpenSslErrorScope errors;
        contexts = NewContexts(impl.cbc.get(), impl.ecb.get(), impl.key, impl.key_len);
    }
    if (contexts == nullptr || !SivEncrypt(*contexts, impl.s2v, in, static_cast<size_t>(inlen), out)) {
        // A context whose chain is unknown is not given back.
        OPENSSL_cleanse(out, static_cast<size_t>(inlen) + kSivLength);
        return Fail(kErrCrypto, "Encrypt: OpenSSL AES-SIV encryption failed");
    }
    impl.pool.Give(std::move(contexts));
    outlen = kSivLength + inlen;
    return 0;
}

int AesSivCipherSuite::Decrypt(const unsigned char* in, int inlen, unsigned char* out, int& outlen) {
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
    if (ctx == nullptr || EVP_DecryptInit_ex2(ctx.get(), m_impl->cipher.get(), m_impl->key, nullptr, nullptr) != 1 ||
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

const std::string AesSivCipherSuite::GetCipherKeyMD5() { return m_impl->key_md5; }

const std::string& AesSivCipherSuite::CipherKeyMD5() const { return m_impl->key_md5; }

const std::string AesSivCipherSuite::GetErrMsg() {
    const FailureSlot* slot = FindFailure(m_id);
    return slot == nullptr ? std::string() : std::string(slot->msg);
}
