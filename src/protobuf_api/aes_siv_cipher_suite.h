// Deterministic authenticated encryption of key fields: AES-SIV (RFC 5297)
// over OpenSSL 3.
//
// The same plaintext under the same key always gives the same ciphertext, so
// an encrypted key field still addresses its record. The output is the 16-byte
// synthetic IV followed by the ciphertext (as long as the plaintext); Decrypt
// fails on any altered byte.
//
// Init() takes the key as hex text: 64 hex digits (32 bytes, AES-128-SIV) or
// 128 hex digits (64 bytes, AES-256-SIV); anything else is refused. Until Init
// succeeds, Encrypt and Decrypt fail. Key material never appears in an error
// message or a log line.
//
// After Init, Encrypt, Decrypt and GetCipherKeyMD5 may be called from several
// threads at once; GetErrMsg then reports the last failure of the calling
// thread.
#ifndef CORVIDA_PROTOBUF_API_AES_SIV_CIPHER_SUITE_H_
#define CORVIDA_PROTOBUF_API_AES_SIV_CIPHER_SUITE_H_

#include <string>
#include <vector>

#include "protobuf_api/cipher_suite_base.h"

class AesSivCipherSuite : public CipherSuite {
public:
    // Length of the synthetic IV that precedes every ciphertext.
    static constexpr int kSivLength = 16;

    explicit AesSivCipherSuite(std::string name);
    ~AesSivCipherSuite() override;

    AesSivCipherSuite(const AesSivCipherSuite&) = delete;
    AesSivCipherSuite& operator=(const AesSivCipherSuite&) = delete;

    const char* GetName() override;
    int Init(const std::string& config) override;
    int Encrypt(const unsigned char* in, int inlen, unsigned char* out, int& outlen) override;
    int Decrypt(const unsigned char* in, int inlen, unsigned char* out, int& outlen) override;
    const std::string GetCipherKeyMD5() override;
    const std::string GetErrMsg() override;

private:
    struct Impl;

    std::string m_name;
    Impl* m_impl;
};

#endif  // CORVIDA_PROTOBUF_API_AES_SIV_CIPHER_SUITE_H_
