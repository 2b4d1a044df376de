#include "corvida-pb/operations.h"

#include <algorithm>
#include <climits>

#include "corvida-pb/explain.h"
#include "corvida-pb/report.h"
#include "corvida-pb/status.h"
#include "corvida-pb/wire_view.h"

namespace corvida_pb {

using CorvidaCommon::PbValueSetBuffer;
using google::protobuf::Descriptor;
using google::protobuf::FieldDescriptor;
using google::protobuf::Message;

namespace {

// Bytes a key field can take beyond its share of the message's own size:
// a proto3 default written out, or the synthetic IV and a longer length
// prefix of an encrypted value.
constexpr size_t kKeyFieldSlack = 64;

// The key buffer: large enough for any key of msg, so that a key above the
// library's limit is reported with its full length rather than cut off.
size_t KeyCapacity(const Message& msg, const std::vector<int>* fields) {
    const size_t writes = fields == nullptr ? 1 : std::max<size_t>(fields->size(), 1);
    const size_t per_write = msg.ByteSizeLong() + kKeyFieldSlack * msg.GetDescriptor()->field_count();
    return 1024 + per_write * writes;
}

}  // namespace

bool ParseFieldNumber(const std::string& text, int* number) {
    if (text.empty() || text.size() > 9 || text.find_first_not_of("0123456789") != std::string::npos) return false;
    *number = std::stoi(text);
    return true;
}

int ComputeKey(CORVIDA_KV::CorvidaKVApi* api, const Message& msg, const std::vector<int>* fields, bool check,
               LPPLOGCATEGORYINST log, std::string* key) {
    // Message-typed key fields are written with the sizes cached here.
    const size_t capacity = KeyCapacity(msg, fields);
    if (capacity > INT32_MAX) throw Failure("the message is too large for a key");
    std::string buf(capacity, '\0');
    std::unique_ptr<tagtbl_idl> idl(new tagtbl_idl);  // ciphertext scratch; left uninitialised
    int32_t size = static_cast<int32_t>(capacity);
    uint8_t* out = reinterpret_cast<uint8_t*>(&buf[0]);
    const int ret = fields == nullptr
                        ? PROTOBUF_UTIL::ProtobufUtil::ExtractMsgKey(api, msg, out, size, idl.get(), log, check)
                        : PROTOBUF_UTIL::ProtobufUtil::ExtractFieldKey(api, msg, *fields, out, size, idl.get(), log);
    if (ret == 0 || ret == -10) key->assign(buf, 0, static_cast<size_t>(size));
    return ret;
}

std::unique_ptr<ProtobufValueSet_> NewValueSet() {
    std::unique_ptr<ProtobufValueSet_> set(new ProtobufValueSet_);  // 44 MB: no value-initialisation
    set->construct();
    return set;
}

int CutValueSet(Message* msg, const std::set<std::string>& paths, bool with_keys, ProtobufValueSet_* set,
                LPPLOGCATEGORYINST log) {
    std::set<std::string> key_names;
    if (!with_keys && PROTOBUF_UTIL::ProtobufUtil::GetMsgKeyNames(*msg, key_names) != 0) {
        throw Failure("the primary key option of " + msg->GetDescriptor()->full_name() +
                      " names a field the table does not have");
    }
    msg->ByteSizeLong();  // the cut writes sub-messages with their cached sizes
    return PROTOBUF_UTIL::FillValueSetWithMsg(msg, key_names, paths, *set, log);
}

std::vector<std::string> SkippedKeyPaths(const Message& msg, const std::set<std::string>& paths) {
    std::set<std::string> key_names;
    PROTOBUF_UTIL::ProtobufUtil::GetMsgKeyNames(msg, key_names);
    std::vector<std::string> skipped;
    for (const std::string& path : paths) {
        std::vector<std::string> names;
        PROTOBUF_UTIL::TokenSplit(path, ".", names);
        if (!names.empty() && key_names.count(names[0]) != 0) skipped.push_back(path);
    }
    return skipped;
}

std::vector<PbValueSetBuffer::Field> ValueSetFields(const ProtobufValueSet_& set, LPPLOGCATEGORYINST log) {
    PbValueSetBuffer reader(&set, set.iVersion_, log);
    std::vector<PbValueSetBuffer::Field> fields;
    const int ret = reader.GetFields(fields);
    if (ret != 0) throw Failure("the value set is inconsistent (reading its fields gives " + std::to_string(ret) + ")");
    return fields;
}

std::string PackValueSet(const ProtobufValueSet_& set) {
    std::string packed(set.packedSize(), '\0');
    size_t used = 0;
    const int ret = set.pack(&packed[0], packed.size(), &used);
    if (ret != 0) throw Failure("the value set cannot be packed (pack gives " + std::to_string(ret) + ")");
    packed.resize(used);
    return packed;
}

void UnpackValueSet(const std::string& data, const std::string& source, ProtobufValueSet_* set) {
    size_t used = 0;
    const int ret = set->unpack(data.data(), data.size(), &used);
    switch (ret) {
        case 0: break;
        case -2: throw Failure(source + " is not a packed value set: the input ends early");
        case -3: throw Failure(source + " is not a packed value set: a count or length exceeds its array");
        case -4:
            throw Failure(source +
                          " is not a packed value set: an index entry points outside the value buffer, "
                          "or a tag path holds a NUL");
        default: throw Failure(source + " is not a packed value set (unpack gives " + std::to_string(ret) + ")");
    }
    if (used != data.size()) {
        throw Failure(source + " holds " + std::to_string(data.size() - used) + " bytes after the packed value set");
    }
}

void MergeValueSet(const ProtobufValueSet_& set, Message* msg, std::set<std::string>* failed, size_t* records,
                   LPPLOGCATEGORYINST log) {
    std::vector<PbValueSetBuffer::Field> fields = ValueSetFields(set, log);
    *records = fields.size();
    const int ret = PROTOBUF_UTIL::FillMsgFromField(fields, *failed, msg, nullptr, 0, log);
    if (ret == 0) return;
    std::vector<std::string> tag_paths;
    for (const PbValueSetBuffer::Field& field : fields) tag_paths.push_back(field.path != nullptr ? field.path : "");
    throw Failure(WithResult(ExplainMergeResult(ret, msg->GetDescriptor(), tag_paths), ret));
}

}  // namespace corvida_pb
