// The table store's read path of stored bytes over the test tables: a
// primary key parsed back into the key fields (encrypted ones decrypted with
// the tests' "aes128" suite), then a row's stored fields merged into the
// message, as Get, FindByIndex and Scan do with what RocksDB returns.
//
// Input: one byte choosing the table, then length-prefixed chunks (two bytes
// big-endian, then the bytes; a chunk cut short takes the rest): the primary
// key, then tag path and bytes of each stored field, in the row's key order.
//
// Besides the sanitizers, checks what the read path promises: a key that
// does not parse says why, every failed path is one of the stored fields'
// paths, and the message stays a message that serializes.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz_support.h"
#include "protobuf_api/aes_siv_cipher_suite.h"
#include "store/record_codec.h"

namespace {

using corvida::store::StoredField;

// Length-prefixed chunks of the input.
class Chunks {
public:
    Chunks(const uint8_t* data, size_t size) : m_data(reinterpret_cast<const char*>(data), size) {}
    bool Done() const { return m_data.empty(); }
    std::string Next() {
        if (m_data.size() < 2) {
            m_data = {};
            return "";
        }
        const size_t n = (static_cast<size_t>(static_cast<uint8_t>(m_data[0])) << 8) | static_cast<uint8_t>(m_data[1]);
        const std::string_view chunk = m_data.substr(2, n);
        m_data.remove_prefix(2 + chunk.size());
        return std::string(chunk);
    }

private:
    std::string_view m_data;
};

CORVIDA_KV::CorvidaKVApi* Kv() {
    static CORVIDA_KV::CorvidaKVApi* kv = [] {
        CORVIDA_KV::CorvidaKVApi* api = new CORVIDA_KV::CorvidaKVApi;
        std::unique_ptr<AesSivCipherSuite> suite(new AesSivCipherSuite("aes128"));
        suite->Init("000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f");
        api->AddCipherSuite(std::move(suite));
        return api;
    }();
    return kv;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    LPPLOGCATEGORYINST log = corvida_fuzz::QuietLog();
    const auto& tables = corvida_fuzz::TestTables();
    const google::protobuf::Message* prototype = tables[data[0] % tables.size()];
    Chunks chunks(data + 1, size - 1);
    const std::string pk = chunks.Next();
    std::vector<StoredField> fields;
    while (!chunks.Done() && fields.size() < 64) {
        StoredField field;
        field.tag_path = chunks.Next();
        field.bytes = chunks.Next();
        fields.push_back(std::move(field));
    }

    std::unique_ptr<google::protobuf::Message> msg(prototype->New());
    std::string why;
    const bool parsed = corvida::store::ParsePrimaryKey(pk, Kv(), msg.get(), &why);
    FUZZ_CHECK(parsed == why.empty());
    std::set<std::string> failed;
    corvida::store::MergeStoredFields(fields, msg.get(), &failed, log);
    for (const std::string& path : failed) {
        bool stored = false;
        for (const StoredField& field : fields) stored = stored || field.tag_path == path;
        FUZZ_CHECK(stored);
    }
    std::string out;
    FUZZ_CHECK(msg->SerializePartialToString(&out));
    return 0;
}
