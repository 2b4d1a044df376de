// Heap allocations of the value-set operations on the request path.
//
// FillValueSetWithMsg reads paths in place, so cutting fields allocates
// nothing; FillMsgFromField allocates no more than protobuf's own merge of the
// same fields (which frees string values and builds them again): it parses
// into the strings the message holds. The binary replaces the global
// allocation functions with counting ones.
#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/wire_format.h>
#include <gtest/gtest.h>

#include "protobuf_api/protobuf_util.h"
#include "support/allocation_counter.h"
#include "support/log_capture.h"
#include "support/plan_filler.h"
#include "support/records.h"
#include "tables2.pb.h"
#include "tables3.pb.h"

namespace {

using corvida_test::LogCapture;
using CorvidaCommon::PbValueSetBuffer;
using google::protobuf::FieldDescriptor;
using google::protobuf::Message;
using google::protobuf::Reflection;
using google::protobuf::internal::WireFormat;
using PROTOBUF_UTIL::FillMsgFromField;
using PROTOBUF_UTIL::FillValueSetWithMsg;

namespace t2 = corvida::test;
namespace t3 = corvida::test3;

using corvida_test::AllocationsOf;

// A proto3 player with every singular field set, nested ones included.
t3::Player3 FullPlayer3() {
    t3::Player3 msg;
    msg.set_zone(3);
    msg.set_uid(77);
    msg.set_name("a name longer than sixteen bytes");
    msg.set_level(40);
    msg.mutable_stats()->set_hp(100);
    msg.mutable_stats()->set_mp(50);
    msg.mutable_stats()->mutable_deep()->set_v(-9);
    msg.mutable_stats()->mutable_deep()->set_text("deep text beyond the short string size");
    msg.mutable_pos()->set_x(1);
    msg.mutable_pos()->set_y(-2);
    msg.set_avatar(std::string(40, 'a'));
    msg.set_kind(t3::KIND3_HERO);
    msg.set_rating(4.5);
    msg.set_flags(0xffffffffffULL);
    msg.set_delta(-7);
    msg.ByteSizeLong();
    return msg;
}

// Every scalar leaf path of a Player3 outside its key, at every depth, with
// names of the length applications use.
const std::set<std::string> kScalarPaths3 = {"level", "stats.hp", "stats.mp", "stats.deep.v", "pos.x",
                                             "pos.y", "kind",     "rating",   "flags",        "delta"};

// The same with string and bytes fields.
const std::set<std::string> kAllPaths3 = {"name",  "level",           "stats.hp", "stats.mp", "stats.deep.v", "pos.x",
                                          "pos.y", "stats.deep.text", "avatar",   "kind",     "rating",       "flags",
                                          "delta"};

// The records of a value set, read back.
std::vector<PbValueSetBuffer::Field> FieldsOf(const ProtobufValueSet_& set) {
    std::vector<PbValueSetBuffer::Field> fields;
    PbValueSetBuffer reader(&set, 1, nullptr);
    EXPECT_EQ(reader.GetFields(fields), 0);
    return fields;
}

TEST(ValueSetAllocations, CuttingFieldsAllocatesNothing) {
    LogCapture log(PLOG_PRIORITY_ERROR);  // rejects the debug lines
    t3::Player3 msg = FullPlayer3();
    t2::Player2 msg2;
    msg2.mutable_stats()->mutable_deep()->set_v(5);
    msg2.mutable_pos()->set_x(4);
    msg2.set_rating(1.5);
    msg2.ByteSizeLong();
    const std::set<std::string> keys = {"zone", "uid"};
    const std::set<std::string> paths2 = {"zone", "stats.deep.v", "pos.x", "rating", "name"};
    const std::unique_ptr<ProtobufValueSet_> set = corvida_test::NewValueSet();
    int results = 0;
    const auto run = [&] {
        results |= FillValueSetWithMsg(&msg, keys, kAllPaths3, *set, log.category());
        results |= FillValueSetWithMsg(&msg2, keys, paths2, *set, log.category());
    };
    run();  // creates the unset sub-messages the paths lead through
    EXPECT_EQ(AllocationsOf([&] {
                  for (int i = 0; i < 50; ++i) run();
              }),
              0);
    EXPECT_EQ(results, 0);
    EXPECT_TRUE(log.lines().empty()) << log.Dump();
    EXPECT_EQ(FieldsOf(*set).size(), 4u);  // "zone" is a key field
}

// The fields of a value set cut from FullPlayer3(), merged into an empty
// message once beforehand, so that the sub-messages on the way exist.
class MergeAllocations : public ::testing::Test {
protected:
    void Cut(const std::set<std::string>& paths) {
        t3::Player3 source = FullPlayer3();
        ASSERT_EQ(FillValueSetWithMsg(&source, {}, paths, *m_set, nullptr), 0);
        m_fields = FieldsOf(*m_set);
        ASSERT_EQ(m_fields.size(), paths.size());
        std::set<std::string> failed;
        ASSERT_EQ(FillMsgFromField(m_fields, failed, &m_msg, nullptr, 0, m_log.category()), 0);
    }

    long MergeAllocationsOf() {
        std::set<std::string> failed;
        int ret = 0;
        const long n =
            AllocationsOf([&] { ret = FillMsgFromField(m_fields, failed, &m_msg, nullptr, 0, m_log.category()); });
        EXPECT_EQ(ret, 0);
        EXPECT_TRUE(failed.empty());
        return n;
    }

    // What protobuf's own reflection merge of the same records allocates:
    // clear each field, then parse its bytes into it.
    long ProtobufMergeAllocationsOf() {
        return AllocationsOf([&] {
            for (const PbValueSetBuffer::Field& field : m_fields) {
                Message* holder = &m_msg;
                const FieldDescriptor* fieldDesc = nullptr;
                std::string path = field.path;
                size_t begin = 0;
                for (;;) {
                    const size_t dot = path.find('.', begin);
                    fieldDesc = holder->GetDescriptor()->FindFieldByNumber(std::stoi(path.substr(begin, dot - begin)));
                    if (dot == std::string::npos) break;
                    holder = holder->GetReflection()->MutableMessage(holder, fieldDesc);
                    begin = dot + 1;
                }
                holder->GetReflection()->ClearField(holder, fieldDesc);
                google::protobuf::io::CodedInputStream input(reinterpret_cast<const uint8_t*>(field.buf),
                                                             field.buf_len);
                const uint32_t tag = input.ReadTag();
                EXPECT_TRUE(WireFormat::ParseAndMergeField(tag, fieldDesc, holder, &input));
            }
        });
    }

    LogCapture m_log{PLOG_PRIORITY_ERROR};  // rejects the debug lines
    const std::unique_ptr<ProtobufValueSet_> m_set = corvida_test::NewValueSet();
    std::vector<PbValueSetBuffer::Field> m_fields;
    t3::Player3 m_msg;
};

TEST_F(MergeAllocations, ScalarFieldsAllocateNothing) {
    Cut(kScalarPaths3);
    EXPECT_EQ(MergeAllocationsOf(), 0);
    EXPECT_TRUE(m_log.lines().empty()) << m_log.Dump();
}

TEST_F(MergeAllocations, StringFieldsAllocateNoMoreThanProtobufsMerge) {
    Cut(kAllPaths3);
    const long protobuf = ProtobufMergeAllocationsOf();
    EXPECT_GT(protobuf, 0);  // ClearField frees string values
    const long ours = MergeAllocationsOf();
    EXPECT_LE(ours, protobuf);
    // The strings merged already hold values of the same lengths.
    EXPECT_EQ(ours, 0);
    EXPECT_TRUE(m_log.lines().empty()) << m_log.Dump();
}

// More generated types than the library keeps plans of: a type that finds
// no room is planned on every call, which allocates no more than the
// library's first plan of it did not. Keys, cuts and merges of scalar fields
// allocate nothing, for the types with kept plans and the others alike.
TEST(PlanAllocations, TypesBeyondTheKeptPlansAllocateNothing) {
    corvida_test::InChildProcess([] {
        LogCapture log(PLOG_PRIORITY_ERROR);  // rejects the debug lines
        const std::vector<const Message*>& types = corvida_test::PlanFillerTypes();
        std::vector<std::unique_ptr<Message>> sources;
        std::vector<std::unique_ptr<Message>> targets;
        for (const Message* prototype : types) {
            std::unique_ptr<Message> msg(prototype->New());
            const google::protobuf::Descriptor* desc = msg->GetDescriptor();
            const Reflection* r = msg->GetReflection();
            r->SetInt32(msg.get(), desc->FindFieldByName("id"), static_cast<int32_t>(sources.size()));
            Message* next = r->MutableMessage(msg.get(), desc->FindFieldByName("next"));
            next->GetReflection()->SetInt32(next, desc->FindFieldByName("id"), -7);
            msg->ByteSizeLong();
            sources.push_back(std::move(msg));
            targets.emplace_back(prototype->New());
        }
        const std::set<std::string> paths = {"id", "next.id"};
        const std::unique_ptr<ProtobufValueSet_> set = corvida_test::NewValueSet();
        const std::unique_ptr<tagtbl_idl> idl = corvida_test::NewIdl();
        std::vector<PbValueSetBuffer::Field> fields;
        fields.reserve(paths.size());
        std::set<std::string> failed;
        uint8_t key[64];
        int results = 0;
        const auto run = [&] {
            for (size_t i = 0; i < sources.size(); ++i) {
                int32_t size = sizeof(key);
                results |= PROTOBUF_UTIL::ProtobufUtil::ExtractMsgKey(nullptr, *sources[i], key, size, idl.get(),
                                                                      log.category(), true);
                results |= FillValueSetWithMsg(sources[i].get(), {}, paths, *set, log.category());
                results |= PbValueSetBuffer(set.get(), 1, nullptr).GetFields(fields);
                results |= FillMsgFromField(fields, failed, targets[i].get(), nullptr, 0, log.category());
            }
        };
        run();  // keeps the plans that find room; creates the sub-messages merged into
        EXPECT_EQ(AllocationsOf(run), 0);
        EXPECT_EQ(results, 0);
        EXPECT_TRUE(failed.empty());
        EXPECT_TRUE(log.lines().empty()) << log.Dump();
    });
}

TEST(CountingAllocator, SeesAllocations) {
    std::string* s = nullptr;
    EXPECT_GE(AllocationsOf([&] { s = new std::string(100, 'x'); }), 1);
    delete s;
}

}  // namespace
