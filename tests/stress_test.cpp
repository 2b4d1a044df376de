// Many threads at once on shared inputs, each with its own outputs: keys
// extracted (encrypted fields through one shared cipher suite), value sets cut
// and merged, schemas compared and loaded, and one shared, already filled
// MsgDescGroup read. Every result must equal the one computed on one thread
// beforehand. A second test lets threads make the first calls for types no
// call has planned yet, all at once, so that they plan and publish them (and
// the cipher suite makes its contexts) concurrently. Built with ThreadSanitizer (scripts/ci-sanitizers.sh) it is the
// race check of the library; in the normal suite it is a short smoke test.
//
// CORVIDA_STRESS_ITERATIONS overrides the iterations per thread.
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/util/message_differencer.h>
#include <gtest/gtest.h>

#include "protobuf_api/aes_siv_cipher_suite.h"
#include "protobuf_api/protobuf_util.h"
#include "support/records.h"
#include "tables2.pb.h"
#include "tables3.pb.h"

namespace {

using corvida::test::Player2;
using corvida::test::Secret2;
using CorvidaCommon::PbValueSetBuffer;
using google::protobuf::util::MessageDifferencer;
using PROTOBUF_UTIL::ProtobufUtil;

constexpr int kThreads = 8;
constexpr int kDefaultIterations = 60;
constexpr char kAesKeyHex[] = "000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f";

int Iterations() {
    const char* text = std::getenv("CORVIDA_STRESS_ITERATIONS");
    const int n = text != nullptr ? std::atoi(text) : 0;
    return n > 0 ? n : kDefaultIterations;
}

// A category shared by every thread that takes every line, so formatting runs
// concurrently too; the sink only counts.
class CountingLog {
public:
    CountingLog() {
        plog_category_init(&m_category, "stress", PLOG_PRIORITY_TRACE);
        m_category.pfnWrite = Sink;
        m_category.pvWriteCtx = &m_lines;
    }
    LPPLOGCATEGORYINST category() { return &m_category; }
    long lines() const { return m_lines.load(); }

private:
    static void Sink(void* ctx, const PLOGEVENT*, const char*, size_t) {
        static_cast<std::atomic<long>*>(ctx)->fetch_add(1, std::memory_order_relaxed);
    }
    PLOGCATEGORYINST m_category;
    std::atomic<long> m_lines{0};
};

// The schema blob of tables2.proto: the option file, then the table file.
std::string Tables2Blob() {
    google::protobuf::FileDescriptorSet set;
    const google::protobuf::FileDescriptor* file = Player2::descriptor()->file();
    file->dependency(0)->CopyTo(set.add_file());
    file->CopyTo(set.add_file());
    return set.SerializeAsString();
}

Player2 SamplePlayer() {
    Player2 player;
    player.set_zone(7);
    player.set_uid(1234567);
    player.set_name("stress");
    player.set_level(42);
    player.mutable_stats()->set_hp(100);
    player.mutable_stats()->mutable_deep()->set_text("deep value");
    player.mutable_pos()->set_x(-3);
    player.add_tags("a");
    (*player.mutable_attrs())["k"] = 1;
    player.ByteSizeLong();
    return player;
}

Secret2 SampleSecret() {
    Secret2 secret;
    secret.set_uid(99);
    secret.set_token("secret token");
    secret.ByteSizeLong();
    return secret;
}

const std::set<std::string>& Paths() {
    static const std::set<std::string> paths = {"name", "level", "stats.hp", "stats.deep.text", "pos", "zone"};
    return paths;
}

// Everything one round of work produces, compared with the single-threaded
// reference.
struct Outputs {
    std::string player_key;
    std::string secret_key;
    std::string field_key;
    std::vector<std::string> records;  // tag path, then bytes, per cut field
    Player2 merged;
    int compare = -100;
    int meta = -100;
    bool group_ok = false;
};

bool operator==(const Outputs& a, const Outputs& b) {
    return a.player_key == b.player_key && a.secret_key == b.secret_key && a.field_key == b.field_key &&
           a.records == b.records && MessageDifferencer::Equals(a.merged, b.merged) && a.compare == b.compare &&
           a.meta == b.meta && a.group_ok == b.group_ok;
}

// Inputs every thread reads and nobody writes.
struct Shared {
    CORVIDA_KV::CorvidaKVApi api;
    Player2 player = SamplePlayer();
    Secret2 secret = SampleSecret();
    std::set<std::string> key_names;
    std::string blob = Tables2Blob();
    PROTOBUF_UTIL::MsgDescGroup group;
    CountingLog log;
};

// Buffers of one thread: the large records live on the heap, once per thread.
struct Scratch {
    std::unique_ptr<tagtbl_idl> idl = corvida_test::NewIdl();
    std::unique_ptr<ProtobufValueSet_> set = corvida_test::NewValueSet();
};

std::string Key(Shared& shared, const google::protobuf::Message& msg, Scratch& scratch) {
    uint8_t buf[1024];
    int32_t size = sizeof(buf);
    if (ProtobufUtil::ExtractMsgKey(&shared.api, msg, buf, size, scratch.idl.get(), shared.log.category(), true) != 0) {
        return "failed";
    }
    return std::string(reinterpret_cast<const char*>(buf), static_cast<size_t>(size));
}

std::string FieldKey(Shared& shared, Scratch& scratch) {
    uint8_t buf[1024];
    int32_t size = sizeof(buf);
    if (ProtobufUtil::ExtractFieldKey(&shared.api, shared.secret, {2, 1}, buf, size, scratch.idl.get(),
                                      shared.log.category()) != 0) {
        return "failed";
    }
    return std::string(reinterpret_cast<const char*>(buf), static_cast<size_t>(size));
}

// Cuts the shared player's fields into the thread's set (from a private copy:
// the cut may create sub-messages) and merges them into a new message.
void CutAndMerge(Shared& shared, Scratch& scratch, Outputs& out) {
    Player2 copy = shared.player;
    copy.ByteSizeLong();
    if (PROTOBUF_UTIL::FillValueSetWithMsg(&copy, shared.key_names, Paths(), *scratch.set, shared.log.category()) !=
        0) {
        return;
    }
    PbValueSetBuffer reader(scratch.set.get(), 1, shared.log.category());
    std::vector<PbValueSetBuffer::Field> fields;
    if (reader.GetFields(fields) != 0) return;
    for (const PbValueSetBuffer::Field& field : fields) {
        out.records.emplace_back(field.path);
        out.records.emplace_back(field.buf, static_cast<size_t>(field.buf_len));
    }
    std::set<std::string> failedpaths;
    PROTOBUF_UTIL::FillMsgFromField(fields, failedpaths, &out.merged, nullptr, 0, shared.log.category());
}

// Reads of the shared group, including lookups that make its pool build files
// it had not built yet.
bool ReadGroup(const PROTOBUF_UTIL::MsgDescGroup& group) {
    const google::protobuf::Descriptor* desc = group.m_pool->FindMessageTypeByName("corvida.test.Player2");
    return desc == group.m_desc && group.vecKeyTag == std::vector<int>{1, 2} &&
           group.vecSplitKeyTag == std::vector<int>{2} && group.m_mapIndex.at("by_level") == std::vector<int>{4} &&
           group.m_pool->FindMessageTypeByName("corvida.test.TreeNode2") != nullptr &&
           group.m_pool->FindFileByName("google/protobuf/any.proto") != nullptr;
}

Outputs RunOnce(Shared& shared, Scratch& scratch, bool with_meta) {
    Outputs out;
    out.player_key = Key(shared, shared.player, scratch);
    out.secret_key = Key(shared, shared.secret, scratch);
    out.field_key = FieldKey(shared, scratch);
    CutAndMerge(shared, scratch, out);
    out.compare = PROTOBUF_UTIL::CompareMessageMeta(shared.group.m_desc, Player2::descriptor(), shared.log.category());
    // Loading a whole schema per call is the slow part; the reference and
    // every tenth round do it.
    out.meta = with_meta ? PROTOBUF_UTIL::GetMetaAndCompare("Player2", shared.blob, Player2::descriptor(),
                                                            shared.log.category())
                         : 0;
    out.group_ok = ReadGroup(shared.group);
    return out;
}

TEST(StressTest, ConcurrentCallsOnSharedInputsGiveTheSingleThreadedResults) {
    Shared shared;
    auto suite = std::make_unique<AesSivCipherSuite>("aes128");
    ASSERT_EQ(suite->Init(kAesKeyHex), 0);
    ASSERT_EQ(shared.api.AddCipherSuite(std::move(suite)), 0);
    ASSERT_EQ(ProtobufUtil::GetMsgKeyNames(shared.player, shared.key_names), 0);
    ASSERT_NE(PROTOBUF_UTIL::FillMessageGroup("Player2", shared.blob, &shared.group, shared.log.category()), nullptr);

    Scratch scratch;
    const Outputs reference = RunOnce(shared, scratch, true);
    ASSERT_NE(reference.player_key, "failed");
    ASSERT_NE(reference.secret_key, "failed");
    ASSERT_NE(reference.field_key, "failed");
    ASSERT_EQ(reference.records.size(), 2 * (Paths().size() - 1));  // "zone" is a key field
    ASSERT_EQ(reference.compare, 0);
    ASSERT_EQ(reference.meta, 0);
    ASSERT_TRUE(reference.group_ok);

    const int iterations = Iterations();
    std::atomic<int> mismatches{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&] {
            Scratch own;
            for (int i = 0; i < iterations; ++i) {
                if (!(RunOnce(shared, own, i % 10 == 0) == reference)) mismatches.fetch_add(1);
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(mismatches.load(), 0);
    EXPECT_GT(shared.log.lines(), 0);
}

// What one round over the fresh types gives: per type, the primary key, a
// key of its first two field numbers, the records cut of its top-level
// singular fields, and the message those merge into.
std::vector<std::string> FreshRound(const std::vector<const google::protobuf::Message*>& messages,
                                    CORVIDA_KV::CorvidaKVApi& api, Scratch& scratch) {
    std::vector<std::string> out;
    for (const google::protobuf::Message* msg : messages) {
        uint8_t buf[1024];
        int32_t size = sizeof(buf);
        const int ret = ProtobufUtil::ExtractMsgKey(&api, *msg, buf, size, scratch.idl.get(), nullptr, true);
        out.push_back(std::to_string(ret) + ":" + std::string(reinterpret_cast<const char*>(buf), ret == 0 ? size : 0));
        const google::protobuf::Descriptor* desc = msg->GetDescriptor();
        const std::vector<int> numbers = {desc->field(0)->number(), desc->field(desc->field_count() - 1)->number()};
        size = sizeof(buf);
        const int field_ret = ProtobufUtil::ExtractFieldKey(&api, *msg, numbers, buf, size, scratch.idl.get(), nullptr);
        out.push_back(std::to_string(field_ret) + ":" +
                      std::string(reinterpret_cast<const char*>(buf), field_ret == 0 ? size : 0));

        std::set<std::string> paths;
        for (int i = 0; i < desc->field_count(); ++i) {
            if (!desc->field(i)->is_repeated()) paths.insert(desc->field(i)->name());
        }
        std::unique_ptr<google::protobuf::Message> copy(msg->New());
        copy->CopyFrom(*msg);
        copy->ByteSizeLong();
        out.push_back(std::to_string(PROTOBUF_UTIL::FillValueSetWithMsg(copy.get(), {}, paths, *scratch.set, nullptr)));
        std::vector<PbValueSetBuffer::Field> fields;
        PbValueSetBuffer(scratch.set.get(), 1, nullptr).GetFields(fields);
        std::unique_ptr<google::protobuf::Message> merged(msg->New());
        std::set<std::string> failed;
        out.push_back(
            std::to_string(PROTOBUF_UTIL::FillMsgFromField(fields, failed, merged.get(), nullptr, 0, nullptr)) + ":" +
            merged->SerializeAsString() + ":" + std::to_string(failed.size()));
    }
    return out;
}

TEST(StressTest, FirstCallsForFreshTypesRaceToPlanThem) {
    CORVIDA_KV::CorvidaKVApi api;
    auto suite = std::make_unique<AesSivCipherSuite>("aes128");
    ASSERT_EQ(suite->Init(kAesKeyHex), 0);
    ASSERT_EQ(api.AddCipherSuite(std::move(suite)), 0);

    corvida::test3::Player3 player;
    player.set_zone(3);
    player.set_uid(4);
    player.set_name("fresh");
    player.mutable_stats()->set_hp(9);
    player.mutable_pos()->set_label("here");
    player.ByteSizeLong();
    corvida::test3::Secret3 secret;
    secret.set_uid(5);
    secret.set_token("fresh token");
    secret.set_plain("plain");
    corvida::test::CompositeKey2 composite;
    composite.set_region(1);
    composite.set_name("composite");
    composite.set_account_identifier(77);
    corvida::test::IntKeys2 ints;
    ints.set_k_int32(-1);
    ints.set_k_bool(true);
    corvida::test::TreeNode2 tree;
    tree.set_id(1);
    tree.mutable_left()->set_id(2);
    tree.ByteSizeLong();
    const std::vector<const google::protobuf::Message*> messages = {&player, &secret, &composite, &ints, &tree};

    std::atomic<bool> go{false};
    std::vector<std::vector<std::string>> results(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            Scratch own;
            while (!go.load(std::memory_order_acquire)) {
            }
            results[t] = FreshRound(messages, api, own);
        });
    }
    go.store(true, std::memory_order_release);
    for (std::thread& thread : threads) thread.join();

    Scratch scratch;
    const std::vector<std::string> reference = FreshRound(messages, api, scratch);
    ASSERT_EQ(reference.size(), 4 * messages.size());
    for (int t = 0; t < kThreads; ++t) EXPECT_EQ(results[t], reference) << "thread " << t;
}

}  // namespace
