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
#include <cstring>
#include <memory>
#include <string_view>
#include <vector>

#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/io/zero_copy_stream_impl_lite.h>
#include <google/protobuf/wire_format.h>

#include "corvidaservice.optionv1.pb.h"
#include "protobuf_api/protobuf_util.h"
#include "protobuf_api/protobuf_util_fields.h"
#include "protobuf_api/protobuf_util_log.h"
#include "protobuf_api/protobuf_util_plans.h"
#include "protobuf_api/protobuf_util_tokens.h"

namespace PROTOBUF_UTIL {
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
using google::protobuf::io::EpsCopyOutputStream;

// The value-set layout this module writes.
constexpr int kValueSetVersion = 1;

// Helpers log in the name of the operation they work for.
constexpr char kFill[] = "FillValueSetWithMsg";
constexpr char kMerge[] = "FillMsgFromField";

// ---------------------------------------------------------------------------
// The fields of a message type as the value-set operations use them.
// ---------------------------------------------------------------------------

// One field: what a walk through it and a cut of it need.
struct FieldEntry {
    const FieldDescriptor* field = nullptr;
    const Descriptor* message_type = nullptr;  // of a message field
    bool plain = false;                        // internal::IsPlain: cut with internal::WritePlain
    internal::PlainField encoding;
    uint8_t number_size = 0;
    char number[11] = {};  // the field number in decimal, as a tag path has it
};

FieldEntry MakeEntry(const FieldDescriptor* field) {
    FieldEntry entry;
    entry.field = field;
    entry.message_type = field->message_type();
    entry.plain = internal::IsPlain(field);
    if (entry.plain) entry.encoding = internal::PlanPlainField(field);
    // The decimal text ConcatFieldPath writes: the number taken as unsigned.
    const std::to_chars_result end =
        std::to_chars(entry.number, entry.number + sizeof(entry.number), static_cast<unsigned>(field->number()));
    entry.number_size = static_cast<uint8_t>(end.ptr - entry.number);
    return entry;
}

// The fields of one generated message type, by index and by name.
struct MessageFields {
    const void* key = nullptr;  // the descriptor
    std::vector<FieldEntry> entries;
    std::vector<int> slots;  // open addressing by NameHash: entry index + 1, 0 for none
    size_t mask = 0;

    static size_t NameHash(std::string_view name) {
        return name.empty() ? 0
                            : name.size() * 131 + static_cast<unsigned char>(name.front()) * 31 +
                                  static_cast<unsigned char>(name.back());
    }

    // The field named `name` (the same field FindFieldByName finds), or null.
    const FieldEntry* Find(std::string_view name) const {
        for (size_t at = NameHash(name);; ++at) {
            const int slot = slots[at & mask];
            if (slot == 0) return nullptr;
            const FieldEntry& entry = entries[static_cast<size_t>(slot - 1)];
            if (entry.field->name() == name) return &entry;
        }
    }
};

// The fields of desc, planned and kept when desc is of the generated pool;
// null otherwise, or when none can be kept.
const MessageFields* KeptFields(const Descriptor* desc) {
    using Plans = internal::PlanCache<MessageFields>;
    if (!internal::IsGeneratedType(desc)) return nullptr;
    if (const MessageFields* kept = Plans::Find(desc)) return kept;
    std::unique_ptr<MessageFields> fields(new (std::nothrow) MessageFields);
    if (fields == nullptr) return nullptr;
    fields->key = desc;
    const size_t count = static_cast<size_t>(desc->field_count());
    fields->entries.reserve(count);
    for (size_t i = 0; i < count; ++i) fields->entries.push_back(MakeEntry(desc->field(static_cast<int>(i))));
    size_t size = 1;
    while (size < 2 * count + 1) size *= 2;
    fields->slots.assign(size, 0);
    fields->mask = size - 1;
    for (size_t i = 0; i < count; ++i) {
        size_t at = MessageFields::NameHash(fields->entries[i].field->name());
        while (fields->slots[at & fields->mask] != 0) ++at;
        fields->slots[at & fields->mask] = static_cast<int>(i) + 1;
    }
    return Plans::Publish(fields);
}

// The field of desc named `name` (as FindFieldByName), or null; fields are
// desc's kept fields, if any, else the entry lives in *scratch.
const FieldEntry* FieldByName(const MessageFields* fields, const Descriptor* desc, std::string_view name,
                              FieldEntry* scratch) {
    if (fields != nullptr) return fields->Find(name);
    const FieldDescriptor* field = internal::FindFieldByToken(desc, name);
    if (field == nullptr) return nullptr;
    *scratch = MakeEntry(field);
    return scratch;
}

// ---------------------------------------------------------------------------
// Cutting fields into a value set.
// ---------------------------------------------------------------------------

// The names of a dotted path, as views into it: the tokens TokenSplit would
// make of it on ".", of which the first kMax are kept; and whether the path
// holds a NUL byte.
class NamePath {
public:
    static constexpr size_t kMax = CORVIDA_PROTOBUF_MAX_TAG_DEPTH;

    explicit NamePath(const std::string& p) : m_has_nul(std::memchr(p.data(), '\0', p.size()) != nullptr) {
        const std::string_view text(p);
        size_t last = 0;
        for (size_t at = text.find('.'); at != std::string_view::npos; at = text.find('.', last)) {
            Add(text.substr(last, at - last));
            last = at + 1;
        }
        // Only a non-empty tail is a name: a trailing "." adds none.
        if (last < text.size()) Add(text.substr(last));
    }

    size_t count() const { return m_count; }
    bool has_nul() const { return m_has_nul; }
    // Name i (i below kMax and count()).
    std::string_view name(size_t i) const { return std::string_view(m_names[i].data, m_names[i].size); }

private:
    void Add(std::string_view name) {
        if (m_count < kMax) {
            name = internal::TokenView::Trim(name);
            m_names[m_count] = Span{name.data(), name.size()};
        }
        ++m_count;
    }

    // Left uninitialized: most paths have a name or two.
    struct Span {
        const char* data;
        size_t size;
    };
    Span m_names[kMax];
    size_t m_count = 0;
    bool m_has_nul;
};

// True when `path` (without a NUL byte) followed by "." begins an element of
// the set from `next` on, the element after path: the elements that begin
// with path follow it in the set's order, one after another.
bool LeadsAnother(const std::string& path, std::set<std::string>::const_iterator next,
                  std::set<std::string>::const_iterator end) {
    for (; next != end && next->size() >= path.size() && std::memcmp(next->data(), path.data(), path.size()) == 0;
         ++next) {
        if (next->size() > path.size() && (*next)[path.size()] == '.') return true;
    }
    return false;
}

// Checks dotted path p, whose names are `names` and which the set holds
// before `next`, against the limits and against the other requested paths.
int CheckDottedPath(const std::string& p, std::set<std::string>::const_iterator next,
                    const std::set<std::string>& dottedpaths, const NamePath& names, LPPLOGCATEGORYINST log) {
    if (p.size() >= CORVIDA_PROTOBUF_MAX_TAG_PATH) {
        PBU_LOG_IN(kFill, log, PLOG_PRIORITY_ERROR, "size of dottedpath:%s exceed max:%u.", p.c_str(),
                   static_cast<unsigned>(CORVIDA_PROTOBUF_MAX_TAG_PATH));
        return GEN_ERR_INVALID_ARGUMENTS;
    }
    // Against every requested path, not only those already cut: a sub-message
    // and a field inside it cannot both be written. VerifyTagPath reads the
    // path up to a NUL byte; only such a path is not judged by its neighbours.
    const bool suspect = names.has_nul() || LeadsAnother(p, next, dottedpaths.end());
    if (suspect && VerifyTagPath(p, dottedpaths, log) != 0) {
        PBU_LOG_IN(kFill, log, PLOG_PRIORITY_ERROR, "dottedpath:%s duplicated.", p.c_str());
        return GEN_ERR_INVALID_ARGUMENTS;
    }
    if (names.count() == 0) {
        PBU_LOG_IN(kFill, log, PLOG_PRIORITY_ERROR, "dottedpath:%s pathsize[%zd] invalid.", p.c_str(),
                   static_cast<ssize_t>(0));
        return GEN_ERR_INVALID_ARGUMENTS;
    }
    if (names.count() > NamePath::kMax) {
        PBU_LOG_IN(kFill, log, PLOG_PRIORITY_ERROR, "dottedpath:%s pathsize[%zd] exceed max(%u) invalid.", p.c_str(),
                   static_cast<ssize_t>(names.count()), static_cast<unsigned>(CORVIDA_PROTOBUF_MAX_TAG_DEPTH));
        return GEN_ERR_INVALID_ARGUMENTS;
    }
    return 0;
}

// The key names of a call, looked up for every path.
class KeyNames {
public:
    explicit KeyNames(const std::set<std::string>& names) : m_names(names) {
        // A table has a few key names: comparing them all costs less than the
        // set's search, which wants a std::string.
        if (names.size() > kFew) return;
        for (const std::string& name : names) m_few[m_count++] = name;
    }

    // True when the set holds `name`.
    bool Holds(std::string_view name) {
        if (m_names.size() > kFew) {
            m_scratch.assign(name.data(), name.size());
            return m_names.count(m_scratch) != 0;
        }
        for (size_t i = 0; i < m_count; ++i) {
            if (m_few[i] == name) return true;
        }
        return false;
    }

private:
    static constexpr size_t kFew = 8;
    const std::set<std::string>& m_names;
    std::string_view m_few[kFew];
    size_t m_count = 0;
    std::string m_scratch;
};

// The message a walk starts from, with what every path needs of it.
struct WalkRoot {
    Message* msg;
    const Descriptor* desc;
    const Reflection* reflection;
    const MessageFields* fields;  // desc's, when kept
};

// The sub-messages the last walk went through, so that the next path under
// the same ones does not ask for them again: paths come in the set's order,
// so the fields of one sub-message come one after another. A walk only
// creates sub-messages, which stay where they are for the rest of the call.
struct WalkMemo {
    struct Level {
        const FieldDescriptor* field;  // the message field walked into
        Message* msg;                  // the sub-message
        const Reflection* reflection;  // its reflection
        const MessageFields* fields;   // its type's fields, when kept
    };
    Level levels[CORVIDA_PROTOBUF_MAX_TAG_DEPTH];
    size_t depth = 0;  // valid levels
};

// The end of one walk: the last field and the message that holds it.
struct CutTarget {
    const FieldEntry* entry = nullptr;
    Message* holder = nullptr;
    const Reflection* reflection = nullptr;  // the holder's
};

// Resolves the names of dotted path p from root.msg down. On success *target
// is the last field and its holder (sub-messages on the way are created in
// msg), and tagpath (NUL-terminated) the tag path. *scratch holds the entry
// of a field of a type whose fields are not kept.
int WalkNamePath(const WalkRoot& root, const NamePath& names, WalkMemo* memo, CutTarget* target, char* tagpath,
                 FieldEntry* scratch, LPPLOGCATEGORYINST log) {
    const Descriptor* lastDesc = root.desc;
    Message* lastmsg = root.msg;
    const Reflection* reflection = root.reflection;
    const MessageFields* fields = root.fields;
    char* end = tagpath;
    for (size_t i = 0; i < names.count(); ++i) {
        const std::string_view name = names.name(i);
        const int length = static_cast<int>(name.size());
        const FieldEntry* entry = FieldByName(fields, lastDesc, name, scratch);
        if (entry == nullptr) {
            PBU_LOG_IN(kFill, log, PLOG_PRIORITY_ERROR, "field %.*s not exist.", length, name.data());
            return GEN_ERR_INVALID_ARGUMENTS;
        }
        const FieldDescriptor* field = entry->field;
        // A repeated field has no single element to cut, nor to walk into.
        if (field->is_repeated()) {
            PBU_LOG_IN(kFill, log, PLOG_PRIORITY_ERROR, "field %.*s is repeated type, unsupported.", length,
                       name.data());
            return API_ERR_UNSUPPORT_FIELD_TYPE;
        }
        if (end != tagpath) *end++ = '.';
        // All of `number`: the bytes past its digits are overwritten next.
        std::memcpy(end, entry->number, sizeof(entry->number));
        end += entry->number_size;
        *end = '\0';
        if (i + 1 == names.count()) {
            *target = CutTarget{entry, lastmsg, reflection};
            return 0;
        }

        lastDesc = entry->message_type;
        if (lastDesc == nullptr) {
            PBU_LOG_IN(kFill, log, PLOG_PRIORITY_ERROR, "field %.*s message not exist.", length, name.data());
            return GEN_ERR_INVALID_ARGUMENTS;
        }
        if (reflection == nullptr) {
            PBU_LOG_IN(kFill, log, PLOG_PRIORITY_ERROR, "field %.*s lastmsg reflection not exist.", length,
                       name.data());
            return GEN_ERR_INVALID_ARGUMENTS;
        }
        if (i >= memo->depth || memo->levels[i].field != field) {
            Message* sub = reflection->MutableMessage(lastmsg, field);
            memo->levels[i] = WalkMemo::Level{field, sub, sub->GetReflection(), KeptFields(lastDesc)};
            memo->depth = i + 1;
        }
        lastmsg = memo->levels[i].msg;
        reflection = memo->levels[i].reflection;
        fields = memo->levels[i].fields;
    }
    return 0;
}

// Appends a record for the target field under tagpath and serializes the
// field (its key, then its value) straight into the record's region.
int CutField(PbValueSetBuffer& vsb, const CutTarget& target, const char* tagpath, LPPLOGCATEGORYINST log) {
    PbValueSetBuffer::Field field = {-1, tagpath, nullptr, 0, -1};
    int ret = vsb.InsertCutField(field);
    if (ret != 0) {
        PBU_LOG_IN(kFill, log, PLOG_PRIORITY_ERROR, "vsb.InsertCutField() failed, ret=%d, path=%s", ret, tagpath);
        return GEN_ERR_ERR;
    }
    // The region is writable although Field::buf is const.
    uint8_t* region = reinterpret_cast<uint8_t*>(const_cast<char*>(field.buf));
    int written = -1;
    if (target.entry->plain) {
        // Written in place when the field ends clear of the last bytes of the
        // region, where a coded stream over the region would write the same
        // bytes and count them.
        internal::InPlace sink(region);
        if (internal::WritePlain(target.entry->encoding, target.reflection, *target.holder, false,
                                 int64_t{field.buf_len} - EpsCopyOutputStream::kSlopBytes,
                                 sink) == internal::Plain::kWritten) {
            written = static_cast<int>(sink.end() - region);
        }
    }
    if (written < 0) {
        // The coded stream keeps the last bytes in its own buffer until it is
        // flushed, so the record is closed only after this scope.
        ArrayOutputStream array(region, field.buf_len);
        CodedOutputStream output(&array);
        WireFormat::SerializeFieldWithCachedSizes(target.entry->field, *target.holder, &output);
        // The stream is not checked for overflow: of a field larger than the
        // region only what the stream could write is kept, and the record is
        // closed with that shorter length, which the stream counts.
        written = static_cast<int>(output.ByteCount());
    }
    ret = vsb.FinishCutField(field.idx, written);
    if (ret != 0) {
        PBU_LOG_IN(kFill, log, PLOG_PRIORITY_ERROR, "vsb.FinishCutField() failed, ret=%d, path=%s", ret, tagpath);
        return GEN_ERR_ERR;
    }
    PBU_LOG_IN(kFill, log, PLOG_PRIORITY_DEBUG, "field #%u, tagpath:%s.", static_cast<unsigned>(vsb.GetFieldNum()),
               tagpath);
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
    const internal::MessageType type = internal::TypeOf(*msg);
    if (type.desc == nullptr) {
        PBU_LOG_ERROR(log, "NULL == descriptor, probably msg invalid");
        return GEN_ERR_INVALID_ARGUMENTS;
    }
    if (dottedpaths.size() > MAX_DBFIELD_NUM) {
        PBU_LOG_ERROR(log, "invalid dottedpaths, size[%zd] exceed max(%u)", static_cast<ssize_t>(dottedpaths.size()),
                      static_cast<unsigned>(MAX_DBFIELD_NUM));
        return GEN_ERR_INVALID_ARGUMENTS;
    }

    const WalkRoot root{msg, type.desc, type.reflection, KeptFields(type.desc)};
    KeyNames keys(setKeyNames);
    WalkMemo memo;
    FieldEntry entry;
    // At most 32 numbers of at most 10 digits, with the dots between them,
    // and room to copy a whole FieldEntry::number after the last.
    char tagpath[CORVIDA_PROTOBUF_MAX_TAG_DEPTH * 11 + sizeof(FieldEntry::number)];
    for (auto it = dottedpaths.begin(), next = it; it != dottedpaths.end(); it = next) {
        ++next;
        const std::string& p = *it;
        const NamePath names(p);
        int ret = CheckDottedPath(p, next, dottedpaths, names, log);
        if (ret != 0) return ret;
        // Key fields travel in the record key, never in the value set; so
        // does anything under them.
        const std::string_view first = names.name(0);
        if (keys.Holds(first)) {
            PBU_LOG_DEBUG(log, "dottedpath:%s , %.*s is a key field, that's not allowed.", p.c_str(),
                          static_cast<int>(first.size()), first.data());
            continue;
        }
        CutTarget target;
        ret = WalkNamePath(root, names, &memo, &target, tagpath, &entry, log);
        if (ret != 0) return ret;
        ret = CutField(vsb, target, tagpath, log);
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

    const WalkRoot root{msg, desc, desc != nullptr ? msg->GetReflection() : nullptr, nullptr};
    std::string dotpath;
    for (size_t i = 0; i < fields.size(); ++i) {
        const int ret = FillOneField(i, fields[i], dotpath, failedpaths, root, log);
        if (ret != 0) return ret;
    }
    return 0;
}

}  // namespace PROTOBUF_UTIL
