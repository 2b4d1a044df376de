#include "fuzz_support.h"

#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/io/zero_copy_stream_impl_lite.h>
#include <google/protobuf/stubs/logging.h>

#include "all_types2.pb.h"
#include "all_types3.pb.h"
#include "tables2.pb.h"
#include "tables3.pb.h"

namespace corvida_fuzz {
namespace {

using google::protobuf::Descriptor;
using google::protobuf::FieldDescriptor;

void DropLine(void* /*ctx*/, const PLOGEVENT* /*event*/, const char* /*msg*/, size_t /*len*/) {}

// One step of a path walk: the field chosen in desc, or null when desc has no
// field.
const FieldDescriptor* PickField(FuzzedDataProvider& in, const Descriptor* desc) {
    if (desc == nullptr || desc->field_count() == 0) return nullptr;
    return desc->field(in.ConsumeIntegralInRange<int>(0, desc->field_count() - 1));
}

// Walks desc as PickTagPath describes, appending each chosen field with
// append(field) and "." between fields.
template <typename Append>
std::string WalkPath(FuzzedDataProvider& in, const Descriptor* desc, Append append) {
    std::string path;
    const int depth = in.ConsumeIntegralInRange<int>(1, 6);
    for (int level = 0; level < depth; ++level) {
        const FieldDescriptor* field = PickField(in, desc);
        if (field == nullptr) break;
        if (!path.empty()) path += '.';
        append(path, field);
        // Through a scalar only when the input insists: such a path is
        // invalid, and the operations must say so rather than walk on.
        desc = field->message_type();
        if (desc == nullptr && !in.ConsumeBool()) break;
    }
    return path;
}

}  // namespace

LPPLOGCATEGORYINST QuietLog() {
    static PLOGCATEGORYINST category = [] {
        PLOGCATEGORYINST cat;
        plog_category_init(&cat, "fuzz", PLOG_PRIORITY_TRACE);
        cat.pfnWrite = DropLine;
        return cat;
    }();
    static const bool silenced = [] {
        google::protobuf::SetLogHandler(nullptr);
        return true;
    }();
    (void)silenced;
    return &category;
}

LineLog::LineLog(int threshold) {
    plog_category_init(&m_category, "fuzz", threshold);
    m_category.pfnWrite = &LineLog::Keep;
    m_category.pvWriteCtx = this;
}

void LineLog::Keep(void* ctx, const PLOGEVENT* event, const char* msg, size_t len) {
    static_cast<LineLog*>(ctx)->m_lines.push_back(std::to_string(event->iPriority) + " " +
                                                  (event->pszFunc != nullptr ? event->pszFunc : "") + ": " +
                                                  std::string(msg, len));
}

int PickLogThreshold(FuzzedDataProvider& in) {
    // -1: below every priority, PLOG_PRIORITY_FATAL included.
    static const int kThresholds[] = {PLOG_PRIORITY_TRACE, PLOG_PRIORITY_DEBUG, PLOG_PRIORITY_ERROR, -1};
    return kThresholds[in.ConsumeIntegralInRange<size_t>(0, sizeof(kThresholds) / sizeof(kThresholds[0]) - 1)];
}

std::string DeterministicBytes(const google::protobuf::Message& msg) {
    std::string out;
    {
        google::protobuf::io::StringOutputStream sink(&out);
        google::protobuf::io::CodedOutputStream output(&sink);
        output.SetSerializationDeterministic(true);
        msg.SerializePartialToCodedStream(&output);
    }
    return out;
}

const std::vector<const google::protobuf::Message*>& TestTables() {
    static const std::vector<const google::protobuf::Message*> tables = {
        &corvida::test::Player2::default_instance(),    &corvida::test3::Player3::default_instance(),
        &corvida::test::AllTypes2::default_instance(),  &corvida::test::AllTypes3::default_instance(),
        &corvida::test::TreeNode2::default_instance(),  &corvida::test::Secret2::default_instance(),
        &corvida::test3::Secret3::default_instance(),   &corvida::test::Grouped2::default_instance(),
        &corvida::test::Versioned2::default_instance(), &corvida::test::SetHolder2::default_instance(),
    };
    return tables;
}

std::string PickTagPath(FuzzedDataProvider& in, const Descriptor* desc) {
    return WalkPath(in, desc,
                    [](std::string& path, const FieldDescriptor* field) { path += std::to_string(field->number()); });
}

std::string PickDottedPath(FuzzedDataProvider& in, const Descriptor* desc) {
    return WalkPath(in, desc, [](std::string& path, const FieldDescriptor* field) { path += field->name(); });
}

}  // namespace corvida_fuzz
