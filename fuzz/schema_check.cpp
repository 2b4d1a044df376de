#include "schema_check.h"

#include <google/protobuf/descriptor.pb.h>

#include "fuzz_support.h"
#include "protobuf_api/protobuf_util.h"

namespace corvida_fuzz {
namespace {

using google::protobuf::Descriptor;

bool IsFieldNumber(const Descriptor* desc, int number) { return desc->FindFieldByNumber(number) != nullptr; }

// What a filled group promises: the type found by its short name in its own
// pool, a primary key, and every tag a field of the type.
void CheckFilledGroup(const std::string& tablename, const PROTOBUF_UTIL::MsgDescGroup& group,
                      const google::protobuf::FileDescriptorSet& files) {
    const Descriptor* desc = group.m_desc;
    FUZZ_CHECK(desc->name() == tablename && desc->containing_type() == nullptr);
    FUZZ_CHECK(group.m_pool->FindMessageTypeByName(desc->full_name()) == desc);
    FUZZ_CHECK(!group.vecKeyTag.empty());
    for (int tag : group.vecKeyTag) FUZZ_CHECK(IsFieldNumber(desc, tag));
    for (int tag : group.vecSplitKeyTag) FUZZ_CHECK(IsFieldNumber(desc, tag));
    for (const auto& index : group.m_mapIndex) {
        for (int tag : index.second) FUZZ_CHECK(IsFieldNumber(desc, tag));
    }
    // Later lookups build the files the search did not reach; their errors
    // go to the collector the group keeps.
    for (const auto& file : files.file()) group.m_pool->FindFileByName(file.name());
}

}  // namespace

const Descriptor* ClientType(const std::string& tablename) {
    const google::protobuf::DescriptorPool* pool = google::protobuf::DescriptorPool::generated_pool();
    for (const char* package : {"corvida.test.", "corvida.test3."}) {
        if (const Descriptor* desc = pool->FindMessageTypeByName(package + tablename)) return desc;
    }
    return nullptr;
}

void CheckSchemaBlob(const std::string& tablename, const std::string& blob, const Descriptor* client,
                     LPPLOGCATEGORYINST log) {
    {
        PROTOBUF_UTIL::MsgDescGroup group;
        const Descriptor* desc = PROTOBUF_UTIL::FillMessageGroup(tablename, blob, &group, log);
        FUZZ_CHECK(desc == nullptr || desc == group.m_desc);
        if (desc != nullptr) {
            google::protobuf::FileDescriptorSet files;
            FUZZ_CHECK(files.ParseFromString(blob));
            CheckFilledGroup(tablename, group, files);
            const int ret = PROTOBUF_UTIL::CompareMessageMeta(desc, client, log);
            FUZZ_CHECK(ret <= 0 && ret >= -22);
        }
    }
    const int ret = PROTOBUF_UTIL::GetMetaAndCompare(tablename, blob, client, log);
    FUZZ_CHECK(ret <= 0 && ret >= -22);
}

}  // namespace corvida_fuzz
