// Loading a table's schema blob: the descriptor group, the pool's error
// collector, the sharding-key option and the one-call meta check.
#include <sys/types.h>

#include <algorithm>
#include <limits>
#include <new>
#include <sstream>
#include <unordered_set>

#include <google/protobuf/any.pb.h>
#include <google/protobuf/descriptor.pb.h>

#include "corvidaservice.optionv1.pb.h"
#include "protobuf_api/protobuf_util.h"
#include "protobuf_api/protobuf_util_log.h"

namespace PROTOBUF_UTIL {
namespace {

using google::protobuf::Descriptor;
using google::protobuf::DescriptorPool;
using google::protobuf::FieldDescriptor;
using google::protobuf::FileDescriptor;
using google::protobuf::FileDescriptorProto;
using google::protobuf::FileDescriptorSet;
using google::protobuf::SimpleDescriptorDatabase;

// The error text a collector keeps stays below this size; see AddError.
constexpr size_t kMaxErrorText = size_t{64} << 20;

// Helpers log in the name of the operation they work for: one of these, or
// the func they are given.
constexpr char kFillMessageGroup[] = "FillMessageGroup";
constexpr char kGetMetaAndCompare[] = "GetMetaAndCompare";

// Parses the schema blob. Logs and returns false when it does not parse.
bool LoadSchemaSet(const char* func, const std::string& strIdl, FileDescriptorSet& descSet, LPPLOGCATEGORYINST log) {
    // ParseFromArray takes an int size; a larger blob cannot be a schema.
    const bool fits = strIdl.size() <= static_cast<size_t>(std::numeric_limits<int>::max());
    if (!fits || !descSet.ParseFromArray(strIdl.data(), static_cast<int>(strIdl.size()))) {
        PBU_LOG_IN(func, log, PLOG_PRIORITY_ERROR, "ParseFromArray idl_content failed,idl size:%zd.",
                   static_cast<ssize_t>(strIdl.size()));
        return false;
    }
    return true;
}

// The two files the server's files may import without sending them:
// descriptor.proto (which the option file needs) and any.proto, copied out of
// the runtime once. A copy of these protos costs a fraction of
// FileDescriptor::CopyTo, which every load would otherwise repeat.
struct BuiltinFiles {
    BuiltinFiles() {
        FileDescriptorProto::descriptor()->file()->CopyTo(&descriptor);
        google::protobuf::Any::descriptor()->file()->CopyTo(&any);
    }

    FileDescriptorProto descriptor;
    FileDescriptorProto any;
};

const BuiltinFiles& Builtins() {
    static const BuiltinFiles* const files = new BuiltinFiles();  // never destroyed: loads may run at exit
    return *files;
}

// Adds the blob's files in set order and then the two built-in files, as if
// they followed the blob's files in the set. The first copy of a name wins, so
// a blob that carries its own descriptor.proto keeps it. Later copies are
// never offered to the database: it would refuse them all the same, but only
// after writing an error line through protobuf's process-wide logger on every
// load.
void AddSchemaFiles(const FileDescriptorSet& descSet, SimpleDescriptorDatabase& sdb) {
    std::unordered_set<std::string> added;
    for (int i = 0; i < descSet.file_size(); ++i) {
        if (added.insert(descSet.file(i).name()).second) sdb.Add(descSet.file(i));
    }
    for (const FileDescriptorProto* builtin : {&Builtins().descriptor, &Builtins().any}) {
        if (added.insert(builtin->name()).second) sdb.Add(*builtin);
    }
}

// The built-in files and the option file define no tables.
bool IsSkippedFile(const std::string& name) {
    return name == "google/protobuf/descriptor.proto" || name == "google/protobuf/any.proto" ||
           name == "corvidaservice.optionv1.proto";
}

// Searches the files of descSet, in set order, for the top-level message type
// tablename. Each searched file is built by pool, imports included. Returns 0
// with *msgDesc set to the type (null when no file holds it), or -2 as soon as
// a file fails to build: the search never goes past a broken file.
int FindTableType(const char* func, const std::string& tablename, const FileDescriptorSet& descSet,
                  const DescriptorPool& pool, const Descriptor** msgDesc, LPPLOGCATEGORYINST log) {
    *msgDesc = nullptr;
    for (int i = 0; i < descSet.file_size(); ++i) {
        const FileDescriptorProto& fileProto = descSet.file(i);
        if (IsSkippedFile(fileProto.name())) continue;
        PBU_LOG_IN(func, log, PLOG_PRIORITY_DEBUG, "pkg name %s, filename: %s", fileProto.package().c_str(),
                   fileProto.name().c_str());
        const FileDescriptor* ptrFileDesc = pool.FindFileByName(fileProto.name());
        if (ptrFileDesc == nullptr) {
            PBU_LOG_IN(func, log, PLOG_PRIORITY_ERROR, "FindFileByName %s failed.", fileProto.name().c_str());
            return -2;
        }
        *msgDesc = ptrFileDesc->FindMessageTypeByName(tablename);
        if (*msgDesc != nullptr) {
            PBU_LOG_IN(func, log, PLOG_PRIORITY_DEBUG, "FindFileByName %s ok, not null.", fileProto.name().c_str());
            return 0;
        }
    }
    return 0;
}

// Appends to tags the numbers of the top-level fields of msgDesc named in
// names, in ascending field-number order, logging each as "<kind>key name".
// Returns false, after logging the name, when a name is not a field; tags
// then keeps nothing of this call.
bool AppendFieldTags(const Descriptor* msgDesc, const std::vector<std::string>& names, const char* kind,
                     std::vector<int>& tags, LPPLOGCATEGORYINST log) {
    std::vector<const FieldDescriptor*> vecFieldDesc;
    for (const std::string& name : names) {
        const FieldDescriptor* field = msgDesc->FindFieldByName(name);
        if (field == nullptr) {
            PBU_LOG_IN(kFillMessageGroup, log, PLOG_PRIORITY_ERROR, "field:%s not found", name.c_str());
            return false;
        }
        vecFieldDesc.push_back(field);
    }
    std::sort(vecFieldDesc.begin(), vecFieldDesc.end(), _FieldDescPtrFunctor(vecFieldDesc));
    for (const FieldDescriptor* field : vecFieldDesc) {
        tags.push_back(field->number());
        PBU_LOG_IN(kFillMessageGroup, log, PLOG_PRIORITY_DEBUG, "%skey name %s, number: %u", kind,
                   field->name().c_str(), static_cast<unsigned>(field->number()));
    }
    return true;
}

// Fills the group's key, sharding-key and index tags from the options of its
// table type. Returns false when a name in the options is not a field or the
// primary key is empty.
bool FillGroupTags(MsgDescGroup* group, LPPLOGCATEGORYINST log) {
    const Descriptor* msgDesc = group->m_desc;
    const google::protobuf::MessageOptions& options = msgDesc->options();

    std::vector<std::string> vecKeys;
    TokenSplit(options.GetExtension(corvidaservice::corvida_primary_key), ",", vecKeys);
    if (!AppendFieldTags(msgDesc, vecKeys, "", group->vecKeyTag, log)) return false;
    if (group->vecKeyTag.empty()) {
        PBU_LOG_IN(kFillMessageGroup, log, PLOG_PRIORITY_ERROR, "primary key not set");
        return false;
    }

    // A null log makes FetchShardingKey refuse; the table then simply has no
    // sharding-key tags.
    std::vector<std::string> vecShardingKey;
    FetchShardingKey(msgDesc, vecShardingKey, log);
    if (!AppendFieldTags(msgDesc, vecShardingKey, "split ", group->vecSplitKeyTag, log)) return false;

    const int index_num = options.ExtensionSize(corvidaservice::corvida_index);
    for (int i = 0; i < index_num; ++i) {
        // A malformed entry leaves name and keys empty and adds no entry.
        std::string name;
        std::string keys;
        getIndexInfo(options.GetExtension(corvidaservice::corvida_index, i), name, keys);
        PBU_LOG_IN(kFillMessageGroup, log, PLOG_PRIORITY_DEBUG, "index name %s", name.c_str());
        std::vector<std::string> vecIndexKeys;
        TokenSplit(keys, ",", vecIndexKeys);
        std::vector<int> tags;
        if (!AppendFieldTags(msgDesc, vecIndexKeys, "index ", tags, log)) return false;
        // Entries of the same name share one list; an empty list adds nothing.
        if (!tags.empty()) {
            std::vector<int>& entry = group->m_mapIndex[name];
            entry.insert(entry.end(), tags.begin(), tags.end());
        }
    }
    return true;
}

// FillMessageGroup without the guard against allocation failures.
const Descriptor* FillMessageGroupImpl(const std::string& tablename, const std::string& strIdl, MsgDescGroup* group,
                                       LPPLOGCATEGORYINST log) {
    FileDescriptorSet descSet;
    if (!LoadSchemaSet(kFillMessageGroup, strIdl, descSet, log)) return nullptr;

    // A group is filled once: pointers already set are overwritten, not freed.
    group->m_sdb = new (std::nothrow) SimpleDescriptorDatabase();
    if (group->m_sdb == nullptr) {
        PBU_LOG_IN(kFillMessageGroup, log, PLOG_PRIORITY_ERROR, "new m_sdb failed.");
        return nullptr;
    }
    AddSchemaFiles(descSet, *group->m_sdb);

    // The pool keeps reporting build errors of later lookups to its collector,
    // so the group owns the collector for as long as it owns the pool.
    group->m_collectors.push_back(std::make_unique<ParseErrorCollector>());
    ParseErrorCollector* collector = group->m_collectors.back().get();
    group->m_pool = new (std::nothrow) DescriptorPool(group->m_sdb, collector);
    if (group->m_pool == nullptr) {
        PBU_LOG_IN(kFillMessageGroup, log, PLOG_PRIORITY_ERROR, "new m_pool failed.");
        return nullptr;
    }
    // Nothing has been built yet, so this finds an empty text in practice.
    if (!collector->m_strMsg.empty()) {
        PBU_LOG_IN(kFillMessageGroup, log, PLOG_PRIORITY_ERROR, "DescriptorPool failed return msg: %s",
                   collector->m_strMsg.c_str());
    }
    const Descriptor* msgDesc = nullptr;
    if (FindTableType(kFillMessageGroup, tablename, descSet, *group->m_pool, &msgDesc, log) != 0) return nullptr;
    group->m_desc = msgDesc;
    if (msgDesc == nullptr) return nullptr;
    if (!FillGroupTags(group, log)) return nullptr;
    return group->m_desc;
}

// GetMetaAndCompare without the guard against allocation failures. The locals
// die in reverse order: pool, collector, database, set.
int GetMetaAndCompareImpl(const std::string& tablename, const std::string& strIdl, const Descriptor* client,
                          LPPLOGCATEGORYINST log) {
    FileDescriptorSet descSet;
    if (!LoadSchemaSet(kGetMetaAndCompare, strIdl, descSet, log)) return -1;
    SimpleDescriptorDatabase sdb;
    AddSchemaFiles(descSet, sdb);
    ParseErrorCollector collector;
    DescriptorPool pool(&sdb, &collector);
    // Nothing has been built yet, so this finds an empty text in practice.
    if (!collector.m_strMsg.empty()) {
        PBU_LOG_IN(kGetMetaAndCompare, log, PLOG_PRIORITY_ERROR, "DescriptorPool failed return msg: %s",
                   collector.m_strMsg.c_str());
    }

    const Descriptor* msgDesc = nullptr;
    if (FindTableType(kGetMetaAndCompare, tablename, descSet, pool, &msgDesc, log) != 0) return -2;
    // A missing type reaches the comparison as null and fails there with -1.
    const int iRet = CompareMessageMeta(msgDesc, client, log);
    if (iRet != 0) PBU_LOG_IN(kGetMetaAndCompare, log, PLOG_PRIORITY_ERROR, "CompareMessageMeta failed:%d.", iRet);
    return iRet;
}

}  // namespace

MsgDescGroup::MsgDescGroup() : m_sdb(nullptr), m_pool(nullptr), m_desc(nullptr), m_check(0) {}

// The pool reads from the database and reports to the collectors, so it goes
// first; m_collectors, declared last, is destroyed right after this body.
MsgDescGroup::~MsgDescGroup() {
    delete m_pool;
    delete m_sdb;
}

ParseErrorCollector::~ParseErrorCollector() = default;

// The text grows as old + old + new line: the doubling is part of the
// collector's contract. An error that would take the text to kMaxErrorText or
// beyond, or that cannot be stored for lack of memory, is dropped.
void ParseErrorCollector::AddError(const std::string& filename, const std::string& element_name,
                                   const google::protobuf::Message* /*message*/,
                                   DescriptorPool::ErrorCollector::ErrorLocation /*location*/,
                                   const std::string& error_message) {
    try {
        std::ostringstream line;
        line << "AddError() called unexpectedly: " << filename << " [" << element_name << "]: " << error_message
             << std::endl;
        const std::string text = line.str();
        // m_strMsg stays below kMaxErrorText, so this sum cannot overflow.
        const size_t grown_size = 2 * m_strMsg.size() + text.size();
        if (grown_size >= kMaxErrorText) return;
        std::string grown;
        grown.reserve(grown_size);
        grown.append(m_strMsg).append(m_strMsg).append(text);
        m_strMsg.swap(grown);
    } catch (const std::bad_alloc&) {
        // The pool is in the middle of a build; losing one message is the
        // only safe way out.
    }
}

int FetchShardingKey(const Descriptor* svr, std::vector<std::string>& vecShardingKey, LPPLOGCATEGORYINST log) {
    if (log == nullptr || svr == nullptr) return -1;
    const std::string& strSvrShardingKey = svr->options().GetExtension(corvidaservice::corvida_sharding_key);
    PBU_LOG_DEBUG(log, "svr sharding key:%s", strSvrShardingKey.c_str());
    vecShardingKey.clear();
    if (strSvrShardingKey.empty()) {
        PBU_LOG_DEBUG(log, "empty sharding key set");
        return 0;
    }
    TokenSplit(strSvrShardingKey, ",", vecShardingKey);
    PBU_LOG_DEBUG(log, "fetch sharding key set, size: %d", static_cast<int>(vecShardingKey.size()));
    return 0;
}

const Descriptor* FillMessageGroup(const std::string& tablename, const std::string& strIdl, MsgDescGroup* group,
                                   LPPLOGCATEGORYINST log) {
    if (group == nullptr) {
        PBU_LOG_ERROR(log, "group param is null.");
        return nullptr;
    }
    try {
        return FillMessageGroupImpl(tablename, strIdl, group, log);
    } catch (const std::bad_alloc&) {
        PBU_LOG_ERROR(log, "FillMessageGroup: out of memory.");
        return nullptr;
    }
}

int GetMetaAndCompare(const std::string& tablename, const std::string& strIdl, const Descriptor* client,
                      LPPLOGCATEGORYINST log) {
    try {
        return GetMetaAndCompareImpl(tablename, strIdl, client, log);
    } catch (const std::bad_alloc&) {
        PBU_LOG_ERROR(log, "GetMetaAndCompare: out of memory.");
        return -1;
    }
}

}  // namespace PROTOBUF_UTIL
