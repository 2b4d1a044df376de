// FillMsgFromField over the test tables. The input decides the table, what
// the message held before, the number of fields, each field's tag path and
// bytes, and the log threshold. Paths are mostly walks of real fields (see PickTagPath) and bytes
// mostly begin with the key the field expects, so the parser is reached
// rather than the first lookup failing.
//
// Besides the sanitizers, checks what the operation promises: the result is 0
// or GEN_ERR_INVALID_ARGUMENTS, failedpaths only grows, and the message stays
// a well-formed message that serializes; and that the straightforward merge
// kept in tests/reference, given the same, gives the same result, failed
// paths, message and log lines.
#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <google/protobuf/wire_format.h>

#include "fuzz_support.h"
#include "protobuf_api/protobuf_util.h"
#include "reference/reference.h"

namespace {

using CorvidaCommon::PbValueSetBuffer;
using google::protobuf::Descriptor;
using google::protobuf::FieldDescriptor;
using google::protobuf::Message;
using google::protobuf::internal::WireFormat;

// The field a tag path names, when every component is a field number of the
// message above it; else null.
const FieldDescriptor* FieldAtTagPath(const Descriptor* desc, const std::string& path) {
    const FieldDescriptor* field = nullptr;
    size_t start = 0;
    while (desc != nullptr && start <= path.size()) {
        const size_t dot = std::min(path.find('.', start), path.size());
        const std::string component = path.substr(start, dot - start);
        char* end = nullptr;
        const long number = std::strtol(component.c_str(), &end, 10);
        if (component.empty() || *end != '\0' || number <= 0 || number > INT_MAX) return nullptr;
        field = desc->FindFieldByNumber(static_cast<int>(number));
        if (field == nullptr) return nullptr;
        desc = field->message_type();
        start = dot + 1;
    }
    return start > path.size() ? field : nullptr;
}

// The field's bytes: raw input, or the key the field expects (as a varint)
// followed by raw input, which is what a value-set record holds.
std::string PickFieldBytes(FuzzedDataProvider& in, const FieldDescriptor* field) {
    std::string bytes;
    if (field != nullptr && in.ConsumeBool()) {
        uint8_t key[5];
        const uint8_t* end =
            google::protobuf::io::CodedOutputStream::WriteVarint32ToArray(WireFormat::MakeTag(field), key);
        bytes.assign(reinterpret_cast<const char*>(key), static_cast<size_t>(end - key));
    }
    bytes += in.ConsumeRandomLengthString(256);
    return bytes;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    corvida_fuzz::QuietLog();  // silences protobuf's own logger
    FuzzedDataProvider in(data, size);
    const auto& tables = corvida_fuzz::TestTables();
    const Message* prototype = tables[in.ConsumeIntegralInRange<size_t>(0, tables.size() - 1)];
    std::unique_ptr<Message> msg(prototype->New());
    // What the message held before: the merge must replace it.
    msg->ParsePartialFromString(in.ConsumeRandomLengthString(128));

    // Paths and bytes live here; the fields only borrow them.
    std::deque<std::string> storage;
    std::vector<PbValueSetBuffer::Field> fields;
    const int count = in.ConsumeIntegralInRange<int>(0, 8);
    for (int i = 0; i < count; ++i) {
        const std::string& path =
            storage.emplace_back(in.ConsumeBool() ? corvida_fuzz::PickTagPath(in, prototype->GetDescriptor())
                                                  : in.ConsumeRandomLengthString(32));
        const std::string& bytes =
            storage.emplace_back(PickFieldBytes(in, FieldAtTagPath(prototype->GetDescriptor(), path)));
        fields.push_back({i, path.c_str(), bytes.data(), static_cast<int>(bytes.size()), -1});
    }

    // Last: whether debug lines are wanted changes the way the merge takes.
    const int threshold = corvida_fuzz::PickLogThreshold(in);

    std::unique_ptr<Message> reference_msg(msg->New());
    reference_msg->CopyFrom(*msg);
    std::vector<PbValueSetBuffer::Field> reference_fields = fields;

    std::set<std::string> failedpaths = {"already.listed"};
    corvida_fuzz::LineLog log(threshold);
    const int ret = PROTOBUF_UTIL::FillMsgFromField(fields, failedpaths, msg.get(), nullptr, 0, log.category());
    FUZZ_CHECK(ret == 0 || ret == CorvErrCode::GEN_ERR_INVALID_ARGUMENTS);
    FUZZ_CHECK(failedpaths.count("already.listed") == 1);

    std::string out;
    FUZZ_CHECK(msg->SerializePartialToString(&out));

    std::set<std::string> reference_failed = {"already.listed"};
    corvida_fuzz::LineLog reference_log(threshold);
    FUZZ_CHECK(corvida_reference::FillMsgFromField(reference_fields, reference_failed, reference_msg.get(), nullptr, 0,
                                                   reference_log.category()) == ret);
    FUZZ_CHECK(reference_failed == failedpaths);
    FUZZ_CHECK(corvida_fuzz::DeterministicBytes(*reference_msg) == corvida_fuzz::DeterministicBytes(*msg));
    FUZZ_CHECK(reference_log.lines() == log.lines());
    return 0;
}
