// Encrypted key fields of the guide's Card table: configuring the AES-SIV
// suite, the encrypted key, and what the key digest check refuses.
#include <cstring>
#include <memory>
#include <string>

#include "expect.h"
#include "guide.pb.h"
#include "protobuf_api/aes_siv_cipher_suite.h"
#include "protobuf_api/protobuf_util.h"

using PROTOBUF_UTIL::ProtobufUtil;

namespace {

// The demo key of the "cards" suite. A real key comes from your secret store.
const char kCardsKey[] = "00112233445566778899aabbccddeeff102132435465768798a9bacbdcedfe0f";

bank::Card SampleCard() {
    bank::Card card;
    card.set_card_number("4000123412341234");
    card.set_account_id(300);
    card.ByteSizeLong();
    return card;
}

}  // namespace

int main() {
    PLOGCATEGORYINST log;
    plog_category_init(&log, "guide", PLOG_PRIORITY_ERROR);
    std::unique_ptr<tagtbl_idl> idl(new tagtbl_idl);  // receives the ciphertext: on the heap
    const bank::Card card = SampleCard();

    // [START configure]
    CORVIDA_KV::CorvidaKVApi kv;
    std::unique_ptr<AesSivCipherSuite> suite(new AesSivCipherSuite("cards"));  // the name tables give
    int ret = suite->Init(kCardsKey);  // 64 hex digits: AES-128-SIV; 128 hex digits: AES-256-SIV
    Expect(ret == 0, "Init takes the key");
    // The value to record in the table's corvida_cipher_md5 option:
    Expect(suite->GetCipherKeyMD5() == "df669d27ff4ec90ba62a7fb07b5af670", "the key's MD5");
    ret = kv.AddCipherSuite(std::move(suite));  // kv owns the suite from now on
    Expect(ret == 0, "AddCipherSuite");
    // [END configure]

    // [START encrypted-key]
    uint8_t key[1024];
    int32_t size = sizeof(key);
    ret = ProtobufUtil::ExtractMsgKey(&kv, card, key, size, idl.get(), &log, true);
    // card_number (field 1) is marked corvida_crypto: the key holds its
    // ciphertext under the field's own tag, as a length-delimited field of
    // 16 + 16 bytes (the synthetic IV, then as many bytes as the plain text).
    Expect(ret == 0 && size == 2 + 16 + 16 && key[0] == 0x0a && key[1] == 32, "an encrypted key field");

    // The same card number always gives the same key...
    uint8_t again[1024];
    int32_t again_size = sizeof(again);
    ret = ProtobufUtil::ExtractMsgKey(&kv, card, again, again_size, idl.get(), &log, true);
    Expect(ret == 0 && again_size == size && std::memcmp(key, again, size) == 0, "encryption is deterministic");

    // ...and the suite decrypts it.
    unsigned char plain[64];
    int plain_len = sizeof(plain);
    ret = kv.GetCipherSuite("cards")->Decrypt(key + 2, size - 2, plain, plain_len);
    Expect(ret == 0 && std::string(reinterpret_cast<char*>(plain), plain_len) == "4000123412341234", "Decrypt");
    // [END encrypted-key]

    // [START wrong-key]
    // A client whose "cards" suite holds another key refuses to build keys:
    // its ciphertext would address none of the records written so far.
    CORVIDA_KV::CorvidaKVApi other;
    std::unique_ptr<AesSivCipherSuite> wrong(new AesSivCipherSuite("cards"));
    wrong->Init("ffeeddccbbaa99887766554433221100f0debc9a78563412efcdab8967452301");
    other.AddCipherSuite(std::move(wrong));
    size = sizeof(key);
    ret = ProtobufUtil::ExtractMsgKey(&other, card, key, size, idl.get(), &log, true);
    Expect(ret == -4, "a suite key whose MD5 differs from corvida_cipher_md5");

    // A client without the suite refuses too.
    CORVIDA_KV::CorvidaKVApi none;
    size = sizeof(key);
    ret = ProtobufUtil::ExtractMsgKey(&none, card, key, size, idl.get(), &log, true);
    Expect(ret == -3, "no suite of the table's name");
    // [END wrong-key]

    return ExitStatus();
}
