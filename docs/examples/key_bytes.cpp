// Record keys of the guide's Account table, byte by byte: the primary key,
// a proto3 default value, a key of chosen fields, an unset proto2 key field
// and the length limit.
#include <cstring>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "expect.h"
#include "guide.pb.h"
#include "guide_legacy.pb.h"
#include "protobuf_api/protobuf_util.h"

using PROTOBUF_UTIL::ProtobufUtil;

namespace {

bool KeyIs(const uint8_t* key, int32_t size, const std::vector<uint8_t>& expected) {
    return size == static_cast<int32_t>(expected.size()) && std::memcmp(key, expected.data(), expected.size()) == 0;
}

}  // namespace

int main() {
    PLOGCATEGORYINST log;
    plog_category_init(&log, "guide", PLOG_PRIORITY_ERROR);
    std::unique_ptr<tagtbl_idl> idl(new tagtbl_idl);  // ~10 MB of scratch space: on the heap
    CORVIDA_KV::CorvidaKVApi kv;                      // no cipher suite: Account encrypts nothing

    // [START primary-key]
    bank::Account account;
    account.set_region(3);
    account.set_account_id(300);
    account.set_email("ann@ex.com");
    account.ByteSizeLong();  // keys are written with cached sizes

    uint8_t key[1024];
    int32_t size = sizeof(key);  // in: capacity of key; out: the key's length
    int ret = ProtobufUtil::ExtractMsgKey(&kv, account, key, size, idl.get(), &log, true);
    // corvida_primary_key names "account_id, region"; the key holds them in
    // field-number order, each as its protobuf encoding (tag, then value).
    const std::vector<uint8_t> expected = {
        0x08,        // tag of field 1 (region), wire type 0 (varint): 1 << 3 | 0
        0x03,        // region = 3
        0x10,        // tag of field 2 (account_id), varint: 2 << 3 | 0
        0xac, 0x02,  // account_id = 300 = 0b10'0101100: the low 7 bits with the high bit set, then 0b10
    };
    Expect(ret == 0 && KeyIs(key, size, expected), "the primary key of region 3, account 300");
    // [END primary-key]

    // [START default-value]
    account.set_region(0);  // the default value of a proto3 field
    account.ByteSizeLong();
    size = sizeof(key);
    ret = ProtobufUtil::ExtractMsgKey(&kv, account, key, size, idl.get(), &log, true);
    Expect(ret == 0 && KeyIs(key, size, {0x08, 0x00, 0x10, 0xac, 0x02}), "region 0 still writes its tag and value");
    // [END default-value]

    // clang-format off
    // [START field-key]
    // The field of the by_email index, then region: in the order given.
    size = sizeof(key);
    ret = ProtobufUtil::ExtractFieldKey(&kv, account, {3, 1}, key, size, idl.get(), &log);
    const std::vector<uint8_t> email_then_region = {
        0x1a,  // tag of field 3 (email), wire type 2 (length-delimited): 3 << 3 | 2
        0x0a,  // 10 bytes follow
        'a', 'n', 'n', '@', 'e', 'x', '.', 'c', 'o', 'm',  // the UTF-8 bytes of ann@ex.com
        0x08,  // tag of field 1 (region), varint: 1 << 3 | 0
        0x00,  // region = 0
    };
    Expect(ret == 0 && KeyIs(key, size, email_then_region), "the key of fields 3 and 1");
    // [END field-key]
    // clang-format on

    // [START key-names]
    std::set<std::string> key_names;
    ret = ProtobufUtil::GetMsgKeyNames(account, key_names);
    Expect(ret == 0 && key_names == std::set<std::string>({"account_id", "region"}), "GetMsgKeyNames");
    // [END key-names]

    // [START proto2-unset]
    bank::Transfer transfer;  // proto2: the key field transfer_id is not set
    transfer.ByteSizeLong();
    size = sizeof(key);
    ret = ProtobufUtil::ExtractMsgKey(&kv, transfer, key, size, idl.get(), &log, true);
    Expect(ret == -9, "bCheck refuses a key field that adds no bytes");
    size = sizeof(key);
    ret = ProtobufUtil::ExtractMsgKey(&kv, transfer, key, size, idl.get(), &log, false);
    Expect(ret == 0 && size == 0, "without bCheck the field is left out of the key");
    // [END proto2-unset]

    // [START too-long]
    account.set_email(std::string(1100, 'x'));
    account.ByteSizeLong();
    size = sizeof(key);  // the key is cut at the end of key, but size tells its whole length
    ret = ProtobufUtil::ExtractFieldKey(&kv, account, {3}, key, size, idl.get(), &log);
    // 1 tag byte + 2 length bytes + 1100 bytes: more than 1022.
    Expect(ret == -10 && size == 1103, "a key longer than 1022 bytes");
    // [END too-long]

    return ExitStatus();
}
