// Writes the seed corpora of the fuzz targets: seed_generator <corpus dir>
// creates <corpus dir>/<target>/<seed> for every target. The committed
// fuzz/corpus/ is this program's output; run it again after a change to a
// target's input format.
//
// Most targets read their input through FuzzedDataProvider, which takes
// strings from the front of the input and numbers and flags from the back.
// InputWriter builds such inputs, so each seed names a real scenario (a
// table, a path, the field's bytes) instead of being random bytes.
#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/io/zero_copy_stream_impl_lite.h>
#include <google/protobuf/wire_format.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "all_types2.pb.h"
#include "protobuf_api/aes_siv_cipher_suite.h"
#include "protobuf_api/protobuf_util.h"
#include "tables2.pb.h"
#include "tables3.pb.h"

namespace {

using CorvidaCommon::PbValueSetBuffer;

// Input in FuzzedDataProvider's layout: strings read from the front, numbers
// and flags from the back (the last byte first).
class InputWriter {
public:
    // A string read with ConsumeRandomLengthString(max_length).
    InputWriter& String(const std::string& s, size_t max_length) {
        for (char c : s) {
            if (c == '\\') m_front += '\\';
            m_front += c;
        }
        if (s.size() < max_length) m_front += "\\ ";  // a backslash and another byte end the string
        return *this;
    }
    // A number read with ConsumeIntegralInRange(min, max) where max - min < 256
    // (one byte), or a flag read with ConsumeBool.
    InputWriter& Small(int offset_from_min) {
        m_back.push_back(static_cast<char>(offset_from_min));
        return *this;
    }
    InputWriter& Bool(bool b) { return Small(b ? 1 : 0); }
    // Bytes read with ConsumeRemainingBytesAsString (the last read).
    InputWriter& Rest(const std::string& s) {
        m_rest = s;
        return *this;
    }
    std::string Build() const { return m_front + m_rest + std::string(m_back.rbegin(), m_back.rend()); }

private:
    std::string m_front;
    std::string m_rest;
    std::string m_back;
};

bool Write(const std::string& dir, const std::string& target, const std::string& name, const std::string& bytes) {
    std::error_code error;
    std::filesystem::create_directories(dir + "/" + target, error);
    const std::string path = dir + "/" + target + "/" + name;
    std::ofstream out(path, std::ios::binary);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    if (!out) std::cerr << "seed_generator: cannot write " << path << "\n";
    return static_cast<bool>(out);
}

// Position of a table in corvida_fuzz::TestTables().
enum TableIndex { kPlayer2 = 0, kPlayer3 = 1, kAllTypes2 = 2, kTreeNode2 = 4, kSecret2 = 5 };

// The index of field `number` in its message's declaration order.
int FieldIndex(const google::protobuf::Descriptor* desc, int number) {
    return desc->FindFieldByNumber(number)->index();
}

// The key a field's record starts with, as a varint.
std::string KeyOf(const google::protobuf::FieldDescriptor* field) {
    uint8_t key[5];
    const uint8_t* end = google::protobuf::io::CodedOutputStream::WriteVarint32ToArray(
        google::protobuf::internal::WireFormat::MakeTag(field), key);
    return std::string(reinterpret_cast<const char*>(key), static_cast<size_t>(end - key));
}

bool FillMsgFromFieldSeeds(const std::string& dir) {
    const std::string t = "fill_msg_from_field_fuzzer";
    const auto* player = corvida::test::Player2::descriptor();
    const auto* stats = corvida::test::Stats2::descriptor();
    // Player2 "5.1" (stats.hp) = 150, over a message that held zone 7.
    corvida::test::Player2 before;
    before.set_zone(7);
    InputWriter a;
    a.Small(kPlayer2).String(before.SerializeAsString(), 128).Small(1);
    a.Bool(true).Small(1).Small(FieldIndex(player, 5)).Small(FieldIndex(stats, 1)).Bool(false);
    a.Bool(true).String("\x96\x01", 256);
    // Player3 name (3) and a record whose key is another field's.
    InputWriter b;
    b.Small(kPlayer3).String("", 128).Small(2);
    b.Bool(true).Small(0).Small(FieldIndex(corvida::test3::Player3::descriptor(), 3)).Bool(true);
    b.Bool(true).String("\x03zed", 256);
    b.Bool(false).String("3", 32).Bool(false).String(std::string("\x08\x01", 2), 256);
    // TreeNode2 children (4): three keyed elements in one record.
    const auto* children = corvida::test::TreeNode2::descriptor()->FindFieldByNumber(4);
    const std::string element = KeyOf(children) + std::string("\x02\x08\x01", 3);
    InputWriter c;
    c.Small(kTreeNode2).String("", 128).Small(1);
    c.Bool(true).Small(0).Small(children->index()).Bool(false).String(element + element + element, 256);
    // Secret2 token (2), an encrypted string, and an unknown tag path.
    InputWriter d;
    d.Small(kSecret2).String("", 128).Small(2);
    d.Bool(false).String("2", 32).Bool(false).String(
        "\x12\x03"
        "abc",
        256);
    d.Bool(false).String("99.1", 32).String("", 256);
    // The first two again with debug lines off (the log threshold, read
    // last), under which merges take their shorter ways.
    InputWriter quiet_a = a;
    quiet_a.Small(2);
    InputWriter quiet_b = b;
    quiet_b.Small(2);
    return Write(dir, t, "player2_nested", a.Build()) && Write(dir, t, "player3_wrong_key", b.Build()) &&
           Write(dir, t, "tree_repeated_message", c.Build()) && Write(dir, t, "secret_and_unknown", d.Build()) &&
           Write(dir, t, "player2_nested_no_debug", quiet_a.Build()) &&
           Write(dir, t, "player3_wrong_key_no_debug", quiet_b.Build());
}

bool TextPathSeeds(const std::string& dir) {
    const std::string t = "text_path_fuzzer";
    const auto* player = corvida::test::Player2::descriptor();
    corvida::test::Player2 msg;
    msg.set_zone(3);
    msg.set_uid(42);
    msg.set_name("hero");
    msg.mutable_stats()->set_hp(10);
    msg.mutable_stats()->mutable_deep()->set_text("deep");
    // source, delimiter, one set path, VerifyTagPath's path from the set, the
    // names for TransFieldNameToTagPath, then a fill of stats.deep.text and name.
    InputWriter a;
    a.Small(kPlayer2).String(" zone, uid ,,idx(a,b)", 128).String(",", 4);
    a.Small(1).Bool(false).String("stats.deep", 24).Bool(false);
    a.Bool(true).Small(2).Small(FieldIndex(player, 5)).Small(FieldIndex(corvida::test::Stats2::descriptor(), 3));
    a.Small(0).Bool(false).Small(0);
    a.String(msg.SerializeAsString(), 512).Bool(true).Small(1).Small(2);
    a.Bool(false).String("stats.deep.text", 24).Bool(false).String("name", 24);
    InputWriter b;
    b.Small(kAllTypes2).String("by_level(level)", 128).String(".,", 4);
    b.Small(2).Bool(false).String("f_message.a", 24).Bool(false).String("f_message", 24).Bool(false);
    b.Bool(false).String("f_message.a", 24).Small(0);
    b.String("", 512).Bool(false).Bool(false).String("f_int32", 24).Small(1).Small(1);
    b.Bool(false).String("r_int32", 24);
    return Write(dir, t, "player2_paths", a.Build()) && Write(dir, t, "alltypes_overlap", b.Build());
}

bool ValueSetSeeds(const std::string& dir, ProtobufValueSet_& set) {
    const std::string t = "value_set_unpack_fuzzer";
    std::vector<char> buf(1 << 16);
    size_t used = 0;
    // Version 1, as FillValueSetWithMsg writes it.
    corvida::test::Player2 msg;
    msg.set_zone(1);
    msg.set_name("hero");
    msg.mutable_stats()->set_hp(99);
    msg.ByteSizeLong();
    if (PROTOBUF_UTIL::FillValueSetWithMsg(&msg, {}, {"name", "stats.hp", "level"}, set, nullptr) != 0 ||
        set.pack(buf.data(), buf.size(), &used) != 0 || !Write(dir, t, "v1_player2", std::string(buf.data(), used))) {
        return false;
    }
    // Version 0, written through the builder.
    PbValueSetBuffer v0(&set, 0, nullptr);
    v0.ResetFieldNum();
    for (const auto& record : {std::make_pair("3", std::string("\x1a\x02hi", 4)),
                               std::make_pair("5.3", std::string("\x1a\x02\x08\x05", 4))}) {
        PbValueSetBuffer::Field field = {-1, record.first, nullptr, 0, -1};
        v0.InsertCutField(field);
        std::copy(record.second.begin(), record.second.end(), const_cast<char*>(field.buf));
        v0.FinishCutField(field.idx, static_cast<int>(record.second.size()));
    }
    if (set.pack(buf.data(), buf.size(), &used) != 0 || !Write(dir, t, "v0_player2", std::string(buf.data(), used))) {
        return false;
    }
    set.construct();
    return set.pack(buf.data(), buf.size(), &used) == 0 && Write(dir, t, "empty", std::string(buf.data(), used));
}

// The schema blob of a table file: the option file, then the table file.
std::string SchemaBlob(const google::protobuf::FileDescriptor* file) {
    google::protobuf::FileDescriptorSet set;
    file->dependency(0)->CopyTo(set.add_file());
    file->CopyTo(set.add_file());
    return set.SerializeAsString();
}

bool SchemaSeeds(const std::string& dir) {
    // The first byte picks the table name: 1 is Player3, 2 TreeNode2.
    const std::string blob3 = SchemaBlob(corvida::test3::Player3::descriptor()->file());
    google::protobuf::FileDescriptorSet missing_import;
    corvida::test3::Player3::descriptor()->file()->CopyTo(missing_import.add_file());
    const std::string t = "schema_blob_fuzzer";
    if (!Write(dir, t, "player3", std::string(1, '\1') + blob3) ||
        !Write(dir, t, "missing_import", std::string(1, '\1') + missing_import.SerializeAsString()) ||
        !Write(dir, t, "empty_blob", std::string(1, '\2'))) {
        return false;
    }
    // Edit lists of the mutation target: no edit; drop an import; a field
    // pointing at its own message; a duplicated file.
    const std::string m = "schema_mutation_fuzzer";
    const int tree_index = corvida::test::TreeNode2::descriptor()->index();
    return Write(dir, m, "player2_as_is", InputWriter().Small(0).Small(0).Build()) &&
           Write(dir, m, "drop_import", InputWriter().Small(0).Small(1).Small(1).Small(0).Small(0).Build()) &&
           Write(dir, m, "self_reference",
                 InputWriter()
                     .Small(2)
                     .Small(1)
                     .Small(1)
                     .Small(7)
                     .Small(tree_index)
                     .Small(5)
                     .Small(0)
                     .Small(0)
                     .Build()) &&
           Write(dir, m, "duplicate_file", InputWriter().Small(3).Small(1).Small(2).Small(3).Build());
}

bool AesSeeds(const std::string& dir) {
    const std::string t = "aes_siv_decrypt_fuzzer";
    // plaintext, full capacity, one edit (flip a bit of byte 3), a raw blob,
    // then key text for Init.
    const std::string key = "000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f";
    return Write(dir, t, "flip_iv",
                 InputWriter()
                     .String("player-token", 512)
                     .Small(0)
                     .Small(0)
                     .Small(3)
                     .Small(0)
                     .Small(0)
                     .String(std::string(16, 'A'), 512)
                     .Rest(key)
                     .Build()) &&
           Write(dir, t, "truncate_empty",
                 InputWriter()
                     .String("", 512)
                     .Small(0)
                     .Small(0)
                     .Small(4)
                     .Small(3)
                     .String("", 512)
                     .Rest(key + key)
                     .Build()) &&
           Write(dir, t, "short_capacity", InputWriter().String("abc", 512).Small(1).Build());
}

}  // namespace

// An input of store_read_fuzzer: the table, the primary key, then the tag
// path and bytes of each stored field, each chunk after its two-byte length.
class RowWriter {
public:
    explicit RowWriter(int table) : m_bytes(1, static_cast<char>(table)) {}
    RowWriter& Chunk(const std::string& s) {
        m_bytes.push_back(static_cast<char>(s.size() >> 8));
        m_bytes.push_back(static_cast<char>(s.size() & 0xff));
        m_bytes += s;
        return *this;
    }
    // A stored field: field `number` of msg (a sub-message of the table's
    // record) under tag path, as protobuf serializes it.
    RowWriter& Field(const std::string& path, const google::protobuf::Message& msg, int number) {
        std::string bytes;
        {
            google::protobuf::io::StringOutputStream stream(&bytes);
            google::protobuf::io::CodedOutputStream out(&stream);
            msg.ByteSizeLong();
            google::protobuf::internal::WireFormat::SerializeFieldWithCachedSizes(
                msg.GetDescriptor()->FindFieldByNumber(number), msg, &out);
        }
        return Chunk(path).Chunk(bytes);
    }
    const std::string& bytes() const { return m_bytes; }

private:
    std::string m_bytes;
};

// The primary key of msg, with the tests' "aes128" suite for encrypted fields.
std::string PrimaryKey(const google::protobuf::Message& msg) {
    CORVIDA_KV::CorvidaKVApi kv;
    std::unique_ptr<AesSivCipherSuite> suite(new AesSivCipherSuite("aes128"));
    suite->Init("000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f");
    kv.AddCipherSuite(std::move(suite));
    std::unique_ptr<tagtbl_idl> idl(new tagtbl_idl);
    PLOGCATEGORYINST log;
    plog_category_init(&log, "seeds", PLOG_PRIORITY_FATAL);
    uint8_t key[1024];
    int32_t size = sizeof(key);
    msg.ByteSizeLong();
    PROTOBUF_UTIL::ProtobufUtil::ExtractMsgKey(&kv, msg, key, size, idl.get(), &log, true);
    return std::string(reinterpret_cast<const char*>(key), static_cast<size_t>(size));
}

bool StoreReadSeeds(const std::string& dir) {
    const std::string t = "store_read_fuzzer";
    // A Player3 row as a put and two updates leave it.
    corvida::test3::Player3 player;
    player.set_zone(3);
    player.set_uid(1001);
    player.set_name("alice");
    player.mutable_stats()->set_hp(120);
    player.mutable_stats()->mutable_deep()->set_v(7);
    player.add_tags("a");
    player.add_tags("b");
    (*player.mutable_attrs())["str"] = 10;
    player.add_scores(5);
    player.add_scores(6);
    RowWriter a(kPlayer3);
    a.Chunk(PrimaryKey(player)).Field("3", player, 3).Field("5", player, 5).Field("5.1", player.stats(), 1);
    a.Field("5.3.1", player.stats().deep(), 1).Field("7", player, 7).Field("9", player, 9).Field("12", player, 12);
    // A Secret2 row: the encrypted token in the key, sealed stored in plain.
    corvida::test::Secret2 secret;
    secret.set_uid(9);
    secret.set_token("tok-123");
    secret.set_sealed("sealed");
    secret.mutable_stats()->set_mp(4);
    RowWriter b(kSecret2);
    b.Chunk(PrimaryKey(secret)).Field("3", secret, 3).Field("6", secret, 6).Field("4", secret, 4);
    // Damage: a key of an unknown field, bytes of another field, a path into
    // a repeated field, a path that is no number.
    RowWriter c(kPlayer2);
    c.Chunk(std::string("ø", 3)).Chunk("4").Chunk("x").Chunk("8.1").Chunk(std::string("", 2));
    c.Chunk("x.5").Chunk("");
    return Write(dir, t, "player3_row", a.bytes()) && Write(dir, t, "secret2_row", b.bytes()) &&
           Write(dir, t, "player2_damaged", c.bytes());
}

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: seed_generator <corpus dir>\n";
        return 2;
    }
    const std::string dir = argv[1];
    std::unique_ptr<ProtobufValueSet_> set(new ProtobufValueSet_);
    set->construct();
    const bool ok = FillMsgFromFieldSeeds(dir) && TextPathSeeds(dir) && ValueSetSeeds(dir, *set) && SchemaSeeds(dir) &&
                    AesSeeds(dir) && StoreReadSeeds(dir);
    return ok ? 0 : 1;
}
