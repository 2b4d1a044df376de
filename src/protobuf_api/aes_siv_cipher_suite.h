// Deterministic authenticated encryption of key fields: AES-SIV (RFC 5297)
// over OpenSSL 3.
//
// The same plaintext under the same key always gives the same ciphertext, so
// an encrypted key field still addresses its record. The output is the 16-byte
// synthetic IV followed by the ciphertext (as long as the plaintext); Decrypt
// fails on any altered byte. No associated data is authenticated.
//
// Init() takes the key as hex text: 64 hex digits (32 bytes, AES-128-SIV) or
// 128 hex digits (64 bytes, AES-256-SIV), upper or lower case; anything else
// is refused. Until Init succeeds, Encrypt and Decrypt fail; a failed Init
// also drops the key of an earlier one, so nothing is encrypted with a key the
// caller meant to replace. Key material never appears in an error message or
// a log line, and the suite wipes its copies of the key when it is destroyed
// or re-initialised.
//
// Encrypt and Decrypt take in, inlen and out, and outlen as the capacity of
// out; on success outlen is the number of bytes written, on failure it is 0
// and out holds no plaintext. in and out must not overlap.
//
// Init must not run concurrently with any other call. After Init, Encrypt,
// Decrypt, GetCipherKeyMD5 and GetErrMsg may be called from several threads
// at once: each call works on OpenSSL contexts of its own, and failure texts
// are kept per thread, so GetErrMsg reports the last failure of this suite in
// the calling thread ("" when there was none). A thread remembers the
// failures of the 8 suites that failed on it most recently; a successful call
// does not clear the text.
//
// Encrypt sets nothing up per call: Init keys an AES-CBC context with the S2V
// half of the key and an AES-ECB context with the CTR half, derives the CMAC
// subkeys and S2V's first block once, and encryptions reuse such keyed
// contexts from a small pool, making more when many threads encrypt at once.
// Each pass of AES-SIV is one EVP call over all its blocks: S2V's CMAC is the
// CBC chain from a zero IV over T (the last block with its subkey added),
// whose last block is the MAC; the CTR pass is the ECB pass over the counter
// blocks, added to the plaintext. Both are laid out in the output buffer,
// which they fit, so an encryption allocates nothing and leaves nothing of
// the plaintext behind. OpenSSL's own AES-SIV cipher accepts one operation
// per keying, and keying it fetches its algorithms anew each time, which
// would cost twenty times the encryption; Decrypt still uses it, so every
// ciphertext Encrypt writes is checked by OpenSSL's SIV when it is opened.
#ifndef CORVIDA_PROTOBUF_API_AES_SIV_CIPHER_SUITE_H_
#define CORVIDA_PROTOBUF_API_AES_SIV_CIPHER_SUITE_H_

#include <cstdint>
#include <memory>
#include <string>

#include "protobuf_api/cipher_suite_base.h"

class AesSivCipherSuite : public CipherSuite {
public:
    // Length of the synthetic IV that precedes every ciphertext.
    static constexpr int kSivLength = 16;

    // Results of Init, Encrypt and Decrypt (0 is success).
    static constexpr int kErrInvalidArgument = -1;  // null pointer or negative length
    static constexpr int kErrNotInitialized = -2;   // Init has not succeeded
    static constexpr int kErrBadKey = -3;           // Init: key text refused
    static constexpr int kErrBufferTooSmall = -4;   // output capacity too small
    static constexpr int kErrInputTooShort = -5;    // Decrypt: fewer than kSivLength bytes
    static constexpr int kErrAuthentication = -6;   // Decrypt: input altered or wrong key
    static constexpr int kErrCrypto = -7;           // OpenSSL failed (out of memory, missing algorithm)

    // A suite without a key, named name (the name tables give in their
    // corvida_field_cipher_suite option).
    explicit AesSivCipherSuite(std::string name);
    // Wipes the key.
    ~AesSivCipherSuite() override;

    AesSivCipherSuite(const AesSivCipherSuite&) = delete;
    AesSivCipherSuite& operator=(const AesSivCipherSuite&) = delete;

    // The name given to the constructor.
    const char* GetName() override;

    // Takes the key as hex text (64 or 128 digits). Returns 0; kErrBadKey
    // for any other text, or kErrCrypto when OpenSSL lacks an algorithm: the
    // suite then has no key at all.
    int Init(const std::string& config) override;

    // Writes the 16-byte synthetic IV and the ciphertext (inlen + 16 bytes)
    // to out. Returns 0; kErrInvalidArgument, kErrNotInitialized,
    // kErrBufferTooSmall (outlen below inlen + 16) or kErrCrypto, with outlen
    // 0.
    int Encrypt(const unsigned char* in, int inlen, unsigned char* out, int& outlen) override;

    // Checks and decrypts the output of Encrypt (inlen - 16 bytes of plain
    // text). Returns 0; kErrInvalidArgument, kErrNotInitialized,
    // kErrInputTooShort, kErrBufferTooSmall, kErrAuthentication (an altered
    // byte or another key) or kErrCrypto, with outlen 0 and no plain text in
    // out.
    int Decrypt(const unsigned char* in, int inlen, unsigned char* out, int& outlen) override;

    // Lowercase hex MD5 of the raw key bytes; empty before a successful Init.
    const std::string GetCipherKeyMD5() override;
    // The same text, without a copy; valid until the next Init.
    const std::string& CipherKeyMD5() const;

    // Why the last failing call of this suite in the calling thread failed;
    // empty when none did.
    const std::string GetErrMsg() override;

private:
    struct Impl;

    // Records msg (a string literal, never key material) as the calling
    // thread's last failure of this suite and returns result.
    int Fail(int result, const char* msg);

    std::string m_name;
    const uint64_t m_id;  // never reused: keys this suite's per-thread failure text
    std::unique_ptr<Impl> m_impl;
};

#endif  // CORVIDA_PROTOBUF_API_AES_SIV_CIPHER_SUITE_H_
