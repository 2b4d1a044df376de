// The server's schema of the guide's Account table: loading the blob into a
// MsgDescGroup, and checking the compiled type against it.
#include <map>
#include <string>
#include <vector>

#include <google/protobuf/descriptor.pb.h>

#include "expect.h"
#include "guide.pb.h"
#include "protobuf_api/protobuf_util.h"

namespace {

// [START blob]
// The blob the server keeps for a table is a serialized FileDescriptorSet of
// the table's file and its imports. This one is made from the compiled type;
// "protoc --include_imports --descriptor_set_out=FILE" writes the same.
std::string SchemaBlob(const google::protobuf::Descriptor* table) {
    google::protobuf::FileDescriptorSet set;
    const google::protobuf::FileDescriptor* file = table->file();
    for (int i = 0; i < file->dependency_count(); ++i) file->dependency(i)->CopyTo(set.add_file());
    file->CopyTo(set.add_file());
    return set.SerializeAsString();
}
// [END blob]

}  // namespace

int main() {
    PLOGCATEGORYINST log;
    plog_category_init(&log, "guide", PLOG_PRIORITY_ERROR);
    const std::string blob = SchemaBlob(bank::Account::descriptor());

    // [START load]
    PROTOBUF_UTIL::MsgDescGroup group;  // keep it while descriptors from it are in use
    const google::protobuf::Descriptor* table = PROTOBUF_UTIL::FillMessageGroup("Account", blob, &group, &log);
    Expect(table != nullptr && table == group.m_desc, "FillMessageGroup");
    Expect(table->full_name() == "bank.Account", "the server's type, in the group's own pool");
    Expect(group.vecKeyTag == std::vector<int>({1, 2}), "primary-key field numbers, ascending");
    Expect(group.vecSplitKeyTag == std::vector<int>({2}), "sharding-key field numbers");
    Expect(group.m_mapIndex == std::map<std::string, std::vector<int>>({{"by_balance", {1, 5}}, {"by_email", {3}}}),
           "each index's field numbers");
    // [END load]

    // [START compare]
    int ret = PROTOBUF_UTIL::GetMetaAndCompare("Account", blob, bank::Account::descriptor(), &log);
    Expect(ret == 0, "the compiled Account is compatible with the server's");
    // With a loaded group, the comparison alone:
    ret = PROTOBUF_UTIL::CompareMessageMeta(group.m_desc, bank::Account::descriptor(), &log);
    Expect(ret == 0, "CompareMessageMeta");
    // [END compare]

    // [START failures]
    PROTOBUF_UTIL::MsgDescGroup missing;  // one group per attempt: a group is filled once
    Expect(PROTOBUF_UTIL::FillMessageGroup("Ledger", blob, &missing, &log) == nullptr, "no such type");
    PROTOBUF_UTIL::MsgDescGroup garbage;
    Expect(PROTOBUF_UTIL::FillMessageGroup("Account", "not a descriptor set", &garbage, &log) == nullptr,
           "a blob that does not parse");
    // [END failures]

    return ExitStatus();
}
