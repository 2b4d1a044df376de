// A tour of the protobuf bridge on the bundled example table Player
// (examples/tables/game.proto): configure the cipher suite, extract a record
// key, cut fields into a value set, send it over a "network" (pack/unpack),
// merge it back, load the server's schema blob and check it against the
// compiled type, and convert a query-result column.
//
// Run it without arguments; it prints what each step produced and exits with
// status 0 when every step behaved as expected.
#include <cstdio>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <google/protobuf/descriptor.pb.h>

#include "game.pb.h"
#include "protobuf_api/aes_siv_cipher_suite.h"
#include "protobuf_api/protobuf_util.h"

namespace {

using corvida::example::Player;

// The demo key of the "game-aes" suite named by Player's options.
const char kDemoKey[] = "8f3a1c5e7b9d2f4a6c8e0b1d3f5a7c9e2b4d6f8a0c1e3b5d7f9a2c4e6b8d0f1a";

std::string Hex(const void* data, size_t len) {
    static const char kDigits[] = "0123456789abcdef";
    const unsigned char* bytes = static_cast<const unsigned char*>(data);
    std::string hex;
    for (size_t i = 0; i < len; ++i) {
        if (i != 0) hex += ' ';
        hex += kDigits[bytes[i] >> 4];
        hex += kDigits[bytes[i] & 0xf];
    }
    return hex;
}

bool Check(bool ok, const char* step) {
    std::printf("%s %s\n", ok ? "ok  " : "FAIL", step);
    return ok;
}

// The schema blob the server would hold for Player: its file and every
// import, as a serialized FileDescriptorSet.
std::string PlayerSchemaBlob() {
    google::protobuf::FileDescriptorSet set;
    const google::protobuf::FileDescriptor* file = Player::descriptor()->file();
    for (int i = 0; i < file->dependency_count(); ++i) file->dependency(i)->CopyTo(set.add_file());
    file->CopyTo(set.add_file());
    return set.SerializeAsString();
}

}  // namespace

int main() {
    // A log category that prints errors to stderr.
    PLOGCATEGORYINST log;
    plog_category_init(&log, "quickstart", PLOG_PRIORITY_ERROR);

    // The KV API object owns the cipher suites, looked up by name.
    CORVIDA_KV::CorvidaKVApi kv;
    std::unique_ptr<AesSivCipherSuite> suite(new AesSivCipherSuite("game-aes"));
    if (!Check(suite->Init(kDemoKey) == 0, "cipher suite set up")) return 1;
    kv.AddCipherSuite(std::move(suite));

    Player player;
    player.set_zone(3);
    player.set_uid(1000042);
    player.set_account("alice@example.com");
    player.set_level(17);
    player.mutable_profile()->set_nickname("alice");
    player.mutable_profile()->mutable_stats()->set_gold(250);
    player.ByteSizeLong();  // keys and value sets use cached sizes

    bool ok = true;

    // 1. The record key: uid, zone, account in field-number order, account encrypted.
    std::unique_ptr<tagtbl_idl> idl(new tagtbl_idl);  // ~10 MB scratch: heap, never the stack
    uint8_t key[1024];
    int32_t key_len = sizeof(key);
    int ret = PROTOBUF_UTIL::ProtobufUtil::ExtractMsgKey(&kv, player, key, key_len, idl.get(), &log, true);
    ok &= Check(ret == 0, "ExtractMsgKey");
    std::printf("     key (%d bytes): %s\n", key_len, Hex(key, key_len).c_str());

    // 2. Cut two fields into a value set (key fields are never cut).
    std::set<std::string> key_names;
    PROTOBUF_UTIL::ProtobufUtil::GetMsgKeyNames(player, key_names);
    std::unique_ptr<ProtobufValueSet_> values(new ProtobufValueSet_);  // ~44 MB: heap
    values->construct();
    ret = PROTOBUF_UTIL::FillValueSetWithMsg(&player, key_names, {"level", "profile.stats.gold"}, *values, &log);
    ok &= Check(ret == 0, "FillValueSetWithMsg");

    // 3. Pack and unpack, as the request and response would.
    std::vector<char> wire(values->packedSize());
    size_t used = 0;
    ok &= Check(values->pack(wire.data(), wire.size(), &used) == 0, "pack");
    std::unique_ptr<ProtobufValueSet_> received(new ProtobufValueSet_);
    received->construct();
    ok &= Check(received->unpack(wire.data(), used, &used) == 0, "unpack");

    // 4. Merge the returned fields into an empty message.
    CorvidaCommon::PbValueSetBuffer reader(received.get(), received->iVersion_, &log);
    std::vector<CorvidaCommon::PbValueSetBuffer::Field> fields;
    ok &= Check(reader.GetFields(fields) == 0, "GetFields");
    for (const auto& field : fields) {
        std::printf("     %-8s %s\n", field.path, Hex(field.buf, field.buf_len).c_str());
    }
    Player merged;
    std::set<std::string> failed;
    ret = PROTOBUF_UTIL::FillMsgFromField(fields, failed, &merged, nullptr, 0, &log);
    ok &= Check(ret == 0 && failed.empty() && merged.level() == 17 && merged.profile().stats().gold() == 250,
                "FillMsgFromField");

    // 5. The server's schema: load it, then check the compiled type against it.
    const std::string blob = PlayerSchemaBlob();
    PROTOBUF_UTIL::MsgDescGroup group;
    const google::protobuf::Descriptor* server = PROTOBUF_UTIL::FillMessageGroup("Player", blob, &group, &log);
    ok &= Check(server != nullptr && group.vecKeyTag == std::vector<int>({1, 2, 3}), "FillMessageGroup");
    ret = PROTOBUF_UTIL::GetMetaAndCompare("Player", blob, Player::descriptor(), &log);
    ok &= Check(ret == 0, "GetMetaAndCompare");

    // 6. A query-result column to a generic value.
    CorvidaService::Field column;
    column.SetInt64(1234567890123LL);
    NS_CORVIDA_PROTOBUF_API::GenericValue value;
    ret = PROTOBUF_UTIL::FieldValue2GenericValue(idl.get(), &column, value, &log);
    ok &= Check(ret == 0 && value.m_type == NS_CORVIDA_PROTOBUF_API::GenericValue::TYPE_INT64 &&
                    value.m_int64_ == 1234567890123LL,
                "FieldValue2GenericValue");

    return ok ? 0 : 1;
}
