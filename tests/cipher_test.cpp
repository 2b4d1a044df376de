// AesSivCipherSuite (deterministic AES-SIV over OpenSSL) and the suite
// registry of CorvidaKVApi.
#include <openssl/err.h>
#include <openssl/evp.h>

#include <cctype>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "protobuf_api/aes_siv_cipher_suite.h"
#include "protobuf_api/corvida_kv_api.h"
#include "support/hex.h"

namespace {

using Bytes = std::vector<unsigned char>;

constexpr int kSiv = AesSivCipherSuite::kSivLength;

// Keys 00 01 02 ... of 32 and 64 bytes.
const char kKey128[] = "000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f";
const char kKey256[] =
    "000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f"
    "202122232425262728292a2b2c2d2e2f303132333435363738393a3b3c3d3e3f";

Bytes FromHex(const std::string& hex) {
    Bytes bytes;
    for (size_t i = 0; i + 1 < hex.size(); i += 2) {
        bytes.push_back(static_cast<unsigned char>(std::stoi(hex.substr(i, 2), nullptr, 16)));
    }
    return bytes;
}

std::string ToHex(const Bytes& bytes) { return corvida_test::Hex(bytes.data(), bytes.size()); }

Bytes FromText(const std::string& text) { return Bytes(text.begin(), text.end()); }

Bytes Pattern(size_t len) {
    Bytes bytes(len);
    for (size_t i = 0; i < len; ++i) bytes[i] = static_cast<unsigned char>(i * 131 + 7);
    return bytes;
}

// Encrypts plain; fails the test when the suite does.
Bytes Seal(AesSivCipherSuite& suite, const Bytes& plain) {
    Bytes out(plain.size() + kSiv);
    int outlen = static_cast<int>(out.size());
    EXPECT_EQ(0, suite.Encrypt(plain.data(), static_cast<int>(plain.size()), out.data(), outlen))
        << suite.GetErrMsg();
    EXPECT_EQ(static_cast<int>(out.size()), outlen);
    return out;
}

// Decrypts sealed into plain; returns the suite's result.
int Open(AesSivCipherSuite& suite, const Bytes& sealed, Bytes& plain) {
    plain.assign(sealed.size() > kSiv ? sealed.size() - kSiv : 1, 0xAA);
    int outlen = static_cast<int>(plain.size());
    const int ret = suite.Decrypt(sealed.data(), static_cast<int>(sealed.size()), plain.data(), outlen);
    if (ret == 0) {
        plain.resize(outlen);
    } else {
        EXPECT_EQ(0, outlen);
    }
    return ret;
}

std::unique_ptr<AesSivCipherSuite> MakeSuite(const std::string& key) {
    auto suite = std::make_unique<AesSivCipherSuite>("aes-siv");
    EXPECT_EQ(0, suite->Init(key)) << suite->GetErrMsg();
    return suite;
}

// True when the message holds no 6-digit run of the key text, in either case.
bool FreeOfKey(const std::string& msg, const std::string& key_hex) {
    std::string lower_msg = msg;
    for (char& c : lower_msg) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    for (size_t i = 0; i + 6 <= key_hex.size(); ++i) {
        std::string window = key_hex.substr(i, 6);
        for (char& c : window) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        if (lower_msg.find(window) != std::string::npos) return false;
    }
    return true;
}

TEST(AesSivCipherSuiteTest, NameIsTheConstructorArgument) {
    AesSivCipherSuite suite("table-key-suite");
    EXPECT_STREQ("table-key-suite", suite.GetName());
}

TEST(AesSivCipherSuiteTest, KeyMd5IsLowercaseHexOfRawKey) {
    AesSivCipherSuite suite("s");
    EXPECT_EQ("", suite.GetCipherKeyMD5());
    ASSERT_EQ(0, suite.Init(kKey128));
    EXPECT_EQ("b4ffcb23737cec315a4a4d1aa2a620ce", suite.GetCipherKeyMD5());

    std::string upper = kKey128;
    for (char& c : upper) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    AesSivCipherSuite upper_suite("s");
    ASSERT_EQ(0, upper_suite.Init(upper));
    EXPECT_EQ("b4ffcb23737cec315a4a4d1aa2a620ce", upper_suite.GetCipherKeyMD5());
}

TEST(AesSivCipherSuiteTest, KeyMd5Of256BitKey) {
    AesSivCipherSuite suite("s");
    ASSERT_EQ(0, suite.Init(kKey256));
    const Bytes key = FromHex(kKey256);
    unsigned char md[EVP_MAX_MD_SIZE];
    size_t md_len = 0;
    ASSERT_EQ(1, EVP_Q_digest(nullptr, "MD5", nullptr, key.data(), key.size(), md, &md_len));
    EXPECT_EQ(ToHex(Bytes(md, md + md_len)), suite.GetCipherKeyMD5());
}

// Expected outputs (IV || ciphertext, no associated data) computed with an
// independent AES-SIV implementation.
TEST(AesSivCipherSuiteTest, KnownAnswers) {
    auto s128 = MakeSuite(kKey128);
    EXPECT_EQ("6890e5685ed0253753a2121dab850fdf", ToHex(Seal(*s128, Bytes())));
    EXPECT_EQ("5da059e58e635d9dc1207eefe1dd564068", ToHex(Seal(*s128, FromText("a"))));
    EXPECT_EQ("ae3343a1d105f43489f9ede6c755ebbf73b8cc03364cf289d89dbdd713a6ba66a8",
              ToHex(Seal(*s128, FromText("corvida key field"))));

    auto s256 = MakeSuite(kKey256);
    EXPECT_EQ("d4fc53b9c44c2aeea87bfb8c983b136c", ToHex(Seal(*s256, Bytes())));
    EXPECT_EQ("ba092609c39c78a53203bb6c759c7396d9", ToHex(Seal(*s256, FromText("a"))));
    EXPECT_EQ("df101a0c5f8eb90a0fe9891adaaf16a8c4df02080e7fa1603eb826a453f1bf63",
              ToHex(Seal(*s256, FromText("0123456789abcdef"))));
}

// RFC 5297, A.1: checks that the OpenSSL AES-SIV the suite is built on
// follows the RFC, associated data included.
TEST(AesSivCipherSuiteTest, OpenSslMatchesRfc5297VectorA1) {
    const Bytes key = FromHex("fffefdfcfbfaf9f8f7f6f5f4f3f2f1f0f0f1f2f3f4f5f6f7f8f9fafbfcfdfeff");
    const Bytes ad = FromHex("101112131415161718191a1b1c1d1e1f2021222324252627");
    const Bytes plain = FromHex("112233445566778899aabbccddee");

    std::unique_ptr<EVP_CIPHER, decltype(&EVP_CIPHER_free)> cipher(
        EVP_CIPHER_fetch(nullptr, "AES-128-SIV", nullptr), &EVP_CIPHER_free);
    std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> ctx(EVP_CIPHER_CTX_new(),
                                                                        &EVP_CIPHER_CTX_free);
    ASSERT_NE(nullptr, cipher);
    ASSERT_NE(nullptr, ctx);
    Bytes out(plain.size());
    Bytes tag(kSiv);
    int len = 0;
    ASSERT_EQ(1, EVP_EncryptInit_ex2(ctx.get(), cipher.get(), key.data(), nullptr, nullptr));
    ASSERT_EQ(1, EVP_EncryptUpdate(ctx.get(), nullptr, &len, ad.data(), static_cast<int>(ad.size())));
    ASSERT_EQ(1, EVP_EncryptUpdate(ctx.get(), out.data(), &len, plain.data(), static_cast<int>(plain.size())));
    ASSERT_EQ(1, EVP_EncryptFinal_ex(ctx.get(), out.data() + len, &len));
    ASSERT_EQ(1, EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_AEAD_GET_TAG, kSiv, tag.data()));
    EXPECT_EQ("85632d07c6e8f37f950acd320a2ecc93", ToHex(tag));
    EXPECT_EQ("40c02b9690c4dc04daef7f6afe5c", ToHex(out));
}

// The suite passes no associated data: its output must equal OpenSSL's
// AES-SIV without associated data, IV first.
TEST(AesSivCipherSuiteTest, MatchesOpenSslWithoutAssociatedData) {
    const Bytes plain = Pattern(45);
    for (const char* key_hex : {kKey128, kKey256}) {
        const Bytes key = FromHex(key_hex);
        std::unique_ptr<EVP_CIPHER, decltype(&EVP_CIPHER_free)> cipher(
            EVP_CIPHER_fetch(nullptr, key.size() == 32 ? "AES-128-SIV" : "AES-256-SIV", nullptr),
            &EVP_CIPHER_free);
        std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> ctx(EVP_CIPHER_CTX_new(),
                                                                            &EVP_CIPHER_CTX_free);
        Bytes expected(kSiv + plain.size());
        int len = 0;
        ASSERT_EQ(1, EVP_EncryptInit_ex2(ctx.get(), cipher.get(), key.data(), nullptr, nullptr));
        ASSERT_EQ(1, EVP_EncryptUpdate(ctx.get(), expected.data() + kSiv, &len, plain.data(),
                                       static_cast<int>(plain.size())));
        ASSERT_EQ(1, EVP_EncryptFinal_ex(ctx.get(), expected.data() + kSiv + len, &len));
        ASSERT_EQ(1, EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_AEAD_GET_TAG, kSiv, expected.data()));

        auto suite = MakeSuite(key_hex);
        EXPECT_EQ(ToHex(expected), ToHex(Seal(*suite, plain))) << key_hex;
    }
}

// Every length from an empty plaintext to several blocks: the S2V chain's
// padding and subkeys and the CTR pass's partial last block.
TEST(AesSivCipherSuiteTest, MatchesOpenSslAtEveryLengthUpToSixBlocks) {
    for (const char* key_hex : {kKey128, kKey256}) {
        const Bytes key = FromHex(key_hex);
        auto suite = MakeSuite(key_hex);
        std::unique_ptr<EVP_CIPHER, decltype(&EVP_CIPHER_free)> cipher(
            EVP_CIPHER_fetch(nullptr, key.size() == 32 ? "AES-128-SIV" : "AES-256-SIV", nullptr),
            &EVP_CIPHER_free);
        for (size_t len = 1; len <= 6 * kSiv + 1; ++len) {
            const Bytes plain = Pattern(len);
            std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> ctx(EVP_CIPHER_CTX_new(),
                                                                                &EVP_CIPHER_CTX_free);
            Bytes expected(kSiv + len);
            int body = 0;
            int tail = 0;
            ASSERT_EQ(1, EVP_EncryptInit_ex2(ctx.get(), cipher.get(), key.data(), nullptr, nullptr));
            ASSERT_EQ(1, EVP_EncryptUpdate(ctx.get(), expected.data() + kSiv, &body, plain.data(),
                                           static_cast<int>(len)));
            ASSERT_EQ(1, EVP_EncryptFinal_ex(ctx.get(), expected.data() + kSiv + body, &tail));
            ASSERT_EQ(1, EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_AEAD_GET_TAG, kSiv, expected.data()));
            EXPECT_EQ(ToHex(expected), ToHex(Seal(*suite, plain))) << key_hex << ", length " << len;
        }
    }
}

// The suite's failures are its own: OpenSSL's error queue is left as the
// caller had it, after encryptions, decryptions and failures alike.
TEST(AesSivCipherSuiteTest, CallersErrorQueueIsLeftAsItWas) {
    auto suite = MakeSuite(kKey128);
    ERR_clear_error();
    ERR_raise(ERR_LIB_USER, 42);
    const unsigned long queued = ERR_peek_last_error();
    const Bytes plain = Pattern(40);
    for (int round = 0; round < 20; ++round) {
        const Bytes sealed = Seal(*suite, plain);
        Bytes opened;
        EXPECT_EQ(0, Open(*suite, sealed, opened));
        Bytes altered = sealed;
        altered[3] ^= 1;
        EXPECT_EQ(AesSivCipherSuite::kErrAuthentication, Open(*suite, altered, opened));
    }
    EXPECT_EQ(queued, ERR_peek_last_error());
    EXPECT_EQ(queued, ERR_get_error());
    EXPECT_EQ(0u, ERR_get_error());
}

TEST(AesSivCipherSuiteTest, KeyDigestWithoutACopyIsTheSameText) {
    auto suite = MakeSuite(kKey256);
    EXPECT_EQ(suite->CipherKeyMD5(), suite->GetCipherKeyMD5());
    AesSivCipherSuite fresh("fresh");
    EXPECT_EQ(fresh.CipherKeyMD5(), "");
}

class AesSivKeySizeTest : public ::testing::TestWithParam<const char*> {};

TEST_P(AesSivKeySizeTest, EncryptionIsDeterministic) {
    auto suite = MakeSuite(GetParam());
    const Bytes plain = FromText("user-4711");
    EXPECT_EQ(Seal(*suite, plain), Seal(*suite, plain));

    auto twin = MakeSuite(GetParam());
    EXPECT_EQ(Seal(*suite, plain), Seal(*twin, plain));
    EXPECT_NE(Seal(*suite, plain), Seal(*suite, FromText("user-4712")));
}

TEST_P(AesSivKeySizeTest, RoundTripOfEmptyOneByteAndLongInput) {
    auto suite = MakeSuite(GetParam());
    for (size_t len : {size_t{0}, size_t{1}, size_t{15}, size_t{16}, size_t{17}, size_t{65537}}) {
        const Bytes plain = Pattern(len);
        const Bytes sealed = Seal(*suite, plain);
        ASSERT_EQ(len + kSiv, sealed.size());
        Bytes opened;
        ASSERT_EQ(0, Open(*suite, sealed, opened)) << "length " << len << ": " << suite->GetErrMsg();
        EXPECT_EQ(plain, opened) << "length " << len;
    }
}

TEST_P(AesSivKeySizeTest, EveryAlteredByteIsDetected) {
    auto suite = MakeSuite(GetParam());
    for (const Bytes& plain : {Bytes(), FromText("corvida key field")}) {
        const Bytes sealed = Seal(*suite, plain);
        for (size_t pos = 0; pos < sealed.size(); ++pos) {
            for (unsigned char flip : {0x01, 0x80}) {
                Bytes altered = sealed;
                altered[pos] ^= flip;
                Bytes opened;
                EXPECT_EQ(AesSivCipherSuite::kErrAuthentication, Open(*suite, altered, opened))
                    << "byte " << pos << " of " << sealed.size();
                // Plaintext that failed authentication never reaches the caller.
                if (!plain.empty()) {
                    EXPECT_NE(plain, opened);
                }
            }
        }
    }
}

TEST_P(AesSivKeySizeTest, CiphertextUnderAnotherKeyIsRejected) {
    auto suite = MakeSuite(GetParam());
    auto other = MakeSuite(std::string(GetParam()).replace(0, 2, "ff"));
    for (const Bytes& plain : {Bytes(), FromText("x")}) {
        Bytes opened;
        EXPECT_EQ(AesSivCipherSuite::kErrAuthentication, Open(*other, Seal(*suite, plain), opened));
    }
}

INSTANTIATE_TEST_SUITE_P(BothKeySizes, AesSivKeySizeTest, ::testing::Values(kKey128, kKey256));

TEST(AesSivCipherSuiteTest, TruncatedOrExtendedCiphertextIsRejected) {
    auto suite = MakeSuite(kKey128);
    const Bytes sealed = Seal(*suite, FromText("abcdef"));
    Bytes opened;
    EXPECT_EQ(AesSivCipherSuite::kErrAuthentication, Open(*suite, Bytes(sealed.begin(), sealed.end() - 1), opened));
    Bytes extended = sealed;
    extended.push_back(0);
    EXPECT_EQ(AesSivCipherSuite::kErrAuthentication, Open(*suite, extended, opened));
}

TEST(AesSivCipherSuiteTest, EncryptNeedsRoomForIvAndCiphertext) {
    auto suite = MakeSuite(kKey128);
    for (size_t len : {size_t{0}, size_t{1}, size_t{33}}) {
        const Bytes plain = Pattern(len);
        Bytes out(len + kSiv, 0xEE);
        int outlen = static_cast<int>(len + kSiv);
        EXPECT_EQ(0, suite->Encrypt(plain.data(), static_cast<int>(len), out.data(), outlen));
        EXPECT_EQ(static_cast<int>(len + kSiv), outlen);

        Bytes untouched(len + kSiv, 0xEE);
        outlen = static_cast<int>(len + kSiv - 1);
        EXPECT_EQ(AesSivCipherSuite::kErrBufferTooSmall,
                  suite->Encrypt(plain.data(), static_cast<int>(len), untouched.data(), outlen));
        EXPECT_EQ(0, outlen);
        EXPECT_EQ(Bytes(len + kSiv, 0xEE), untouched);
        EXPECT_NE("", suite->GetErrMsg());
    }
}

TEST(AesSivCipherSuiteTest, DecryptNeedsRoomForPlaintext) {
    auto suite = MakeSuite(kKey128);
    const Bytes plain = FromText("twelve bytes");
    const Bytes sealed = Seal(*suite, plain);
    Bytes out(plain.size());
    int outlen = static_cast<int>(plain.size());
    ASSERT_EQ(0, suite->Decrypt(sealed.data(), static_cast<int>(sealed.size()), out.data(), outlen));
    EXPECT_EQ(plain, out);
    EXPECT_EQ(static_cast<int>(plain.size()), outlen);

    outlen = static_cast<int>(plain.size()) - 1;
    EXPECT_EQ(AesSivCipherSuite::kErrBufferTooSmall,
              suite->Decrypt(sealed.data(), static_cast<int>(sealed.size()), out.data(), outlen));
    EXPECT_EQ(0, outlen);
}

TEST(AesSivCipherSuiteTest, DecryptOfEmptyPlaintextNeedsNoOutputRoom) {
    auto suite = MakeSuite(kKey128);
    const Bytes sealed = Seal(*suite, Bytes());
    unsigned char out = 0x5A;
    int outlen = 0;
    EXPECT_EQ(0, suite->Decrypt(sealed.data(), kSiv, &out, outlen));
    EXPECT_EQ(0, outlen);
    EXPECT_EQ(0x5A, out);
}

TEST(AesSivCipherSuiteTest, DecryptRejectsInputShorterThanIv) {
    auto suite = MakeSuite(kKey128);
    const Bytes sealed = Seal(*suite, FromText("k"));
    for (int len = 0; len < kSiv; ++len) {
        unsigned char out[32];
        int outlen = sizeof(out);
        EXPECT_EQ(AesSivCipherSuite::kErrInputTooShort, suite->Decrypt(sealed.data(), len, out, outlen)) << len;
        EXPECT_EQ(0, outlen);
    }
}

TEST(AesSivCipherSuiteTest, InvalidArgumentsAreRefused) {
    auto suite = MakeSuite(kKey128);
    unsigned char in[4] = {1, 2, 3, 4};
    unsigned char out[64];
    int outlen = sizeof(out);
    EXPECT_EQ(AesSivCipherSuite::kErrInvalidArgument, suite->Encrypt(in, -1, out, outlen));
    EXPECT_EQ(0, outlen);
    outlen = sizeof(out);
    EXPECT_EQ(AesSivCipherSuite::kErrInvalidArgument, suite->Encrypt(nullptr, 4, out, outlen));
    outlen = sizeof(out);
    EXPECT_EQ(AesSivCipherSuite::kErrInvalidArgument, suite->Encrypt(in, 4, nullptr, outlen));
    outlen = sizeof(out);
    EXPECT_EQ(AesSivCipherSuite::kErrInvalidArgument, suite->Decrypt(nullptr, 20, out, outlen));
    outlen = sizeof(out);
    EXPECT_EQ(AesSivCipherSuite::kErrInvalidArgument, suite->Decrypt(out, -1, out, outlen));
    outlen = sizeof(out);
    EXPECT_EQ(AesSivCipherSuite::kErrInvalidArgument, suite->Decrypt(out, 20, nullptr, outlen));

    // A null input is fine when there is nothing to read.
    outlen = sizeof(out);
    EXPECT_EQ(0, suite->Encrypt(nullptr, 0, out, outlen));
    EXPECT_EQ(kSiv, outlen);
    EXPECT_EQ(ToHex(Seal(*suite, Bytes())), ToHex(Bytes(out, out + kSiv)));
}

TEST(AesSivCipherSuiteTest, NothingWorksBeforeInit) {
    AesSivCipherSuite suite("s");
    EXPECT_EQ("", suite.GetErrMsg());
    unsigned char in[kSiv + 4] = {0};
    unsigned char out[64];
    int outlen = sizeof(out);
    EXPECT_EQ(AesSivCipherSuite::kErrNotInitialized, suite.Encrypt(in, 4, out, outlen));
    EXPECT_EQ(0, outlen);
    EXPECT_NE("", suite.GetErrMsg());
    outlen = sizeof(out);
    EXPECT_EQ(AesSivCipherSuite::kErrNotInitialized, suite.Decrypt(in, sizeof(in), out, outlen));
    EXPECT_EQ(0, outlen);
}

TEST(AesSivCipherSuiteTest, InitRefusesAnythingButHexKeysOfBothSizes) {
    const std::string k = kKey128;
    const std::string refused[] = {
        "",
        "0",
        k.substr(0, 32),                // 16-byte key
        k.substr(0, 63),                // odd number of digits
        k + "0",                        // odd number of digits
        k + "00",                       // 33-byte key
        std::string(kKey256) + "00",    // 65-byte key
        std::string(kKey256, 127),      // odd
        k.substr(0, 62) + "g0",         // not hex
        k.substr(0, 63) + "G",          // not hex
        "0x" + k.substr(0, 62),         // prefix
        " " + k.substr(0, 63),          // white space
        k.substr(0, 63) + "\n",         // trailing newline
        k.substr(0, 30) + "-" + k.substr(31)  // separator
    };
    for (const std::string& config : refused) {
        AesSivCipherSuite suite("s");
        EXPECT_EQ(AesSivCipherSuite::kErrBadKey, suite.Init(config)) << '"' << config << '"';
        EXPECT_NE("", suite.GetErrMsg());
        EXPECT_EQ("", suite.GetCipherKeyMD5());
        unsigned char out[32];
        int outlen = sizeof(out);
        EXPECT_EQ(AesSivCipherSuite::kErrNotInitialized, suite.Encrypt(out, 1, out + 16, outlen));
    }
}

TEST(AesSivCipherSuiteTest, UppercaseKeyEqualsLowercaseKey) {
    std::string upper = kKey256;
    for (char& c : upper) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    auto lower_suite = MakeSuite(kKey256);
    auto upper_suite = MakeSuite(upper);
    EXPECT_EQ(Seal(*lower_suite, FromText("key")), Seal(*upper_suite, FromText("key")));
}

TEST(AesSivCipherSuiteTest, FailedReInitLeavesSuiteUninitialised) {
    auto suite = MakeSuite(kKey128);
    EXPECT_EQ(AesSivCipherSuite::kErrBadKey, suite->Init("zz"));
    EXPECT_EQ("", suite->GetCipherKeyMD5());
    unsigned char out[32];
    int outlen = sizeof(out);
    EXPECT_EQ(AesSivCipherSuite::kErrNotInitialized, suite->Encrypt(out, 1, out + 16, outlen));

    ASSERT_EQ(0, suite->Init(kKey256));
    EXPECT_EQ(ToHex(Seal(*MakeSuite(kKey256), FromText("v"))), ToHex(Seal(*suite, FromText("v"))));
}

TEST(AesSivCipherSuiteTest, ErrorMessagesNeverCarryKeyMaterial) {
    const std::string key = kKey256;
    std::vector<std::string> messages;

    AesSivCipherSuite bad("s");
    bad.Init(key.substr(0, 127) + "x");
    messages.push_back(bad.GetErrMsg());
    bad.Init(key.substr(0, 126));
    messages.push_back(bad.GetErrMsg());

    auto suite = MakeSuite(key);
    Bytes sealed = Seal(*suite, FromText("secret"));
    sealed[3] ^= 1;
    Bytes opened;
    int outlen = 0;
    suite->Decrypt(sealed.data(), static_cast<int>(sealed.size()), nullptr, outlen);
    messages.push_back(suite->GetErrMsg());
    Open(*suite, sealed, opened);
    messages.push_back(suite->GetErrMsg());
    outlen = 3;
    suite->Encrypt(sealed.data(), 4, opened.data(), outlen);
    messages.push_back(suite->GetErrMsg());

    for (const std::string& msg : messages) {
        EXPECT_NE("", msg);
        EXPECT_TRUE(FreeOfKey(msg, key)) << msg;
    }
}

TEST(AesSivCipherSuiteTest, ErrorMessageBelongsToItsSuiteAndThread) {
    auto a = MakeSuite(kKey128);
    auto b = MakeSuite(kKey128);
    unsigned char buf[32];
    int outlen = 1;
    EXPECT_EQ(AesSivCipherSuite::kErrBufferTooSmall, a->Encrypt(buf, 1, buf + 8, outlen));
    const std::string a_msg = a->GetErrMsg();
    outlen = sizeof(buf);
    EXPECT_EQ(AesSivCipherSuite::kErrInputTooShort, b->Decrypt(buf, 3, buf + 8, outlen));
    EXPECT_NE("", a_msg);
    EXPECT_NE(a_msg, b->GetErrMsg());
    EXPECT_EQ(a_msg, a->GetErrMsg());

    // Another thread has its own failure text and does not see this one.
    std::string seen_there;
    std::thread([&] { seen_there = a->GetErrMsg(); }).join();
    EXPECT_EQ("", seen_there);
    std::thread([&] {
        unsigned char in[2] = {0};
        int len = sizeof(in);
        a->Decrypt(in, sizeof(in), in, len);
    }).join();
    EXPECT_EQ(a_msg, a->GetErrMsg());
}

TEST(AesSivCipherSuiteTest, ConcurrentCallsGiveIdenticalResults) {
    auto suite = MakeSuite(kKey256);
    const Bytes plain = Pattern(100);
    const Bytes expected = Seal(*suite, plain);

    constexpr int kThreads = 4;
    constexpr int kRounds = 300;
    std::vector<int> mismatches(kThreads, 0);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kRounds; ++i) {
                Bytes out(plain.size() + kSiv);
                int outlen = static_cast<int>(out.size());
                Bytes back(plain.size());
                int backlen = static_cast<int>(back.size());
                if (suite->Encrypt(plain.data(), static_cast<int>(plain.size()), out.data(), outlen) != 0 ||
                    out != expected ||
                    suite->Decrypt(out.data(), outlen, back.data(), backlen) != 0 || back != plain) {
                    ++mismatches[t];
                }
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(std::vector<int>(kThreads, 0), mismatches);
}

// A suite that reports its own destruction.
class FakeSuite : public CipherSuite {
public:
    FakeSuite(const char* name, int* destroyed) : m_name(name), m_destroyed(destroyed) {}
    ~FakeSuite() override { ++*m_destroyed; }
    const char* GetName() override { return m_name; }
    int Init(const std::string&) override { return 0; }
    int Encrypt(const unsigned char*, int, unsigned char*, int&) override { return -1; }
    int Decrypt(const unsigned char*, int, unsigned char*, int&) override { return -1; }
    const std::string GetCipherKeyMD5() override { return ""; }
    const std::string GetErrMsg() override { return ""; }

private:
    const char* m_name;
    int* m_destroyed;
};

TEST(CorvidaKVApiTest, AddedSuitesAreFoundByName) {
    CORVIDA_KV::CorvidaKVApi api;
    auto aes = std::make_unique<AesSivCipherSuite>("aes");
    CipherSuite* aes_ptr = aes.get();
    int destroyed = 0;
    auto fake = std::make_unique<FakeSuite>("fake", &destroyed);
    CipherSuite* fake_ptr = fake.get();
    EXPECT_EQ(0, api.AddCipherSuite(std::move(aes)));
    EXPECT_EQ(0, api.AddCipherSuite(std::move(fake)));
    EXPECT_EQ(aes_ptr, api.GetCipherSuite("aes"));
    EXPECT_EQ(fake_ptr, api.GetCipherSuite("fake"));
    EXPECT_EQ(0, destroyed);
}

TEST(CorvidaKVApiTest, NullSuiteIsRefused) {
    CORVIDA_KV::CorvidaKVApi api;
    EXPECT_EQ(-1, api.AddCipherSuite(nullptr));
    int destroyed = 0;
    EXPECT_EQ(-1, api.AddCipherSuite(std::make_unique<FakeSuite>(nullptr, &destroyed)));
    EXPECT_EQ(1, destroyed);
}

TEST(CorvidaKVApiTest, DuplicateNameKeepsThePresentSuite) {
    int first_destroyed = 0;
    int second_destroyed = 0;
    {
        CORVIDA_KV::CorvidaKVApi api;
        auto first = std::make_unique<FakeSuite>("dup", &first_destroyed);
        CipherSuite* first_ptr = first.get();
        ASSERT_EQ(0, api.AddCipherSuite(std::move(first)));
        EXPECT_EQ(-2, api.AddCipherSuite(std::make_unique<FakeSuite>("dup", &second_destroyed)));
        EXPECT_EQ(first_ptr, api.GetCipherSuite("dup"));
        EXPECT_EQ(0, first_destroyed);
        EXPECT_EQ(1, second_destroyed);
    }
    // The object owns its suites.
    EXPECT_EQ(1, first_destroyed);
}

TEST(CorvidaKVApiTest, NullAndUnknownNamesFindNothing) {
    CORVIDA_KV::CorvidaKVApi api;
    EXPECT_EQ(nullptr, api.GetCipherSuite(nullptr));
    EXPECT_EQ(nullptr, api.GetCipherSuite("aes"));
    ASSERT_EQ(0, api.AddCipherSuite(std::make_unique<AesSivCipherSuite>("aes")));
    EXPECT_EQ(nullptr, api.GetCipherSuite(nullptr));
    EXPECT_EQ(nullptr, api.GetCipherSuite("AES"));
    EXPECT_EQ(nullptr, api.GetCipherSuite("aes "));
    EXPECT_EQ(nullptr, api.GetCipherSuite(""));
    EXPECT_NE(nullptr, api.GetCipherSuite("aes"));
}

}  // namespace
