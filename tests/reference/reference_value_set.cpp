// Kept as the yardstick of the differential test (see reference/reference.h).
//
// Value sets: cutting requested fields of a message into a value set for a
// write, and merging the fields of a returned value set back into a message.
//
// Both directions run on every request, so they work on the caller's buffers
// directly (the field bytes are serialized straight into the builder's region
// and parsed straight from the set), read paths in place instead of splitting
// them into strings, and reuse their scratch strings from one field to the
// next: an ordinary call allocates nothing of its own.
#include <sys/types.h>

#include <charconv>
#include <climits>
#include <cstdint>
#include <string_view>

#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/io/zero_copy_stream_impl_lite.h>
#include <google/protobuf/wire_format.h>

#include "corvidaservice.optionv1.pb.h"
#include "reference/reference.h"
#include "protobuf_api/protobuf_util_log.h"
#include "reference/reference_tokens.h"

namespace corvida_reference {
namespace {

using CorvErrCode::API_ERR_UNSUPPORT_FIELD_TYPE;
using CorvErrCode::GEN_ERR_ERR;
using CorvErrCode::GEN_ERR_INVALID_ARGUMENTS;
using CorvidaCommon::PbValueSetBuffer;
using google::protobuf::Descriptor;
using google::protobuf::FieldDescriptor;
using google::protobuf::Message;
using google::protobuf::Reflection;
using google::protobuf::internal::WireFormat;
using google::protobuf::io::ArrayOutputStream;
using google::protobuf::io::CodedInputStream;
using google::protobuf::io::CodedOutputStream;

// The value-set layout this module writes.
constexpr int kValueSetVersion = 1;

// Helpers log in the name of the operation they work for.
constexpr char kFill[] = "FillValueSetWithMsg";
constexpr char kMerge[] = "FillMsgFromField";

// ---------------------------------------------------------------------------
// Cutting fields into a value set.
// ---------------------------------------------------------------------------

// Checks dotted path p against the limits and against the other requested
// paths. On success *names is the number of its names.
int CheckDottedPath(const std::string& p, const std::set<std::string>& dottedpaths, size_t* names,
                    LPPLOGCATEGORYINST log) {
    if (p.size() >= CORVIDA_PROTOBUF_MAX_TAG_PATH) {
        PBU_LOG_IN(kFill, log, PLOG_PRIORITY_ERROR, "size of dottedpath:%s exceed max:%u.", p.c_str(),
                   static_cast<unsigned>(CORVIDA_PROTOBUF_MAX_TAG_PATH));
        return GEN_ERR_INVALID_ARGUMENTS;
    }
    // Against every requested path, not only those already cut: a sub-message
    // and a field inside it cannot both be written.
    if (VerifyTagPath(p, dottedpaths, log) != 0) {
        PBU_LOG_IN(kFill, log, PLOG_PRIORITY_ERROR, "dottedpath:%s duplicated.", p.c_str());
        return GEN_ERR_INVALID_ARGUMENTS;
    }
    *names = internal::TokenView(p, '.').Count();
    if (*names == 0) {
        PBU_LOG_IN(kFill, log, PLOG_PRIORITY_ERROR, "dottedpath:%s pathsize[%zd] invalid.", p.c_str(),
                   static_cast<ssize_t>(0));
        return GEN_ERR_INVALID_ARGUMENTS;
    }
    if (*names > CORVIDA_PROTOBUF_MAX_TAG_DEPTH) {
        PBU_LOG_IN(kFill, log, PLOG_PRIORITY_ERROR, "dottedpath:%s pathsize[%zd] exceed max(%u) invalid.", p.c_str(),
                   static_cast<ssize_t>(*names), static_cast<unsigned>(CORVIDA_PROTOBUF_MAX_TAG_DEPTH));
        return GEN_ERR_INVALID_ARGUMENTS;
    }
    return 0;
}

// Appends a field number to a tag path, after a "." unless the path is
// empty, as the decimal text ConcatFieldPath writes (the number taken as
// unsigned).
void AppendTagNumber(int number, std::string& tagpath) {
    char text[16];
    const std::to_chars_result end = std::to_chars(text, text + sizeof(text), static_cast<unsigned>(number));
    if (!tagpath.empty()) tagpath += '.';
    tagpath.append(text, end.ptr);
}

// The message a walk starts from, with what every path needs of it.
struct WalkRoot {
    Message* msg;
    const Descriptor* desc;
    const Reflection* reflection;
};

// Resolves the `names` names of dotted path p from root.msg down. On success
// *fieldDesc is the last field, *lastmsg the message that holds it
// (sub-messages on the way are created in msg) and fieldPath, empty before,
// the tag path. name is scratch space for one name.
int WalkNamePath(const WalkRoot& root, const std::string& p, size_t names, const FieldDescriptor** fieldDesc,
                 Message** lastmsg, std::string& fieldPath, std::string& name, LPPLOGCATEGORYINST log) {
    const Descriptor* lastDesc = root.desc;
    *lastmsg = root.msg;
    internal::TokenView namePath(p, '.');
    std::string_view component;
    for (size_t i = 0; i < names && namePath.Next(&component); ++i) {
        name.assign(component.data(), component.size());
        const FieldDescriptor* field = internal::FindFieldByToken(lastDesc, component);
        if (field == nullptr) {
            PBU_LOG_IN(kFill, log, PLOG_PRIORITY_ERROR, "field %s not exist.", name.c_str());
            return GEN_ERR_INVALID_ARGUMENTS;
        }
        // A repeated field has no single element to cut, nor to walk into.
        if (field->is_repeated()) {
            PBU_LOG_IN(kFill, log, PLOG_PRIORITY_ERROR, "field %s is repeated type, unsupported.", name.c_str());
            return API_ERR_UNSUPPORT_FIELD_TYPE;
        }
        AppendTagNumber(field->number(), fieldPath);
        *fieldDesc = field;
        if (i + 1 == names) break;

        lastDesc = field->message_type();
        if (lastDesc == nullptr) {
            PBU_LOG_IN(kFill, log, PLOG_PRIORITY_ERROR, "field %s message not exist.", name.c_str());
            return GEN_ERR_INVALID_ARGUMENTS;
        }
        if (*lastmsg == nullptr) {
            PBU_LOG_IN(kFill, log, PLOG_PRIORITY_ERROR, "field %s lastmsg not exist.", name.c_str());
            return GEN_ERR_INVALID_ARGUMENTS;
        }
        const Reflection* reflection = *lastmsg == root.msg ? root.reflection : (*lastmsg)->GetReflection();
        if (reflection == nullptr) {
            PBU_LOG_IN(kFill, log, PLOG_PRIORITY_ERROR, "field %s lastmsg reflection not exist.", name.c_str());
            return GEN_ERR_INVALID_ARGUMENTS;
        }
        *lastmsg = reflection->MutableMessage(*lastmsg, field);
    }
    return 0;
}

// Appends a record for fieldDesc of lastmsg under fieldPath and serializes
// the field (its key, then its value) straight into the record's region.
int CutField(PbValueSetBuffer& vsb, const FieldDescriptor* fieldDesc, const Message& lastmsg,
             const std::string& fieldPath, LPPLOGCATEGORYINST log) {
    PbValueSetBuffer::Field field = {-1, fieldPath.c_str(), nullptr, 0, -1};
    int ret = vsb.InsertCutField(field);
    if (ret != 0) {
        PBU_LOG_IN(kFill, log, PLOG_PRIORITY_ERROR, "vsb.InsertCutField() failed, ret=%d, path=%s", ret,
                   fieldPath.c_str());
        return GEN_ERR_ERR;
    }
    int written = 0;
    {
        // The region is writable although Field::buf is const. The coded
        // stream keeps the last bytes in its own buffer until it is flushed,
        // so the record is closed only after this scope.
        ArrayOutputStream region(const_cast<char*>(field.buf), field.buf_len);
        CodedOutputStream output(&region);
        WireFormat::SerializeFieldWithCachedSizes(fieldDesc, lastmsg, &output);
        // The stream is not checked for overflow: of a field larger than the
        // region only what the stream could write is kept, and the record is
        // closed with that shorter length, which the stream counts.
        written = output.ByteCount();
    }
    ret = vsb.FinishCutField(field.idx, written);
    if (ret != 0) {
        PBU_LOG_IN(kFill, log, PLOG_PRIORITY_ERROR, "vsb.FinishCutField() failed, ret=%d, path=%s", ret,
                   fieldPath.c_str());
        return GEN_ERR_ERR;
    }
    PBU_LOG_IN(kFill, log, PLOG_PRIORITY_DEBUG, "field #%u, tagpath:%s.", static_cast<unsigned>(vsb.GetFieldNum()),
               fieldPath.c_str());
    return 0;
}

// ---------------------------------------------------------------------------
// Merging value-set fields into a message.
// ---------------------------------------------------------------------------

// A tag-path component as a decimal number: its leading digits (0 when there
// are none), saturating at UINT32_MAX, which names no field.
uint32_t ComponentNumber(std::string_view component) {
    uint64_t value = 0;
    for (char c : component) {
        if (c < '0' || c > '9') break;
        value = value * 10 + static_cast<uint64_t>(c - '0');
        if (value > UINT32_MAX) return UINT32_MAX;
    }
    return static_cast<uint32_t>(value);
}

// The walk of one tag path: the field it names, the message that holds it
// and the number of its last component.
struct TagPathTarget {
    const FieldDescriptor* fieldDesc = nullptr;
    Message* lastmsg = nullptr;
    uint32_t lastnumber = 0;
};

// Resolves the components of tag path dotpath (of fields[i]) from root.msg
// down, creating sub-messages on the way. A null msg, or one without a
// descriptor, leaves target->fieldDesc null. Components are logged as views
// ("%.*s"), which print as the strings TokenSplit would have made.
int WalkTagPath(size_t i, const std::string& dotpath, const WalkRoot& root, TagPathTarget* target,
                LPPLOGCATEGORYINST log) {
    target->lastmsg = root.msg;
    const Descriptor* lastDesc = root.desc;
    if (lastDesc == nullptr) return 0;
    internal::TokenView tagpath(dotpath, '.');
    const size_t count = tagpath.Count();
    std::string_view component;
    for (size_t j = 0; j < count && tagpath.Next(&component); ++j) {
        const int length = static_cast<int>(component.size());
        PBU_LOG_IN(kMerge, log, PLOG_PRIORITY_DEBUG, "dotpath[%d]:%.*s", static_cast<int>(i), length, component.data());
        target->lastnumber = ComponentNumber(component);
        const FieldDescriptor* field =
            target->lastnumber <= INT_MAX ? lastDesc->FindFieldByNumber(static_cast<int>(target->lastnumber)) : nullptr;
        if (field == nullptr) {
            PBU_LOG_IN(kMerge, log, PLOG_PRIORITY_ERROR, "field %.*s not exist, lastnumber:%u, lastDesc:%s.", length,
                       component.data(), target->lastnumber, lastDesc->DebugString().c_str());
            return GEN_ERR_INVALID_ARGUMENTS;
        }
        target->fieldDesc = field;
        if (j + 1 == count) break;

        // Paths come from the network: one that leads through a scalar or a
        // repeated field has no message below it to walk into.
        if (field->cpp_type() != FieldDescriptor::CPPTYPE_MESSAGE || field->is_repeated()) {
            PBU_LOG_IN(kMerge, log, PLOG_PRIORITY_ERROR, "field %s lastmsg not exist.", field->name().c_str());
            return GEN_ERR_INVALID_ARGUMENTS;
        }
        const Reflection* reflection = target->lastmsg == root.msg ? root.reflection : target->lastmsg->GetReflection();
        if (reflection == nullptr) {
            PBU_LOG_IN(kMerge, log, PLOG_PRIORITY_ERROR, "field %s lastmsg reflection not exist.",
                       field->name().c_str());
            return GEN_ERR_INVALID_ARGUMENTS;
        }
        target->lastmsg = reflection->MutableMessage(target->lastmsg, field);
        lastDesc = field->message_type();
    }
    return 0;
}

// Parses the bytes of fields[i] into the cleared target field. Returns false
// when they do not merge: the path is then listed in failedpaths, the field
// cleared again and the failure logged.
bool ParseFieldBytes(size_t i, const PbValueSetBuffer::Field& field, const std::string& dotpath,
                     const TagPathTarget& target, const Reflection* reflection, std::set<std::string>& failedpaths,
                     LPPLOGCATEGORYINST log) {
    const FieldDescriptor* fieldDesc = target.fieldDesc;
    CodedInputStream input(reinterpret_cast<const uint8_t*>(field.buf), field.buf_len);
    // The key of the field as the writer serialized it: wire type 2 when
    // packed, else the wire type of the field's type.
    const uint32_t fieldtag = WireFormat::MakeTag(fieldDesc);
    const uint32_t tag = input.ReadTag();
    if ((tag != fieldtag && tag != 0) || !WireFormat::ParseAndMergeField(fieldtag, fieldDesc, target.lastmsg, &input)) {
        failedpaths.insert(dotpath);
        reflection->ClearField(target.lastmsg, fieldDesc);
        PBU_LOG_IN(kMerge, log, PLOG_PRIORITY_ERROR,
                   "ParseAndMergeField failed i:%zu buf:%p, len:%u, lasternumber:%u, msg:%s dotpath:%s", i,
                   static_cast<const void*>(field.buf), static_cast<unsigned>(field.buf_len), target.lastnumber,
                   fieldDesc->name().c_str(), dotpath.c_str());
        return false;
    }
    // A repeated message field carries one keyed element after another; any
    // other field is read once (of a non-packed repeated scalar only the first
    // element is merged).
    if (fieldDesc->type() != FieldDescriptor::TYPE_MESSAGE || !fieldDesc->is_repeated()) return true;
    int index = 0;
    uint32_t next = 0;
    while ((next = input.ReadTag()) == fieldtag) {
        if (!WireFormat::ParseAndMergeField(fieldtag, fieldDesc, target.lastmsg, &input)) break;
        ++index;
    }
    if (next == 0) return true;  // the end of the bytes
    // A failed element (next is still fieldtag) or a foreign key.
    failedpaths.insert(dotpath);
    reflection->ClearField(target.lastmsg, fieldDesc);
    PBU_LOG_IN(kMerge, log, PLOG_PRIORITY_ERROR,
               "ParseAndMergeField failed i:%zu buf:%p, len:%u, lasternumber:%u, msg:%s dotpath:%s, index:%d", i,
               static_cast<const void*>(field.buf), static_cast<unsigned>(field.buf_len), target.lastnumber,
               fieldDesc->name().c_str(), dotpath.c_str(), index);
    return false;
}

// Merges fields[i] into root.msg. dotpath is scratch space kept by the
// caller across fields.
int FillOneField(size_t i, const PbValueSetBuffer::Field& field, std::string& dotpath,
                 std::set<std::string>& failedpaths, const WalkRoot& root, LPPLOGCATEGORYINST log) {
    dotpath.assign(field.path != nullptr ? field.path : "");
    PBU_LOG_IN(kMerge, log, PLOG_PRIORITY_DEBUG, "dotpath:%s", dotpath.c_str());

    TagPathTarget target;
    int ret = WalkTagPath(i, dotpath, root, &target, log);
    if (ret != 0) return ret;
    if (target.fieldDesc == nullptr || target.lastmsg == nullptr) {
        PBU_LOG_IN(kMerge, log, PLOG_PRIORITY_ERROR, "field %s not found.", dotpath.c_str());
        return GEN_ERR_INVALID_ARGUMENTS;
    }
    const FieldDescriptor* fieldDesc = target.fieldDesc;
    const Reflection* reflection = target.lastmsg == root.msg ? root.reflection : target.lastmsg->GetReflection();
    if (reflection == nullptr) {
        PBU_LOG_IN(kMerge, log, PLOG_PRIORITY_ERROR, "field %s lastmsg reflection not exist.",
                   fieldDesc->name().c_str());
        return GEN_ERR_INVALID_ARGUMENTS;
    }

    // The incoming bytes replace the value; no bytes leave the field cleared.
    reflection->ClearField(target.lastmsg, fieldDesc);
    if (field.buf != nullptr && field.buf_len > 0 &&
        !ParseFieldBytes(i, field, dotpath, target, reflection, failedpaths, log)) {
        return 0;
    }

    // No cipher suite is at hand here: an encrypted string or bytes field
    // keeps the ciphertext merged, and its path is reported so that the
    // caller knows the value is not plain text.
    const bool bCrypto = fieldDesc->options().GetExtension(corvidaservice::corvida_crypto);
    PBU_LOG_IN(kMerge, log, PLOG_PRIORITY_DEBUG, "tag:%d field name:%s corvida_crypto:%d",
               static_cast<int>(target.lastnumber), fieldDesc->name().c_str(), static_cast<int>(bCrypto));
    if (bCrypto && fieldDesc->cpp_type() == FieldDescriptor::CPPTYPE_STRING) {
        failedpaths.insert(dotpath);
        PBU_LOG_IN(kMerge, log, PLOG_PRIORITY_ERROR, "suite name not valid");
    }
    return 0;
}

}  // namespace

int FillValueSetWithMsg(Message* msg, const std::set<std::string>& setKeyNames,
                        const std::set<std::string>& dottedpaths, ProtobufValueSet_& values, LPPLOGCATEGORYINST log) {
    PbValueSetBuffer vsb(&values, kValueSetVersion, log);
    vsb.ResetFieldNum();
    if (msg == nullptr || dottedpaths.empty()) return 0;
    const WalkRoot root{msg, msg->GetDescriptor(), msg->GetReflection()};
    if (root.desc == nullptr) {
        PBU_LOG_ERROR(log, "NULL == descriptor, probably msg invalid");
        return GEN_ERR_INVALID_ARGUMENTS;
    }
    if (dottedpaths.size() > MAX_DBFIELD_NUM) {
        PBU_LOG_ERROR(log, "invalid dottedpaths, size[%zd] exceed max(%u)", static_cast<ssize_t>(dottedpaths.size()),
                      static_cast<unsigned>(MAX_DBFIELD_NUM));
        return GEN_ERR_INVALID_ARGUMENTS;
    }

    std::string name;  // one name of a path
    std::string fieldPath;
    for (const std::string& p : dottedpaths) {
        size_t names = 0;
        int ret = CheckDottedPath(p, dottedpaths, &names, log);
        if (ret != 0) return ret;
        // Key fields travel in the record key, never in the value set; so
        // does anything under them.
        std::string_view first;
        internal::TokenView(p, '.').Next(&first);
        name.assign(first.data(), first.size());
        if (setKeyNames.count(name) != 0) {
            PBU_LOG_DEBUG(log, "dottedpath:%s , %s is a key field, that's not allowed.", p.c_str(), name.c_str());
            continue;
        }
        const FieldDescriptor* fieldDesc = nullptr;
        Message* lastmsg = nullptr;
        fieldPath.clear();
        ret = WalkNamePath(root, p, names, &fieldDesc, &lastmsg, fieldPath, name, log);
        if (ret != 0) return ret;
        ret = CutField(vsb, fieldDesc, *lastmsg, fieldPath, log);
        if (ret != 0) return ret;
    }
    return 0;
}

int FillMsgFromField(std::vector<PbValueSetBuffer::Field>& fields, std::set<std::string>& failedpaths, Message* msg,
                     unsigned char* /*data*/, int /*datasize*/, LPPLOGCATEGORYINST log) {
    const Descriptor* desc = msg != nullptr ? msg->GetDescriptor() : nullptr;
    if (desc != nullptr) {
        PBU_LOG_DEBUG(log, "suite name:%s, lastDesc:%s",
                      desc->options().GetExtension(corvidaservice::corvida_field_cipher_suite).c_str(),
                      desc->DebugString().c_str());
    }
    if (fields.empty()) return 0;

    const WalkRoot root{msg, desc, desc != nullptr ? msg->GetReflection() : nullptr};
    std::string dotpath;
    for (size_t i = 0; i < fields.size(); ++i) {
        const int ret = FillOneField(i, fields[i], dotpath, failedpaths, root, log);
        if (ret != 0) return ret;
    }
    return 0;
}

}  // namespace corvida_reference
