// Value sets: cutting requested fields of a message into a value set for a
// write, and merging the fields of a returned value set back into a message.
//
// Both directions run on every request. They read paths in place instead of
// splitting them into strings, find fields of generated types through maps
// kept per type, keep the sub-messages the last path walked through, and ask
// the log category about debug lines once rather than before each (CallLog).
// Plain fields of generated classes are read and written through their slots
// (protobuf_util_slots.h). A cut encodes plain fields straight into the
// builder's region. A merge stores each plain field it vouches for straight
// into its slot (MergeInPlace), or hands the bytes of such fields of one
// message to protobuf's parser together (PendingMerges), and merges anything
// else field by field through reflection, as it always did. An ordinary call
// allocates nothing of its own.
#include <sys/types.h>

#include <algorithm>
#include <atomic>
#include <charconv>
#include <climits>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <string_view>
#include <typeinfo>
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
#include "protobuf_api/protobuf_util_slots.h"
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
using google::protobuf::internal::WireFormatLite;
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

struct MessageFields;

// How Vouch reads the value of a grouped field: by the wire type of its key,
// with what protobuf's parser checks on top.
enum class ValueKind : uint8_t {
    kNone,       // not grouped
    kVarint,     // any varint of at most ten bytes
    kKnownEnum,  // a varint naming a value of the field's (proto2) enum
    kFixed32,
    kFixed64,
    kBytes,   // length-delimited
    kString,  // length-delimited, valid UTF-8
};

// How MergeInPlace reads the value of a grouped field with a slot and stores
// it there, as protobuf's parser sets the field.
enum class InPlace : uint8_t {
    kNone,       // no slot: the record waits to be parsed (PendingMerges)
    kVarint32,   // int32, uint32, an open enum: the varint cut to 32 bits
    kVarint64,   // int64, uint64
    kZigZag32,   // sint32
    kZigZag64,   // sint64
    kBool,       // true for a non-zero varint
    kKnownEnum,  // a closed enum: a varint naming one of its values
    kFixed32,    // fixed32, sfixed32, float: the bits as they are
    kFixed64,    // fixed64, sfixed64, double
    kBytes,      // the bytes, in place of the old
    kString,     // valid UTF-8, in place of the old
};

// The fields of a message field's type, found once (KeptFields) and then kept
// with the field: a pointer that is null until first asked, and that copies
// of the entry share the value of.
class KeptLink {
public:
    KeptLink() = default;
    KeptLink(const KeptLink& other) : m_fields(other.m_fields.load(std::memory_order_acquire)) {}
    KeptLink& operator=(const KeptLink& other) {
        m_fields.store(other.m_fields.load(std::memory_order_acquire), std::memory_order_release);
        return *this;
    }
    const MessageFields* load() const { return m_fields.load(std::memory_order_acquire); }
    void store(const MessageFields* fields) const { m_fields.store(fields, std::memory_order_release); }

private:
    mutable std::atomic<const MessageFields*> m_fields{nullptr};
};

// One field: what a walk through it, a cut of it and a merge into it need.
struct FieldEntry {
    const FieldDescriptor* field = nullptr;
    const Descriptor* message_type = nullptr;  // of a message field
    bool plain = false;                        // internal::IsPlain: cut with internal::WritePlain
    internal::PlainField encoding;
    // Where objects of the generated class of the type keep the field
    // (MessageFields::slot_type); kNone when they have no slot for it.
    internal::FieldSlot slot;
    uint8_t number_size = 0;
    char number[11] = {};  // the field number in decimal, as a tag path has it
    uint32_t key = 0;      // the field's key as its writers write it (WireFormat::MakeTag)
    bool crypto = false;   // corvida_crypto
    bool grouped = false;  // merged together with other fields of its message (Vouch)
    // A grouped field that is encrypted: its path is reported as failed.
    bool crypto_string = false;
    ValueKind value_kind = ValueKind::kNone;  // of a grouped field
    InPlace in_place = InPlace::kNone;        // of a grouped field with a slot
    uint64_t wait_bit = 0;                    // PendingMerges::MayWait: 1 << (number % 64)
    uint64_t known_values = 0;                // kKnownEnum: bit n set when n (below 64) is a value of the enum
    // A singular message field outside a oneof: records of fields inside it
    // can be merged as part of their parent (PendingMerges::Add with a
    // frame), a length-delimited value under `frame_key`.
    bool framed = false;
    uint8_t frame_key_size = 0;
    uint8_t frame_key[5] = {};
    KeptLink inner;  // of a framed field: the kept fields of its type, once asked (InnerFields)
};

// The kind of value Vouch reads for a grouped field.
ValueKind KindOf(const FieldDescriptor* field) {
    switch (WireFormat::WireTypeForFieldType(field->type())) {
        case WireFormatLite::WIRETYPE_VARINT:
            return field->type() == FieldDescriptor::TYPE_ENUM &&
                           field->file()->syntax() != google::protobuf::FileDescriptor::SYNTAX_PROTO3
                       ? ValueKind::kKnownEnum
                       : ValueKind::kVarint;
        case WireFormatLite::WIRETYPE_FIXED32: return ValueKind::kFixed32;
        case WireFormatLite::WIRETYPE_FIXED64: return ValueKind::kFixed64;
        case WireFormatLite::WIRETYPE_LENGTH_DELIMITED:
            return field->type() == FieldDescriptor::TYPE_STRING ? ValueKind::kString : ValueKind::kBytes;
        default: return ValueKind::kNone;
    }
}

FieldEntry MakeEntry(const FieldDescriptor* field) {
    FieldEntry entry;
    entry.field = field;
    entry.message_type = field->message_type();
    entry.plain = internal::IsPlain(field);
    if (entry.plain) entry.encoding = internal::PlanPlainField(field);
    entry.key = WireFormat::MakeTag(field);
    entry.wait_bit = uint64_t{1} << (static_cast<unsigned>(field->number()) % 64);
    entry.crypto = field->options().GetExtension(corvidaservice::corvida_crypto);
    // A field of a oneof clears the others when it is merged, which depends
    // on the order of the merges.
    entry.grouped = entry.plain && field->real_containing_oneof() == nullptr;
    entry.crypto_string = entry.crypto && field->cpp_type() == FieldDescriptor::CPPTYPE_STRING;
    if (entry.grouped) {
        entry.value_kind = KindOf(field);
        // Vouch expects the key the writers write, of the value's wire type.
        if (WireFormatLite::GetTagWireType(entry.key) != WireFormat::WireTypeForFieldType(field->type())) {
            entry.value_kind = ValueKind::kNone;
        }
        if (entry.value_kind == ValueKind::kNone) entry.grouped = false;
    }
    if (entry.value_kind == ValueKind::kKnownEnum) {
        const google::protobuf::EnumDescriptor* type = field->enum_type();
        for (int i = 0; i < type->value_count(); ++i) {
            const int number = type->value(i)->number();
            if (number >= 0 && number < 64) entry.known_values |= uint64_t{1} << number;
        }
    }
    if (entry.message_type != nullptr && !field->is_repeated() && field->real_containing_oneof() == nullptr &&
        field->type() == FieldDescriptor::TYPE_MESSAGE) {
        entry.framed = true;
        entry.frame_key_size = static_cast<uint8_t>(
            CodedOutputStream::WriteVarint32ToArray(
                WireFormatLite::MakeTag(field->number(), WireFormatLite::WIRETYPE_LENGTH_DELIMITED), entry.frame_key) -
            entry.frame_key);
    }
    // The decimal text ConcatFieldPath writes: the number taken as unsigned.
    const std::to_chars_result end =
        std::to_chars(entry.number, entry.number + sizeof(entry.number), static_cast<unsigned>(field->number()));
    entry.number_size = static_cast<uint8_t>(end.ptr - entry.number);
    return entry;
}

// How MergeInPlace stores a grouped field of a slot's kind.
InPlace InPlaceOf(const FieldEntry& entry) {
    using internal::FieldSlot;
    if (!entry.grouped || entry.slot.kind == FieldSlot::Kind::kNone) return InPlace::kNone;
    switch (entry.value_kind) {
        case ValueKind::kBytes: return InPlace::kBytes;
        case ValueKind::kString: return InPlace::kString;
        case ValueKind::kKnownEnum: return InPlace::kKnownEnum;
        case ValueKind::kFixed32: return InPlace::kFixed32;
        case ValueKind::kFixed64: return InPlace::kFixed64;
        case ValueKind::kVarint: break;
        default: return InPlace::kNone;
    }
    switch (entry.field->type()) {
        case FieldDescriptor::TYPE_SINT32: return InPlace::kZigZag32;
        case FieldDescriptor::TYPE_SINT64: return InPlace::kZigZag64;
        case FieldDescriptor::TYPE_BOOL: return InPlace::kBool;
        default: return entry.slot.size == 8 ? InPlace::kVarint64 : InPlace::kVarint32;
    }
}

// The fields of one generated message type, by index, by name and by
// number.
struct MessageFields {
    const void* key = nullptr;  // the descriptor
    // The generated class whose objects the entries' slots describe; null
    // when there are none. Messages of the type may be of other classes
    // (dynamic messages): their fields are reached through reflection.
    const std::type_info* slot_type = nullptr;
    const Reflection* slot_reflection = nullptr;  // of slot_type
    std::vector<FieldEntry> entries;
    std::vector<int> slots;  // open addressing by NameHash: entry index + 1, 0 for none
    size_t mask = 0;
    std::vector<const FieldEntry*> numbers;  // by field number, null for none; up to kNumbers
    unsigned number_count = 0;               // numbers.size()

    static constexpr int kNumbers = 1024;

    // The field numbered `number` (the one FindFieldByNumber finds), or null.
    const FieldEntry* FindNumber(const Descriptor* desc, int number) const {
        if (static_cast<unsigned>(number) < number_count) return numbers[static_cast<size_t>(number)];
        if (number < kNumbers) return nullptr;
        const FieldDescriptor* field = desc->FindFieldByNumber(number);
        return field == nullptr ? nullptr : &entries[static_cast<size_t>(field->index())];
    }

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
    if (!Plans::HasRoom(desc)) return nullptr;  // it could not be kept
    std::unique_ptr<MessageFields> fields(new (std::nothrow) MessageFields);
    if (fields == nullptr) return nullptr;
    fields->key = desc;
    const size_t count = static_cast<size_t>(desc->field_count());
    fields->entries.reserve(count);
    for (size_t i = 0; i < count; ++i) fields->entries.push_back(MakeEntry(desc->field(static_cast<int>(i))));
    const Message* prototype = google::protobuf::MessageFactory::generated_factory()->GetPrototype(desc);
    if (prototype != nullptr && prototype->GetDescriptor() == desc) {
        const internal::FieldSlots slots = internal::FindFieldSlots(*prototype);
        fields->slot_type = slots.type;
        fields->slot_reflection = prototype->GetReflection();
        for (size_t i = 0; i < count && slots.type != nullptr; ++i) {
            FieldEntry& entry = fields->entries[i];
            entry.slot = slots.by_index[i];
            entry.in_place = InPlaceOf(entry);
        }
    }
    size_t size = 1;
    while (size < 2 * count + 1) size *= 2;
    fields->slots.assign(size, 0);
    fields->mask = size - 1;
    for (size_t i = 0; i < count; ++i) {
        size_t at = MessageFields::NameHash(fields->entries[i].field->name());
        while (fields->slots[at & fields->mask] != 0) ++at;
        fields->slots[at & fields->mask] = static_cast<int>(i) + 1;
        const int number = fields->entries[i].field->number();
        if (number >= MessageFields::kNumbers) continue;
        if (fields->numbers.size() <= static_cast<size_t>(number)) fields->numbers.resize(number + 1, nullptr);
        fields->numbers[static_cast<size_t>(number)] = &fields->entries[i];
    }
    fields->number_count = static_cast<unsigned>(fields->numbers.size());
    return Plans::Publish(fields);
}

// The kept fields of the type of framed field `entry` (KeptFields), or null.
const MessageFields* InnerFields(const FieldEntry& entry) {
    const MessageFields* inner = entry.inner.load();
    if (inner == nullptr) {
        inner = KeptFields(entry.message_type);
        entry.inner.store(inner);
    }
    return inner;
}

// Whether msg is of the class whose objects the slots of `fields` (which may
// be null) describe.
bool Slotted(const MessageFields* fields, const Message& msg) {
    return fields != nullptr && fields->slot_type == &typeid(msg);
}

// The sub-message of message field `entry` of holder (whose reflection is
// reflection; slotted as Slotted tells), made when missing, as
// Reflection::MutableMessage hands it out: one that is made and present is
// read from its slot.
Message* MutableSubMessage(const FieldEntry& entry, Message* holder, const Reflection* reflection, bool slotted) {
    if (slotted && entry.slot.kind == internal::FieldSlot::Kind::kMessage) {
        Message* sub = internal::SubMessage(entry.slot, *holder);
        if (sub != nullptr && (entry.slot.has_mask == 0 || internal::HasBitSet(entry.slot, *holder))) return sub;
    }
    return reflection->MutableMessage(holder, entry.field);
}

// The reflection of sub, a message of a type whose kept fields (if any) are
// `fields`; slotted as Slotted tells.
const Reflection* ReflectionOf(const MessageFields* fields, const Message& sub, bool slotted) {
    return slotted ? fields->slot_reflection : sub.GetReflection();
}

// Room for the entry of a field of a type whose fields are not kept, made
// only when one is needed.
using ScratchEntry = std::optional<FieldEntry>;

// The field of desc named `name` (as FindFieldByName), or null; fields are
// desc's kept fields, if any, else the entry lives in *scratch.
const FieldEntry* FieldByName(const MessageFields* fields, const Descriptor* desc, std::string_view name,
                              ScratchEntry* scratch) {
    if (fields != nullptr) return fields->Find(name);
    const FieldDescriptor* field = internal::FindFieldByToken(desc, name);
    if (field == nullptr) return nullptr;
    return &scratch->emplace(MakeEntry(field));
}

// The field of desc numbered `number` (as FindFieldByNumber), or null;
// fields are desc's kept fields, if any, else the entry lives in *scratch.
const FieldEntry* FieldByNumber(const MessageFields* fields, const Descriptor* desc, int number,
                                ScratchEntry* scratch) {
    if (fields != nullptr) return fields->FindNumber(desc, number);
    const FieldDescriptor* field = desc->FindFieldByNumber(number);
    if (field == nullptr) return nullptr;
    return &scratch->emplace(MakeEntry(field));
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

// True when an element of `set` begins with `path` (without a NUL byte)
// followed by "." -- VerifyTagPath's test. `next` is the element after path.
// The elements that begin with path follow it in the set's order, one after
// another, and those that begin with path + "." are one run of them starting
// at its lower bound: one search and one comparison decide, however many
// elements share a prefix with path ("item", "item_id", ...).
bool LeadsAnother(const std::string& path, std::set<std::string>::const_iterator next,
                  const std::set<std::string>& set) {
    // Commonly the next element does not even begin with path (mostly its
    // first character tells): no search.
    if (next == set.end() || next->size() < path.size() || (!path.empty() && (*next)[0] != path[0]) ||
        std::memcmp(next->data(), path.data(), path.size()) != 0) {
        return false;
    }
    // Kept per thread so that a long path costs no allocation after the first.
    thread_local std::string dotted;
    dotted.assign(path);
    dotted.push_back('.');
    const auto first = set.lower_bound(dotted);
    return first != set.end() && first->compare(0, dotted.size(), dotted) == 0;
}

// Checks dotted path p, whose names are `names` and which the set holds
// before `next`, against the limits and against the other requested paths.
int CheckDottedPath(const std::string& p, std::set<std::string>::const_iterator next,
                    const std::set<std::string>& dottedpaths, const NamePath& names, CallLog& log) {
    if (p.size() >= CORVIDA_PROTOBUF_MAX_TAG_PATH) {
        PBU_LOG_IN(kFill, log.get(), PLOG_PRIORITY_ERROR, "size of dottedpath:%s exceed max:%u.", p.c_str(),
                   static_cast<unsigned>(CORVIDA_PROTOBUF_MAX_TAG_PATH));
        return GEN_ERR_INVALID_ARGUMENTS;
    }
    // Against every requested path, not only those already cut: a sub-message
    // and a field inside it cannot both be written. VerifyTagPath reads the
    // path up to a NUL byte; only such a path is not judged by its neighbours.
    const bool suspect = names.has_nul() || LeadsAnother(p, next, dottedpaths);
    if (suspect && VerifyTagPath(p, dottedpaths, log.get()) != 0) {
        PBU_LOG_IN(kFill, log.get(), PLOG_PRIORITY_ERROR, "dottedpath:%s duplicated.", p.c_str());
        return GEN_ERR_INVALID_ARGUMENTS;
    }
    if (names.count() == 0) {
        PBU_LOG_IN(kFill, log.get(), PLOG_PRIORITY_ERROR, "dottedpath:%s pathsize[%zd] invalid.", p.c_str(),
                   static_cast<ssize_t>(0));
        return GEN_ERR_INVALID_ARGUMENTS;
    }
    if (names.count() > NamePath::kMax) {
        PBU_LOG_IN(kFill, log.get(), PLOG_PRIORITY_ERROR, "dottedpath:%s pathsize[%zd] exceed max(%u) invalid.",
                   p.c_str(), static_cast<ssize_t>(names.count()),
                   static_cast<unsigned>(CORVIDA_PROTOBUF_MAX_TAG_DEPTH));
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
            // Mostly the length or the first character tells.
            const std::string_view few = m_few[i];
            if (few.size() == name.size() && (few.empty() || few[0] == name[0]) && few == name) return true;
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
    bool slotted;                 // Slotted(fields, *msg)
};

// What a walk needs of the class of its top message, kept per generated
// class so that a call asks one cache instead of two.
struct ClassFields {
    const void* key;  // the class's std::type_info
    internal::MessageType type;
    const MessageFields* fields;
    bool slotted;
};

// The walk root of msg: its descriptor and reflection (either may be null,
// as TypeOf tells) and its type's kept fields.
WalkRoot RootOf(Message* msg) {
    using Plans = internal::PlanCache<ClassFields>;
    const std::type_info& type_id = typeid(*msg);
    if (const ClassFields* kept = Plans::Find(&type_id)) {
        return WalkRoot{msg, kept->type.desc, kept->type.reflection, kept->fields, kept->slotted};
    }
    const internal::MessageType type = internal::TypeOf(*msg);
    const MessageFields* const fields = type.desc != nullptr ? KeptFields(type.desc) : nullptr;
    const WalkRoot root{msg, type.desc, type.reflection, fields, Slotted(fields, *msg)};
    if (fields != nullptr && type.reflection != nullptr && Plans::HasRoom(&type_id) &&
        internal::IsGeneratedClass(*msg, type.desc)) {
        std::unique_ptr<ClassFields> plan(new (std::nothrow) ClassFields{&type_id, type, fields, root.slotted});
        if (plan != nullptr) Plans::Publish(plan);
    }
    return root;
}

// The sub-messages the last walk went through, so that the next path under
// the same ones does not ask for them again: paths come in the set's order,
// so the fields of one sub-message come one after another. A walk only
// creates sub-messages, which stay where they are for the rest of the call.
struct WalkMemo {
    static constexpr size_t kLevels = CORVIDA_PROTOBUF_MAX_TAG_DEPTH;
    struct Level {
        const FieldDescriptor* field;  // the message field walked into
        Message* msg;                  // the sub-message
        const Reflection* reflection;  // its reflection
        const MessageFields* fields;   // its type's fields, when kept
        bool slotted;                  // Slotted(fields, *msg)
    };
    Level levels[kLevels];
    size_t depth = 0;  // valid levels
};

// The end of one walk: the last field and the message that holds it.
struct CutTarget {
    const FieldEntry* entry = nullptr;
    Message* holder = nullptr;
    const Reflection* reflection = nullptr;  // the holder's
    bool slotted = false;                    // the entry's slot is of the holder's class
};

// Resolves the names of dotted path p from root.msg down. On success *target
// is the last field and its holder (sub-messages on the way are created in
// msg), and tagpath (NUL-terminated) the tag path. *scratch holds the entry
// of a field of a type whose fields are not kept.
int WalkNamePath(const WalkRoot& root, const NamePath& names, WalkMemo* memo, CutTarget* target, char* tagpath,
                 ScratchEntry* scratch, CallLog& log) {
    const Descriptor* lastDesc = root.desc;
    Message* lastmsg = root.msg;
    const Reflection* reflection = root.reflection;
    const MessageFields* fields = root.fields;
    bool slotted = root.slotted;
    char* end = tagpath;
    for (size_t i = 0; i < names.count(); ++i) {
        const std::string_view name = names.name(i);
        const int length = static_cast<int>(name.size());
        const FieldEntry* entry = FieldByName(fields, lastDesc, name, scratch);
        if (entry == nullptr) {
            PBU_LOG_IN(kFill, log.get(), PLOG_PRIORITY_ERROR, "field %.*s not exist.", length, name.data());
            return GEN_ERR_INVALID_ARGUMENTS;
        }
        const FieldDescriptor* field = entry->field;
        // A repeated field has no single element to cut, nor to walk into.
        if (field->is_repeated()) {
            PBU_LOG_IN(kFill, log.get(), PLOG_PRIORITY_ERROR, "field %.*s is repeated type, unsupported.", length,
                       name.data());
            return API_ERR_UNSUPPORT_FIELD_TYPE;
        }
        if (end != tagpath) *end++ = '.';
        // All of `number`: the bytes past its digits are overwritten next.
        std::memcpy(end, entry->number, sizeof(entry->number));
        end += entry->number_size;
        *end = '\0';
        if (i + 1 == names.count()) {
            *target = CutTarget{entry, lastmsg, reflection, slotted};
            return 0;
        }

        lastDesc = entry->message_type;
        if (lastDesc == nullptr) {
            PBU_LOG_IN(kFill, log.get(), PLOG_PRIORITY_ERROR, "field %.*s message not exist.", length, name.data());
            return GEN_ERR_INVALID_ARGUMENTS;
        }
        if (reflection == nullptr) {
            PBU_LOG_IN(kFill, log.get(), PLOG_PRIORITY_ERROR, "field %.*s lastmsg reflection not exist.", length,
                       name.data());
            return GEN_ERR_INVALID_ARGUMENTS;
        }
        if (i >= memo->depth || memo->levels[i].field != field) {
            Message* sub = MutableSubMessage(*entry, lastmsg, reflection, slotted);
            const MessageFields* sub_fields = KeptFields(lastDesc);
            const bool sub_slotted = Slotted(sub_fields, *sub);
            memo->levels[i] =
                WalkMemo::Level{field, sub, ReflectionOf(sub_fields, *sub, sub_slotted), sub_fields, sub_slotted};
            memo->depth = i + 1;
        }
        lastmsg = memo->levels[i].msg;
        reflection = memo->levels[i].reflection;
        fields = memo->levels[i].fields;
        slotted = memo->levels[i].slotted;
    }
    return 0;
}

// Appends a record for the target field under tagpath and serializes the
// field (its key, then its value) straight into the record's region.
int CutField(PbValueSetBuffer& vsb, const CutTarget& target, const char* tagpath, CallLog& log) {
    PbValueSetBuffer::Field field = {-1, tagpath, nullptr, 0, -1};
    int ret = vsb.InsertCutField(field);
    if (ret != 0) {
        PBU_LOG_IN(kFill, log.get(), PLOG_PRIORITY_ERROR, "vsb.InsertCutField() failed, ret=%d, path=%s", ret, tagpath);
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
                                 int64_t{field.buf_len} - EpsCopyOutputStream::kSlopBytes, sink,
                                 target.slotted ? &target.entry->slot : nullptr) == internal::Plain::kWritten) {
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
        PBU_LOG_IN(kFill, log.get(), PLOG_PRIORITY_ERROR, "vsb.FinishCutField() failed, ret=%d, path=%s", ret, tagpath);
        return GEN_ERR_ERR;
    }
    PBU_FREQUENT_LINE(kFill, log, PLOG_PRIORITY_DEBUG, "field #%u, tagpath:%s.",
                      static_cast<unsigned>(vsb.GetFieldNum()), tagpath);
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

// The components of a tag path, one after another, as TokenView yields them
// (split on ".", trimmed, no token for a trailing "."), each with the number
// ComponentNumber reads from it. A path of digits and dots alone, as the
// value-set writer makes them, is read without TokenView.
class TagPathReader {
public:
    explicit TagPathReader(const char* path) : m_path(path) {
        const char* at = path;
        size_t dots = 0;
        for (;; ++at) {
            const unsigned char c = static_cast<unsigned char>(*at);
            if (static_cast<unsigned>(c - '0') <= 9u) continue;
            if (c == '.') {
                ++dots;
            } else if (c == '\0') {
                break;
            } else {
                m_digits_only = false;
            }
        }
        m_end = at;
        m_count = dots + (at == path || at[-1] == '.' ? 0 : 1);
        if (!m_digits_only) m_tokens = internal::TokenView(std::string_view(path, static_cast<size_t>(at - path)), '.');
    }

    // How many components Next yields.
    size_t count() const { return m_count; }

    // The next component and its number; to be called at most count() times.
    void Next(std::string_view* component, uint32_t* number) {
        if (!m_digits_only) {
            m_tokens.Next(component);
            *number = ComponentNumber(*component);
            return;
        }
        // Above UINT32_MAX the value sticks at kOver: more digits cannot
        // bring it back.
        constexpr uint64_t kOver = uint64_t{UINT32_MAX} + 1;
        const char* begin = m_path;
        uint64_t value = 0;
        for (; m_path < m_end && *m_path != '.'; ++m_path) {
            value = std::min(value * 10 + static_cast<uint64_t>(*m_path - '0'), kOver);
        }
        *component = std::string_view(begin, static_cast<size_t>(m_path - begin));
        *number = value == kOver ? UINT32_MAX : static_cast<uint32_t>(value);
        ++m_path;  // past the "."
    }

private:
    const char* m_path;  // where the next component begins
    const char* m_end;
    size_t m_count = 0;
    bool m_digits_only = true;
    internal::TokenView m_tokens{std::string_view(), '.'};  // for paths of other characters
};

// Longest value merged together with others of its message; a longer one is
// merged alone, so that the bytes copied for a group stay few.
constexpr int kGroupedValueBytes = 1024;

// Reads a varint of at most `max` bytes from [*at, end); false when it is
// longer, runs past end, or (as the tenth byte) holds more than the last bit
// of a 64-bit value.
bool SkipVarint(const uint8_t** at, const uint8_t* end, int max, uint64_t* value) {
    uint64_t result = 0;
    for (int i = 0; i < max && *at < end; ++i) {
        const uint8_t byte = *(*at)++;
        if (i == 9 && byte > 1) return false;
        result |= static_cast<uint64_t>(byte & 0x7f) << (7 * i);
        if (byte < 0x80) {
            *value = result;
            return true;
        }
    }
    return false;
}

// The length of the key and first value of a record for a grouped field,
// when they are such that protobuf's parser, given them among the fields of
// the message, merges them exactly as the straightforward merge does alone
// (clear the field, ParseAndMergeField, ignore what follows); 0 otherwise.
// So the key must be the field's own in its canonical bytes, the value
// complete and of the encoding every parser reads alike (no over-long
// varint), a string valid UTF-8 (else protobuf fails or reports it), an
// enum of a proto2 field one of its values (else protobuf keeps it aside, in
// ways that differ), and the whole not long.
inline int Vouch(const FieldEntry& entry, const char* buf, int buf_len) {
    const internal::PlainField& plain = entry.encoding;
    const uint8_t* const begin = reinterpret_cast<const uint8_t*>(buf);
    if (buf_len <= plain.tag_size || begin[0] != plain.tag[0]) return 0;
    for (int i = 1; i < plain.tag_size; ++i) {
        if (begin[i] != plain.tag[i]) return 0;
    }
    const uint8_t* at = begin + plain.tag_size;
    const uint8_t* const end = begin + buf_len;
    uint64_t value = 0;
    switch (entry.value_kind) {
        case ValueKind::kVarint:
            // One byte: the commonest value.
            if (*at < 0x80) {
                ++at;
                break;
            }
            if (!SkipVarint(&at, end, 10, &value)) return 0;
            break;
        case ValueKind::kKnownEnum: {
            if (!SkipVarint(&at, end, 10, &value)) return 0;
            const uint32_t number = static_cast<uint32_t>(value);
            if (number < 64 ? (entry.known_values >> number & 1) == 0
                            : entry.field->enum_type()->FindValueByNumber(static_cast<int>(number)) == nullptr) {
                return 0;
            }
            break;
        }
        case ValueKind::kFixed32:
            if (end - at < 4) return 0;
            at += 4;
            break;
        case ValueKind::kFixed64:
            if (end - at < 8) return 0;
            at += 8;
            break;
        case ValueKind::kBytes:
        case ValueKind::kString:
            if (!SkipVarint(&at, end, 4, &value) || value > static_cast<uint64_t>(end - at)) return 0;
            if (entry.value_kind == ValueKind::kString &&
                !internal::IsValidUtf8(reinterpret_cast<const char*>(at), static_cast<size_t>(value))) {
                return 0;
            }
            at += value;
            break;
        default: return 0;
    }
    const int size = static_cast<int>(at - begin);
    return size - plain.tag_size <= kGroupedValueBytes ? size : 0;
}

// A varint of at most ten bytes from [*at, end), as SkipVarint reads it; one
// byte without a loop.
inline bool ReadVarint(const uint8_t** at, const uint8_t* end, uint64_t* value) {
    const uint8_t* p = *at;
    if (p[0] < 0x80) {
        *value = p[0];
        *at = p + 1;
        return true;
    }
    if (end - p >= 2 && p[1] < 0x80) {
        *value = (p[0] & 0x7fu) | uint64_t{p[1]} << 7;
        *at = p + 2;
        return true;
    }
    return SkipVarint(at, end, 10, value);
}

// Replaces the text of *to with the size bytes at text (not inside *to).
// A value no longer than the old one, as a record merged again into the
// message it was read into mostly is, is copied over it without the general
// replacement's checks.
inline void ReplaceText(std::string* to, const char* text, size_t size) {
    if (size > to->size()) {
        to->assign(text, size);
        return;
    }
    if (size != to->size()) to->resize(size);
    if (size <= 16) {
        internal::CopySmall(reinterpret_cast<uint8_t*>(&(*to)[0]), reinterpret_cast<const uint8_t*>(text),
                            static_cast<int>(size));
    } else {
        std::memcpy(&(*to)[0], text, size);
    }
}

// Whether the bytes of a key of more than two bytes at begin after the first
// two are plain's.
bool SameTail(const internal::PlainField& plain, const uint8_t* begin) {
    for (int i = 2; i < plain.tag_size; ++i) {
        if (begin[i] != plain.tag[i]) return false;
    }
    return true;
}

// Merges the record at buf (buf_len bytes, beginning with a key) of grouped
// field `entry` (in_place not kNone) into holder, an object of the class of
// the field's slot, when Vouch would vouch for its key and first value
// (their length aside: no bytes are copied): stores the value into the slot
// as protobuf's parser sets the field, and marks the field present. Returns
// the length of the key and value, or 0, having changed nothing, when they
// are not vouched for or the field holds the shared default string, whose
// replacement protobuf makes on the message's own arena.
__attribute__((always_inline)) inline int MergeInPlace(const FieldEntry& entry, const char* buf, int buf_len,
                                                       Message* holder) {
    const internal::PlainField& plain = entry.encoding;
    const internal::FieldSlot& slot = entry.slot;
    const uint8_t* const begin = reinterpret_cast<const uint8_t*>(buf);
    if (buf_len <= plain.tag_size || begin[0] != plain.tag[0]) return 0;
    // Keys of one or two bytes (field numbers below 2048) without a loop.
    if (plain.tag_size > 1 && (begin[1] != plain.tag[1] || (plain.tag_size > 2 && !SameTail(plain, begin)))) return 0;
    const uint8_t* at = begin + plain.tag_size;
    const uint8_t* const end = begin + buf_len;
    uint64_t value = 0;
    switch (entry.in_place) {
        case InPlace::kVarint32:
            if (!ReadVarint(&at, end, &value)) return 0;
            internal::StoreScalar(slot, holder, static_cast<uint32_t>(value));
            break;
        case InPlace::kVarint64:
            if (!ReadVarint(&at, end, &value)) return 0;
            internal::StoreScalar(slot, holder, value);
            break;
        case InPlace::kZigZag32:
            if (!ReadVarint(&at, end, &value)) return 0;
            internal::StoreScalar(slot, holder, WireFormatLite::ZigZagDecode32(static_cast<uint32_t>(value)));
            break;
        case InPlace::kZigZag64:
            if (!ReadVarint(&at, end, &value)) return 0;
            internal::StoreScalar(slot, holder, WireFormatLite::ZigZagDecode64(value));
            break;
        case InPlace::kBool:
            if (!ReadVarint(&at, end, &value)) return 0;
            internal::StoreScalar(slot, holder, value != 0);
            break;
        case InPlace::kKnownEnum: {
            if (!SkipVarint(&at, end, 10, &value)) return 0;
            const uint32_t number = static_cast<uint32_t>(value);
            if (number < 64 ? (entry.known_values >> number & 1) == 0
                            : entry.field->enum_type()->FindValueByNumber(static_cast<int>(number)) == nullptr) {
                return 0;
            }
            internal::StoreScalar(slot, holder, number);
            break;
        }
        case InPlace::kFixed32: {
            if (end - at < 4) return 0;
            uint32_t bits;
            CodedInputStream::ReadLittleEndian32FromArray(at, &bits);
            internal::StoreScalar(slot, holder, bits);
            at += 4;
            break;
        }
        case InPlace::kFixed64: {
            if (end - at < 8) return 0;
            uint64_t bits;
            CodedInputStream::ReadLittleEndian64FromArray(at, &bits);
            internal::StoreScalar(slot, holder, bits);
            at += 8;
            break;
        }
        case InPlace::kBytes:
        case InPlace::kString: {
            if (!SkipVarint(&at, end, 4, &value) || value > static_cast<uint64_t>(end - at)) return 0;
            const char* text = reinterpret_cast<const char*>(at);
            if (entry.in_place == InPlace::kString && !internal::IsValidUtf8(text, static_cast<size_t>(value))) {
                return 0;
            }
            std::string* to = internal::MutableStringIfOwn(slot, holder);
            if (to == nullptr) return 0;
            ReplaceText(to, text, static_cast<size_t>(value));
            at += value;
            break;
        }
        default: return 0;
    }
    if (slot.has_mask != 0) internal::SetHasBit(slot, holder);
    return static_cast<int>(at - begin);
}

// Vouched records (Vouch) waiting to be merged, each the key and first value
// of one field. They are merged message by message, all records of one
// message in one parse by protobuf's parser (the message's own, table-driven
// for generated types), in their order: a later record of a field replaces
// an earlier one, as it does when the records are merged one by one. Their
// fields are singular scalars, strings and bytes outside oneofs, so records
// of other messages, and the walks that create sub-messages, do not touch
// them: merging them later, together, gives the message the straightforward
// merge gives it, and neither clearing them first nor anything else would
// change a byte. Before anything that may (a record that is not vouched for,
// a walk that switches a oneof) everything pending is merged.
//
// A record of a field inside a framed field (FieldEntry::framed) of a message
// may wait with that message's records instead, as part of a value of the
// framed field (a frame): parsing it merges into the sub-message exactly what
// parsing the record into the sub-message does, and creates the sub-message
// as asking for it (MutableMessage) would. Records of one sub-message wait
// either framed in its parent or on their own, never both at once, so that
// they stay in their order.
//
// A record merged in place at once (MergeInPlace) passes those that wait
// only when none of them is of a field of its number (MayWait): records of
// different fields of these kinds may be merged in any order.
//
// The owner calls Flush before it returns. The destructor merges nothing: a
// parse may throw (bad_alloc), which must not happen while an exception
// unwinds the stack; records still pending then are dropped.
class PendingMerges {
public:
    PendingMerges() = default;
    PendingMerges(const PendingMerges&) = delete;
    PendingMerges& operator=(const PendingMerges&) = delete;
    ~PendingMerges() = default;

    // Adds the key and first value of a vouched record of field `entry` of
    // holder (size at most kGroupedValueBytes plus a key); with `frame`, of
    // a field of holder's sub-message under framed field *frame.
    __attribute__((noinline)) void Add(const FieldEntry& entry, Message* holder, const char* bytes, int size,
                                       const FieldEntry* frame = nullptr) {
        size_t h = 0;
        while (h < m_count && m_holder[h].msg != holder) ++h;
        if (frame != nullptr ? m_count > (h == m_count ? 0 : 1) : h == m_count && m_framed) {
            // A framed record with records of other messages waiting, or a
            // record of a new message while framed ones wait.
            Flush();
            h = 0;
        } else if (h == kMaxHolders) {
            Flush();
            h = 0;
        }
        Holder& group = m_holder[h];
        if (h == m_count) {
            ++m_count;
            group.msg = holder;
            group.used = 0;
            group.frame = nullptr;
        }
        if (Room(group, size, frame) < 0) Merge(group);
        Append(group, entry, bytes, size, frame);
    }

    // Add, for the records of one message (and its framed sub-messages) in a
    // row: in the commonest case, the bytes are only copied.
    void AddShort(const FieldEntry& entry, Message* holder, const char* bytes, int size, const FieldEntry* frame) {
        Holder& group = m_holder[0];
        if (m_count == 0) {
            m_count = 1;
            group.msg = holder;
            group.used = 0;
            group.frame = nullptr;
        }
        // Add would neither merge what waits first nor find another group.
        if (m_count == 1 && group.msg == holder && Room(group, size, frame) >= 0) {
            Append(group, entry, bytes, size, frame);
            return;
        }
        Add(entry, holder, bytes, size, frame);
    }

    // False when no record of a field numbered as entry's (modulo 64, in any
    // message) waits: a record of entry's field may then be stored at once
    // without passing one that waits.
    bool MayWait(const FieldEntry& entry) const { return (m_waiting & entry.wait_bit) != 0; }

    void Flush() {
        for (size_t h = 0; h < m_count; ++h) Merge(m_holder[h]);
        m_count = 0;
        m_framed = false;
        m_waiting = 0;
    }

private:
    // A frame's length: two bytes of varint whatever its value (protobuf's
    // parser reads a length of more bytes than it needs alike).
    static constexpr size_t kFrameLengthBytes = 2;

    // The records of one message, one after another.
    struct Holder {
        Message* msg;
        size_t used;
        const FieldEntry* frame;  // of the frame the last records are in, or null
        size_t frame_at;          // where that frame's length goes
        // A record of kGroupedValueBytes fits with its key and a frame's head.
        char bytes[1048];
    };

    // The bytes left in group after a record of `size` bytes in `frame`
    // (with the frame's head when it is not the one open); negative when the
    // record does not fit.
    static int64_t Room(const Holder& group, int size, const FieldEntry* frame) {
        const size_t head = frame == nullptr || frame == group.frame ? 0 : frame->frame_key_size + kFrameLengthBytes;
        return static_cast<int64_t>(sizeof(group.bytes)) - static_cast<int64_t>(group.used + head) - size;
    }

    // Appends a record that fits (Room) to group, in `frame`: the open frame
    // is closed when the record is in another frame or in none, and the
    // record's frame opened.
    void Append(Holder& group, const FieldEntry& entry, const char* bytes, int size, const FieldEntry* frame) {
        m_waiting |= entry.wait_bit;
        char* to = group.bytes + group.used;
        if (frame != group.frame) {
            CloseFrame(group);
            if (frame != nullptr) {
                std::memcpy(to, frame->frame_key, sizeof(frame->frame_key));
                to += frame->frame_key_size;
                group.frame = frame;
                group.frame_at = static_cast<size_t>(to - group.bytes);
                to += kFrameLengthBytes;
                m_framed = true;
            }
        }
        if (size <= 16) {
            internal::CopySmall(reinterpret_cast<uint8_t*>(to), reinterpret_cast<const uint8_t*>(bytes), size);
        } else {
            std::memcpy(to, bytes, static_cast<size_t>(size));
        }
        group.used = static_cast<size_t>(to - group.bytes) + static_cast<size_t>(size);
    }

    // Writes the length of the frame the last records are in, if any.
    static void CloseFrame(Holder& group) {
        if (group.frame == nullptr) return;
        const size_t length = group.used - group.frame_at - kFrameLengthBytes;
        group.bytes[group.frame_at] = static_cast<char>(0x80 | (length & 0x7f));
        group.bytes[group.frame_at + 1] = static_cast<char>(length >> 7);
        group.frame = nullptr;
    }

    static void Merge(Holder& group) {
        CloseFrame(group);
        // Cannot fail: every record was vouched for. Partial: the merge of a
        // field never checks that the message's required fields are set.
        group.msg->ParseFrom<google::protobuf::MessageLite::kMergePartial>(
            google::protobuf::StringPiece(group.bytes, group.used));
        group.used = 0;
    }

    static constexpr size_t kMaxHolders = 4;
    Holder m_holder[kMaxHolders];
    size_t m_count = 0;
    bool m_framed = false;   // some records wait in a frame
    uint64_t m_waiting = 0;  // the wait_bit of every record waiting
};

// The walk of one tag path: the field it names, the message that holds it,
// that message's reflection and the number of the path's last component.
struct TagPathTarget {
    const FieldEntry* entry = nullptr;
    Message* lastmsg = nullptr;
    const Reflection* reflection = nullptr;
    uint32_t lastnumber = 0;
    bool slotted = false;  // the entry's slot is of lastmsg's class
};

// Resolves the components of tag path dotpath (of fields[i]) from root.msg
// down, creating sub-messages on the way (kept in memo for the next paths).
// A null msg, or one without a descriptor, leaves target->entry null.
// Components are logged as views ("%.*s"), which print as the strings
// TokenSplit would have made. *scratch holds the entry of a field of a type
// whose fields are not kept.
int WalkTagPath(size_t i, const char* dotpath, const WalkRoot& root, WalkMemo* memo, PendingMerges* pending,
                TagPathTarget* target, ScratchEntry* scratch, CallLog& log) {
    target->lastmsg = root.msg;
    target->reflection = root.reflection;
    target->slotted = root.slotted;
    const Descriptor* lastDesc = root.desc;
    if (lastDesc == nullptr) return 0;
    const MessageFields* fields = root.fields;
    TagPathReader tagpath(dotpath);
    const size_t count = tagpath.count();
    std::string_view component;
    for (size_t j = 0; j < count; ++j) {
        tagpath.Next(&component, &target->lastnumber);
        const int length = static_cast<int>(component.size());
        PBU_FREQUENT_LINE(kMerge, log, PLOG_PRIORITY_DEBUG, "dotpath[%d]:%.*s", static_cast<int>(i), length,
                          component.data());
        const FieldEntry* entry = target->lastnumber <= INT_MAX
                                      ? FieldByNumber(fields, lastDesc, static_cast<int>(target->lastnumber), scratch)
                                      : nullptr;
        if (entry == nullptr) {
            PBU_LOG_IN(kMerge, log.get(), PLOG_PRIORITY_ERROR, "field %.*s not exist, lastnumber:%u, lastDesc:%s.",
                       length, component.data(), target->lastnumber, lastDesc->DebugString().c_str());
            return GEN_ERR_INVALID_ARGUMENTS;
        }
        target->entry = entry;
        if (j + 1 == count) break;

        // Paths come from the network: one that leads through a scalar or a
        // repeated field has no message below it to walk into.
        const FieldDescriptor* field = entry->field;
        if (entry->message_type == nullptr || field->is_repeated()) {
            PBU_LOG_IN(kMerge, log.get(), PLOG_PRIORITY_ERROR, "field %s lastmsg not exist.", field->name().c_str());
            return GEN_ERR_INVALID_ARGUMENTS;
        }
        if (target->reflection == nullptr) {
            PBU_LOG_IN(kMerge, log.get(), PLOG_PRIORITY_ERROR, "field %s lastmsg reflection not exist.",
                       field->name().c_str());
            return GEN_ERR_INVALID_ARGUMENTS;
        }
        lastDesc = entry->message_type;
        if (j < WalkMemo::kLevels && j < memo->depth && memo->levels[j].field == field) {
            const WalkMemo::Level& level = memo->levels[j];
            target->lastmsg = level.msg;
            target->reflection = level.reflection;
            target->slotted = level.slotted;
            fields = level.fields;
            continue;
        }
        // A field of a oneof that is not set yet replaces the member set:
        // what is pending for that one is merged before it goes.
        if (field->real_containing_oneof() != nullptr) pending->Flush();
        target->lastmsg = MutableSubMessage(*entry, target->lastmsg, target->reflection, target->slotted);
        fields = KeptFields(lastDesc);
        target->slotted = Slotted(fields, *target->lastmsg);
        target->reflection = ReflectionOf(fields, *target->lastmsg, target->slotted);
        if (j < WalkMemo::kLevels) {
            memo->levels[j] = WalkMemo::Level{field, target->lastmsg, target->reflection, fields, target->slotted};
            memo->depth = j + 1;
        }
    }
    return 0;
}

// Parses the bytes of fields[i] into the cleared target field with
// protobuf's reflection, as the straightforward merge does. Returns false
// when they do not merge: the path is then listed in failedpaths, the field
// cleared again and the failure logged.
bool ParseFieldBytes(size_t i, const PbValueSetBuffer::Field& field, const char* dotpath, const TagPathTarget& target,
                     std::set<std::string>& failedpaths, CallLog& log) {
    const FieldDescriptor* fieldDesc = target.entry->field;
    CodedInputStream input(reinterpret_cast<const uint8_t*>(field.buf), field.buf_len);
    // The key of the field as the writer serialized it: wire type 2 when
    // packed, else the wire type of the field's type.
    const uint32_t fieldtag = target.entry->key;
    const uint32_t tag = input.ReadTag();
    if ((tag != fieldtag && tag != 0) || !WireFormat::ParseAndMergeField(fieldtag, fieldDesc, target.lastmsg, &input)) {
        failedpaths.insert(dotpath);
        target.reflection->ClearField(target.lastmsg, fieldDesc);
        PBU_LOG_IN(kMerge, log.get(), PLOG_PRIORITY_ERROR,
                   "ParseAndMergeField failed i:%zu buf:%p, len:%u, lasternumber:%u, msg:%s dotpath:%s", i,
                   static_cast<const void*>(field.buf), static_cast<unsigned>(field.buf_len), target.lastnumber,
                   fieldDesc->name().c_str(), dotpath);
        log.Wrote();
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
    target.reflection->ClearField(target.lastmsg, fieldDesc);
    PBU_LOG_IN(kMerge, log.get(), PLOG_PRIORITY_ERROR,
               "ParseAndMergeField failed i:%zu buf:%p, len:%u, lasternumber:%u, msg:%s dotpath:%s, index:%d", i,
               static_cast<const void*>(field.buf), static_cast<unsigned>(field.buf_len), target.lastnumber,
               fieldDesc->name().c_str(), dotpath, index);
    log.Wrote();
    return false;
}

// Reads the decimal number at *at, whose first character is a digit, when it
// is below MessageFields::kNumbers, and moves *at past the character after
// it, which is returned; -1 for a larger number, with *number set to
// kNumbers.
int ReadShortNumber(const char** at, unsigned* number) {
    const char* p = *at;
    unsigned value = static_cast<unsigned>(*p - '0');
    // Commonly one or two digits.
    unsigned digit = static_cast<unsigned>(p[1] - '0');
    if (digit > 9u) {
        *number = value;
        *at = p + 2;
        return p[1];
    }
    value = value * 10 + digit;
    ++p;
    while ((digit = static_cast<unsigned>(*++p - '0')) <= 9u) {
        value = value * 10 + digit;
        if (value >= static_cast<unsigned>(MessageFields::kNumbers)) {
            *number = MessageFields::kNumbers;
            return -1;
        }
    }
    *number = value;
    *at = p + 1;
    return *p;
}

// The sub-message of framed field `frame` of root (an object of the class of
// the slots of root's fields) when it is made, present and of the class of
// the slots of `inner`, its type's fields; null otherwise.
Message* PresentSubMessage(const FieldEntry& frame, const Message& root, const MessageFields& inner) {
    if (frame.slot.kind != internal::FieldSlot::Kind::kMessage) return nullptr;
    Message* sub = internal::SubMessage(frame.slot, root);
    if (sub == nullptr || (frame.slot.has_mask != 0 && !internal::HasBitSet(frame.slot, root))) return nullptr;
    return Slotted(&inner, *sub) ? sub : nullptr;
}

// Merges fields[i] and the records after it the short way while they are of
// the commonest kind: a tag path of one or two numbers through kept fields of
// generated types, outside oneofs, to a grouped field whose bytes are vouched
// for. Returns the index of the first record it leaves (n when none): it has
// done nothing for that one. The caller makes sure that no debug line is
// wanted and that root's fields are kept; the short way stops after a line
// that may have changed that.
size_t MergeCommon(const PbValueSetBuffer::Field* fields, size_t i, size_t n, std::set<std::string>& failedpaths,
                   const WalkRoot& root, PendingMerges* pending, CallLog& log) {
    const MessageFields& top = *root.fields;
    // The sub-message of the last framed record, when it takes records in
    // place (PresentSubMessage): records of one sub-message come in a row. A
    // sub-message, once made, stays.
    const FieldEntry* last_frame = nullptr;
    Message* last_sub = nullptr;
    for (; i < n; ++i) {
        const PbValueSetBuffer::Field& field = fields[i];
        const char* at = field.path;
        if (at == nullptr || field.buf == nullptr || field.buf_len <= 0) break;
        if (static_cast<unsigned>(*at - '0') > 9u) break;
        unsigned number = 0;
        int after = ReadShortNumber(&at, &number);
        if (number >= top.number_count) break;
        const FieldEntry* entry = top.numbers[number];
        if (entry == nullptr) break;
        const FieldEntry* frame = nullptr;
        // Where the record's value may be stored at once (MergeInPlace).
        Message* holder = root.slotted ? root.msg : nullptr;
        if (after == '.') {
            // A member of a oneof may replace another: the straightforward
            // way merges what is pending first.
            if (!entry->framed) break;
            const MessageFields* inner = InnerFields(*entry);
            if (inner == nullptr || static_cast<unsigned>(*at - '0') > 9u) break;
            frame = entry;
            after = ReadShortNumber(&at, &number);
            if (number >= inner->number_count) break;
            entry = inner->numbers[number];
            if (entry == nullptr) break;
            if (frame != last_frame) {
                last_frame = frame;
                last_sub = root.slotted ? PresentSubMessage(*frame, *root.msg, *inner) : nullptr;
            }
            holder = last_sub;
        }
        if (after != '\0' || !entry->grouped) break;
        if (holder == nullptr || entry->in_place == InPlace::kNone || pending->MayWait(*entry) ||
            MergeInPlace(*entry, field.buf, field.buf_len, holder) == 0) {
            const int vouched = Vouch(*entry, field.buf, field.buf_len);
            if (vouched == 0) break;
            pending->AddShort(*entry, root.msg, field.buf, vouched, frame);
        }
        // See FillOneField.
        if (entry->crypto_string) {
            failedpaths.insert(field.path);
            PBU_LOG_IN(kMerge, log.get(), PLOG_PRIORITY_ERROR, "suite name not valid");
            log.Wrote();
            if (log.open()) return i + 1;
        }
    }
    return i;
}

// Merges fields[i] into root.msg: vouched for, its key and value are added
// to `pending`; otherwise everything pending is merged first and then the
// record, the straightforward way.
int FillOneField(size_t i, const PbValueSetBuffer::Field& field, std::set<std::string>& failedpaths,
                 const WalkRoot& root, WalkMemo* memo, PendingMerges* pending, ScratchEntry* scratch, CallLog& log) {
    const char* dotpath = field.path != nullptr ? field.path : "";
    PBU_FREQUENT_LINE(kMerge, log, PLOG_PRIORITY_DEBUG, "dotpath:%s", dotpath);

    TagPathTarget target;
    int ret = WalkTagPath(i, dotpath, root, memo, pending, &target, scratch, log);
    if (ret != 0) return ret;
    if (target.entry == nullptr || target.lastmsg == nullptr) {
        PBU_LOG_IN(kMerge, log.get(), PLOG_PRIORITY_ERROR, "field %s not found.", dotpath);
        return GEN_ERR_INVALID_ARGUMENTS;
    }
    const FieldEntry& entry = *target.entry;
    const FieldDescriptor* fieldDesc = entry.field;
    if (target.reflection == nullptr) {
        PBU_LOG_IN(kMerge, log.get(), PLOG_PRIORITY_ERROR, "field %s lastmsg reflection not exist.",
                   fieldDesc->name().c_str());
        return GEN_ERR_INVALID_ARGUMENTS;
    }

    const bool grouped = entry.grouped && field.buf != nullptr && field.buf_len > 0;
    if (grouped && target.slotted && entry.in_place != InPlace::kNone && !pending->MayWait(entry) &&
        MergeInPlace(entry, field.buf, field.buf_len, target.lastmsg) > 0) {
        // Merged already.
    } else if (const int vouched = grouped ? Vouch(entry, field.buf, field.buf_len) : 0; vouched > 0) {
        pending->Add(entry, target.lastmsg, field.buf, vouched);
    } else {
        pending->Flush();
        // The incoming bytes replace the value; no bytes leave the field
        // cleared.
        target.reflection->ClearField(target.lastmsg, fieldDesc);
        const bool merged =
            field.buf == nullptr || field.buf_len <= 0 || ParseFieldBytes(i, field, dotpath, target, failedpaths, log);
        // Clearing or merging a message field, or a field of a oneof, may
        // have replaced sub-messages the memo holds.
        if (!entry.grouped) memo->depth = 0;
        if (!merged) return 0;
    }

    // No cipher suite is at hand here: an encrypted string or bytes field
    // keeps the ciphertext merged, and its path is reported so that the
    // caller knows the value is not plain text.
    PBU_FREQUENT_LINE(kMerge, log, PLOG_PRIORITY_DEBUG, "tag:%d field name:%s corvida_crypto:%d",
                      static_cast<int>(target.lastnumber), fieldDesc->name().c_str(), static_cast<int>(entry.crypto));
    if (entry.crypto && fieldDesc->cpp_type() == FieldDescriptor::CPPTYPE_STRING) {
        failedpaths.insert(dotpath);
        PBU_LOG_IN(kMerge, log.get(), PLOG_PRIORITY_ERROR, "suite name not valid");
        log.Wrote();
    }
    return 0;
}

}  // namespace

int FillValueSetWithMsg(Message* msg, const std::set<std::string>& setKeyNames,
                        const std::set<std::string>& dottedpaths, ProtobufValueSet_& values, LPPLOGCATEGORYINST log) {
    PbValueSetBuffer vsb(&values, kValueSetVersion, log);
    vsb.ResetFieldNum();
    if (msg == nullptr || dottedpaths.empty()) return 0;
    const WalkRoot root = RootOf(msg);
    if (root.desc == nullptr) {
        PBU_LOG_ERROR(log, "NULL == descriptor, probably msg invalid");
        return GEN_ERR_INVALID_ARGUMENTS;
    }
    if (dottedpaths.size() > MAX_DBFIELD_NUM) {
        PBU_LOG_ERROR(log, "invalid dottedpaths, size[%zd] exceed max(%u)", static_cast<ssize_t>(dottedpaths.size()),
                      static_cast<unsigned>(MAX_DBFIELD_NUM));
        return GEN_ERR_INVALID_ARGUMENTS;
    }

    KeyNames keys(setKeyNames);
    CallLog call_log(log, PLOG_PRIORITY_DEBUG);
    WalkMemo memo;
    ScratchEntry entry;
    // At most 32 numbers of at most 10 digits, with the dots between them,
    // and room to copy a whole FieldEntry::number after the last.
    char tagpath[CORVIDA_PROTOBUF_MAX_TAG_DEPTH * 11 + sizeof(FieldEntry::number)];
    for (auto it = dottedpaths.begin(), next = it; it != dottedpaths.end(); it = next) {
        ++next;
        const std::string& p = *it;
        const NamePath names(p);
        int ret = CheckDottedPath(p, next, dottedpaths, names, call_log);
        if (ret != 0) return ret;
        // Key fields travel in the record key, never in the value set; so
        // does anything under them.
        const std::string_view first = names.name(0);
        if (keys.Holds(first)) {
            PBU_FREQUENT_LINE(kFill, call_log, PLOG_PRIORITY_DEBUG,
                              "dottedpath:%s , %.*s is a key field, that's not allowed.", p.c_str(),
                              static_cast<int>(first.size()), first.data());
            continue;
        }
        CutTarget target;
        ret = WalkNamePath(root, names, &memo, &target, tagpath, &entry, call_log);
        if (ret != 0) return ret;
        ret = CutField(vsb, target, tagpath, call_log);
        if (ret != 0) return ret;
    }
    return 0;
}

int FillMsgFromField(std::vector<PbValueSetBuffer::Field>& fields, std::set<std::string>& failedpaths, Message* msg,
                     unsigned char* /*data*/, int /*datasize*/, LPPLOGCATEGORYINST log) {
    WalkRoot root = msg != nullptr ? RootOf(msg) : WalkRoot{nullptr, nullptr, nullptr, nullptr, false};
    CallLog call_log(log, PLOG_PRIORITY_DEBUG);
    if (root.desc != nullptr) {
        PBU_FREQUENT_LINE(kMerge, call_log, PLOG_PRIORITY_DEBUG, "suite name:%s, lastDesc:%s",
                          root.desc->options().GetExtension(corvidaservice::corvida_field_cipher_suite).c_str(),
                          root.desc->DebugString().c_str());
    }
    if (fields.empty()) return 0;
    // Without a descriptor, nothing of the message is used.
    if (root.desc == nullptr) root.reflection = nullptr;
    WalkMemo memo;
    ScratchEntry scratch;
    PendingMerges pending;
    // The short way needs the fields of root's type kept, and no debug line.
    const bool common = root.fields != nullptr && root.reflection != nullptr;
    const PbValueSetBuffer::Field* const records = fields.data();
    const size_t count = fields.size();
    int ret = 0;
    for (size_t i = 0; i < count && ret == 0; ++i) {
        if (common && !call_log.open()) {
            i = MergeCommon(records, i, count, failedpaths, root, &pending, call_log);
            if (i == count) break;
        }
        ret = FillOneField(i, records[i], failedpaths, root, &memo, &pending, &scratch, call_log);
    }
    // What is still pending is merged on success and failure alike: the
    // records before a failing one stay merged.
    pending.Flush();
    return ret;
}

}  // namespace PROTOBUF_UTIL
