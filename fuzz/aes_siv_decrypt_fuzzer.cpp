// AesSivCipherSuite on hostile input. The input gives a plaintext, a list of
// edits to its ciphertext (flip, insert, delete, truncate) and a raw blob.
//
// Checks: the untouched ciphertext decrypts to the plaintext; an altered
// ciphertext or the raw blob decrypts only when it is the genuine ciphertext
// of what it decrypts to (libFuzzer readily copies a ciphertext seen in an
// earlier run into the input; a forgery would need 2^128 tries), and a failed
// decryption leaves outlen 0; capacities too small fail cleanly; Init refuses
// key text that is not 64 or 128 hex digits; and the encryption is, byte for
// byte and result for result, that of the suite kept in tests/reference
// (which keys OpenSSL's own AES-SIV for every call).
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "protobuf_api/aes_siv_cipher_suite.h"
#include "reference/reference_aes_siv_cipher_suite.h"

namespace {

// The test tables' AES-128-SIV key: the bytes 00 01 ... 1f.
constexpr char kKeyHex[] = "000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f";

AesSivCipherSuite& Suite() {
    static AesSivCipherSuite* suite = [] {
        auto* s = new AesSivCipherSuite("aes128");
        FUZZ_CHECK(s->Init(kKeyHex) == 0);
        return s;
    }();
    return *suite;
}

ReferenceAesSivCipherSuite& Reference() {
    static ReferenceAesSivCipherSuite* suite = [] {
        auto* s = new ReferenceAesSivCipherSuite("aes128");
        FUZZ_CHECK(s->Init(kKeyHex) == 0);
        return s;
    }();
    return *suite;
}

int Decrypt(AesSivCipherSuite& suite, const std::string& in, std::vector<unsigned char>& out, int& outlen) {
    out.assign(in.size() + 1, 0);
    outlen = static_cast<int>(out.size());
    return suite.Decrypt(reinterpret_cast<const unsigned char*>(in.data()), static_cast<int>(in.size()), out.data(),
                         outlen);
}

std::string Encrypt(AesSivCipherSuite& suite, const std::string& plain) {
    std::string cipher(plain.size() + AesSivCipherSuite::kSivLength, '\0');
    int cipherlen = static_cast<int>(cipher.size());
    FUZZ_CHECK(suite.Encrypt(reinterpret_cast<const unsigned char*>(plain.data()), static_cast<int>(plain.size()),
                             reinterpret_cast<unsigned char*>(&cipher[0]), cipherlen) == 0);
    return cipher;
}

// Bytes that are not a ciphertext of the suite must not decrypt; bytes that
// do decrypt must be the ciphertext of their plaintext.
void CheckAuthentic(AesSivCipherSuite& suite, const std::string& bytes) {
    std::vector<unsigned char> out;
    int outlen = 0;
    if (Decrypt(suite, bytes, out, outlen) != 0) {
        FUZZ_CHECK(outlen == 0);
        return;
    }
    const std::string plain(reinterpret_cast<const char*>(out.data()), static_cast<size_t>(outlen));
    FUZZ_CHECK(Encrypt(suite, plain) == bytes);
}

void Alter(FuzzedDataProvider& in, std::string& bytes) {
    const int edits = in.ConsumeIntegralInRange<int>(1, 4);
    for (int i = 0; i < edits; ++i) {
        const size_t pos = bytes.empty() ? 0 : in.ConsumeIntegralInRange<size_t>(0, bytes.size() - 1);
        switch (in.ConsumeIntegralInRange<int>(0, 3)) {
            case 0:
                if (!bytes.empty()) bytes[pos] = static_cast<char>(bytes[pos] ^ in.ConsumeIntegralInRange<int>(1, 255));
                break;
            case 1: bytes.insert(pos, 1, static_cast<char>(in.ConsumeIntegral<uint8_t>())); break;
            case 2:
                if (!bytes.empty()) bytes.erase(pos, 1);
                break;
            default: bytes.resize(pos); break;
        }
    }
}

// Init with fuzzed key text: accepted only when it is 64 or 128 hex digits.
void CheckInit(const std::string& text) {
    AesSivCipherSuite suite("fuzz");
    const bool hex = !text.empty() && text.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos;
    const bool expected = hex && (text.size() == 64 || text.size() == 128);
    FUZZ_CHECK((suite.Init(text) == 0) == expected);
    FUZZ_CHECK(suite.GetCipherKeyMD5().size() == (expected ? 32u : 0u));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider in(data, size);
    AesSivCipherSuite& suite = Suite();
    const std::string plain = in.ConsumeRandomLengthString(512);

    std::string cipher(plain.size() + AesSivCipherSuite::kSivLength, '\0');
    int cipherlen = static_cast<int>(cipher.size()) - in.ConsumeIntegralInRange<int>(0, 1);
    const int capacity = cipherlen;
    const int enc = suite.Encrypt(reinterpret_cast<const unsigned char*>(plain.data()), static_cast<int>(plain.size()),
                                  reinterpret_cast<unsigned char*>(&cipher[0]), cipherlen);
    std::string reference(cipher.size(), '\0');
    int reference_len = capacity;
    FUZZ_CHECK(Reference().Encrypt(reinterpret_cast<const unsigned char*>(plain.data()), static_cast<int>(plain.size()),
                                   reinterpret_cast<unsigned char*>(&reference[0]), reference_len) == enc);
    FUZZ_CHECK(reference_len == cipherlen && reference == cipher);
    if (cipherlen < static_cast<int>(cipher.size()) && enc != 0) {
        FUZZ_CHECK(enc == AesSivCipherSuite::kErrBufferTooSmall && cipherlen == 0);
        return 0;
    }
    FUZZ_CHECK(enc == 0 && cipherlen == static_cast<int>(cipher.size()));

    std::vector<unsigned char> out;
    int outlen = 0;
    FUZZ_CHECK(Decrypt(suite, cipher, out, outlen) == 0);
    FUZZ_CHECK(outlen == static_cast<int>(plain.size()) && std::memcmp(out.data(), plain.data(), plain.size()) == 0);

    std::string altered = cipher;
    Alter(in, altered);
    CheckAuthentic(suite, altered);
    CheckAuthentic(suite, in.ConsumeRandomLengthString(512));

    CheckInit(in.ConsumeRemainingBytesAsString());
    return 0;
}
