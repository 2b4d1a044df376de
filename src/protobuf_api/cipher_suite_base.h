// The interface of one field-encryption algorithm with its key.
//
// Encrypted key fields must encrypt to the same bytes every time, or a key
// would address nothing: suites used for key fields are deterministic.
//
// The order of the virtual operations is part of the interface (suites are
// handed across library boundaries); do not reorder them.
#ifndef CORVIDA_PROTOBUF_API_CIPHER_SUITE_BASE_H_
#define CORVIDA_PROTOBUF_API_CIPHER_SUITE_BASE_H_

#include <string>

class CipherSuite {
public:
    virtual ~CipherSuite() {}

    // The suite's name, as tables name it in their cipher-suite option.
    virtual const char* GetName() = 0;

    // Sets the suite up from a configuration text (for AesSivCipherSuite,
    // the key as hex text). 0 on success, else a failure of the suite's own.
    virtual int Init(const std::string& config) = 0;

    // Encrypts inlen bytes at in into out. outlen carries the capacity of out
    // in and the length produced out. 0 on success; on failure the contents
    // of out and outlen are the suite's to define (AesSivCipherSuite: outlen
    // 0, no plaintext in out), and the caller must not use them.
    virtual int Encrypt(const unsigned char* in, int inlen, unsigned char* out, int& outlen) = 0;

    // Decrypts inlen bytes at in into out; same contract as Encrypt. Fails on
    // any altered byte.
    virtual int Decrypt(const unsigned char* in, int inlen, unsigned char* out, int& outlen) = 0;

    // Lowercase hex MD5 digest of the suite's key; tables record it so that a
    // client with another key refuses to build keys.
    virtual const std::string GetCipherKeyMD5() = 0;

    // Text of the last failure; empty when there was none.
    virtual const std::string GetErrMsg() = 0;
};

#endif  // CORVIDA_PROTOBUF_API_CIPHER_SUITE_BASE_H_
