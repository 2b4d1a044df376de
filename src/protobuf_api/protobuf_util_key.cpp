// Record keys: the primary key of a message, the key of chosen fields, and the
// names of the primary-key fields.
//
// These run on every request, so they allocate nothing (but what a cipher
// suite other than the library's own may) and do little besides reading the
// key fields:
//   - what a generated table type's options mean (its key fields in number
//     order, how each is written and where its objects keep it, its cipher
//     suite's name and key digest) is planned once per process
//     (protobuf_util_plans.h, protobuf_util_slots.h); other types are
//     planned per call, without the heap;
//   - a field is encoded with protobuf's array writers straight into the key
//     buffer while it ends clear of the buffer's last bytes, where a coded
//     stream over the buffer would behave the same; from the first field that
//     may not, the rest of the key goes through a coded stream over the rest
//     of the buffer, in the very state a stream over the whole buffer would
//     be in, so that what reaches the buffer and every byte count logged are
//     the stream's own.
#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <typeinfo>
#include <vector>

#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/io/zero_copy_stream_impl_lite.h>
#include <google/protobuf/wire_format.h>
#include <google/protobuf/wire_format_lite.h>

#include "corvidaservice.optionv1.pb.h"
#include "protobuf_api/aes_siv_cipher_suite.h"
#include "protobuf_api/protobuf_util.h"
#include "protobuf_api/protobuf_util_fields.h"
#include "protobuf_api/protobuf_util_log.h"
#include "protobuf_api/protobuf_util_plans.h"
#include "protobuf_api/protobuf_util_slots.h"
#include "protobuf_api/protobuf_util_tokens.h"

namespace PROTOBUF_UTIL {
namespace {

using google::protobuf::Descriptor;
using google::protobuf::FieldDescriptor;
using google::protobuf::FileDescriptor;
using google::protobuf::Message;
using google::protobuf::Reflection;
using google::protobuf::internal::WireFormat;
using google::protobuf::internal::WireFormatLite;
using google::protobuf::io::ArrayOutputStream;
using google::protobuf::io::CodedOutputStream;
using google::protobuf::io::EpsCopyOutputStream;
using google::protobuf::io::ZeroCopyOutputStream;

// Longest key the service accepts: two bytes below the 1024-byte szKey of
// tagtbl_idl.
constexpr int kMaxKeyBytes = 1022;

// Output capacity handed to the cipher suite: all of idl->szValue.
constexpr int kCipherCapacity = static_cast<int>(sizeof(tagtbl_idl::szValue));

// The operations, as their log lines name them.
constexpr char kMsgKey[] = "ExtractMsgKey";
constexpr char kFieldKey[] = "ExtractFieldKey";

// Key fields kept without touching the heap; tables with more key fields
// than this are rare enough to pay for a vector.
constexpr size_t kInlineKeyFields = 16;

// What both key encoders need once the message has been checked.
struct KeySource {
    const Message* msg;
    const Descriptor* desc;
    const Reflection* reflection;
    CipherSuite* suite;  // null when the table names no cipher suite
    bool slotted;        // msg is of the class the plan's slots were found for
};

// How a key field is written; fixed by its descriptor.
enum class KeyWrite : uint8_t {
    kEncrypted,  // a string or bytes field marked corvida_crypto: the suite's ciphertext
    kPlain,      // a singular field that is not a message: its value, encoded here
    kGeneric,    // anything else: the serializers
};

// Copies a field's tag, of tag_size bytes (1 to 5), to at.
inline uint8_t* PutTag(const internal::PlainField& plain, uint8_t* at) {
    at[0] = plain.tag[0];
    for (int i = 1; i < plain.tag_size; ++i) at[i] = plain.tag[i];
    return at + plain.tag_size;
}

// One key field and how it is written.
struct KeyField {
    const FieldDescriptor* field = nullptr;
    KeyWrite how = KeyWrite::kGeneric;
    internal::PlainField plain;  // for kPlain
    // Where objects of the class of a kept plan keep the field (kPlain and
    // kEncrypted); kNone otherwise.
    internal::FieldSlot slot;
    // For kPlain: a value other than the default (of BitsOf default_bits, or
    // for a string, the empty default) is set; true for fields of every type
    // but floating point and strings with another default.
    bool set_unless_default = false;
    uint64_t default_bits = 0;
};

// The bits of the default value of a scalar field (BitsOf), and whether a
// value of other bits is surely set (not for floating point, whose default
// may be a NaN of any bits).
bool DefaultBits(const FieldDescriptor* field, uint64_t* bits) {
    switch (field->cpp_type()) {
        case FieldDescriptor::CPPTYPE_INT32: *bits = internal::BitsOf(field->default_value_int32()); return true;
        case FieldDescriptor::CPPTYPE_INT64: *bits = internal::BitsOf(field->default_value_int64()); return true;
        case FieldDescriptor::CPPTYPE_UINT32: *bits = internal::BitsOf(field->default_value_uint32()); return true;
        case FieldDescriptor::CPPTYPE_UINT64: *bits = internal::BitsOf(field->default_value_uint64()); return true;
        case FieldDescriptor::CPPTYPE_BOOL: *bits = internal::BitsOf(field->default_value_bool()); return true;
        case FieldDescriptor::CPPTYPE_ENUM:
            *bits = internal::BitsOf(static_cast<int32_t>(field->default_value_enum()->number()));
            return true;
        case FieldDescriptor::CPPTYPE_STRING: return field->default_value_string().empty();
        default: return false;
    }
}

// A mark corvida_crypto on a field that is not a string or bytes field is
// ignored.
KeyField PlanKeyField(const FieldDescriptor* field) {
    KeyField key;
    key.field = field;
    if (field->cpp_type() == FieldDescriptor::CPPTYPE_STRING &&
        field->options().GetExtension(corvidaservice::corvida_crypto)) {
        key.how = KeyWrite::kEncrypted;
    } else if (internal::IsPlain(field)) {
        key.how = KeyWrite::kPlain;
        key.plain = internal::PlanPlainField(field);
        key.set_unless_default = DefaultBits(field, &key.default_bits);
    }
    return key;
}

// Writes a plain key field as SerializeFieldWithCachedSizesEx and protobuf's
// serializer both write it (a proto3 field always, its default included; a
// proto2 field when set) into `out` when it takes at most `room` bytes.
template <typename Sink>
internal::Plain WritePlainKeyField(const KeyField& key, const KeySource& source, int64_t room, Sink& out) {
    return internal::WritePlain(key.plain, source.reflection, *source.msg, key.plain.proto3, room, out,
                                source.slotted ? &key.slot : nullptr);
}

// Encrypts value with suite into idl->szValue. Returns 0 with the
// ciphertext's length in *outlen, or -7.
inline int EncryptValue(const std::string& value, CipherSuite* suite, tagtbl_idl* idl, int* outlen) {
    // The suite takes an int length: a longer value would be encrypted cut
    // short, and two different records would share one key.
    if (value.size() > static_cast<size_t>(INT_MAX)) return -7;
    *outlen = kCipherCapacity;
    const int ret = suite->Encrypt(reinterpret_cast<const unsigned char*>(value.data()), static_cast<int>(value.size()),
                                   idl->szValue, *outlen);
    // A length outside the output area would make us read beyond it.
    if (ret != 0 || *outlen < 0 || *outlen > kCipherCapacity) return -7;
    return 0;
}

// Encrypts a string or bytes field into idl->szValue. Returns 0 with the
// ciphertext's length in *outlen, -6 (no suite) or -7.
inline int EncryptField(const KeyField& key, const KeySource& source, tagtbl_idl* idl, int* outlen) {
    if (source.suite == nullptr) return -6;
    // A repeated field has no single value to encrypt; refusing it is safer
    // than writing its values in plain.
    if (key.field->is_repeated()) return -7;
    if (source.slotted && key.slot.kind == internal::FieldSlot::Kind::kString) {
        return EncryptValue(internal::StringSlot(key.slot, *source.msg).Get(), source.suite, idl, outlen);
    }
    std::string scratch;
    return EncryptValue(source.reflection->GetStringReference(*source.msg, key.field, &scratch), source.suite, idl,
                        outlen);
}

// The head of an encrypted field: its tag (the field's own number, length
// delimited) and the ciphertext's length. Returns the head's size.
int EncryptedHead(const FieldDescriptor* field, int outlen, uint8_t* head) {
    uint8_t* p = WireFormatLite::WriteTagToArray(field->number(), WireFormatLite::WIRETYPE_LENGTH_DELIMITED, head);
    p = CodedOutputStream::WriteVarint32ToArray(static_cast<uint32_t>(outlen), p);
    return static_cast<int>(p - head);
}

// Where a short key is: the field to write next and where it goes, and why
// the short way stopped there.
struct ShortKeyState {
    const KeyField* key;
    uint8_t* at;
    bool unset = false;   // the field wrote nothing (bCheck)
    int ciphertext = -1;  // the field is encrypted and its ciphertext made, but not written
    int result = 0;       // the field's encryption failed: -6 or -7
};

// Writes the plain key fields from state->key on (up to end) of m (whose
// reflection is r) straight into a key buffer from state->at on, as
// WritePlainKeyField writes them, while each surely ends at or before
// `limit`. Stops at the first field that might not, that only the general
// way writes as protobuf does (a string that is not valid UTF-8), or that is
// not plain, having written nothing of it; with bCheck, also at a field that
// writes nothing (state->unset).
//
// Fields are read from their slots (the plan is kept for m's class) or
// through reflection. A proto2 field is written when it is set: its has-bit
// tells, or else HasField. A field that is not set reads as its default
// value, so one that reads otherwise is set: HasField is asked only about a
// value equal to the default (KeyField::set_unless_default). kProto3: every
// field is of a proto3 file (the fields of one message are).
template <bool kProto3>
__attribute__((always_inline)) inline void WriteShortKey(ShortKeyState* state, const KeyField* end, const Reflection* r,
                                                         const Message& m, const uint8_t* limit, bool bCheck) {
    uint8_t* at = state->at;
    using google::protobuf::FieldDescriptor;
    using internal::FieldSlot;
    // Unused for the fields of generated messages, whose strings
    // reflection hands out by reference.
    std::string scratch;
    const KeyField* k = state->key;
    for (; k != end; ++k) {
        if (k->how != KeyWrite::kPlain) break;
        const internal::PlainField& plain = k->plain;
        const FieldDescriptor* f = plain.field;
        // The tag and a varint of ten bytes, the longest scalar.
        if (limit - at < plain.tag_size + 10) break;
        // A proto3 key field is written even when unset. A slot of a
        // proto2 field has a has-bit.
        const bool presence = !kProto3;
        const bool raw = k->slot.kind != FieldSlot::Kind::kNone;
        bool stop = false;
        switch (plain.type) {
#define CORVIDA_SHORT_CASE(TYPE, GETTER, WRITER)                                                                    \
    case FieldDescriptor::TYPE: {                                                                                   \
        using Value = decltype(r->Get##GETTER(m, f));                                                               \
        const Value value = raw ? internal::LoadScalar<Value>(k->slot, m) : r->Get##GETTER(m, f);                   \
        if (presence &&                                                                                             \
            (raw ? !internal::HasBitSet(k->slot, m)                                                                 \
                 : (!k->set_unless_default || internal::BitsOf(value) == k->default_bits) && !r->HasField(m, f))) { \
            break;                                                                                                  \
        }                                                                                                           \
        at = WireFormatLite::Write##WRITER##NoTagToArray(value, PutTag(plain, at));                                 \
        continue;                                                                                                   \
    }
            CORVIDA_FOR_EACH_SCALAR_TYPE(CORVIDA_SHORT_CASE)
#undef CORVIDA_SHORT_CASE
            case FieldDescriptor::TYPE_STRING:
            case FieldDescriptor::TYPE_BYTES: {
                const std::string& value =
                    raw ? internal::StringSlot(k->slot, m).Get() : r->GetStringReference(m, f, &scratch);
                const size_t size = value.size();
                if (presence && (raw ? !internal::HasBitSet(k->slot, m)
                                     : (!k->set_unless_default || size == 0) && !r->HasField(m, f))) {
                    break;
                }
                // The tag, a length of at most five bytes, the value.
                if (size > static_cast<size_t>(limit - at) ||
                    limit - at - static_cast<ptrdiff_t>(size) < plain.tag_size + 5) {
                    stop = true;
                    break;
                }
                if (plain.type == FieldDescriptor::TYPE_STRING && !internal::IsValidUtf8(value.data(), size)) {
                    stop = true;
                    break;
                }
                at = CodedOutputStream::WriteVarint32ToArray(static_cast<uint32_t>(size), PutTag(plain, at));
                if (size <= 16) {
                    internal::CopySmall(at, reinterpret_cast<const uint8_t*>(value.data()), static_cast<int>(size));
                } else {
                    std::memcpy(at, value.data(), size);
                }
                at += size;
                continue;
            }
            default:  // messages and groups are never plain
                stop = true;
                break;
        }
        if (stop) break;
        // Not set: nothing is written.
        if (!bCheck) continue;
        state->unset = true;
        break;
    }
    state->key = k;
    state->at = at;
}

// Writes one key field into a coded stream over the key buffer (capacity is
// that of the buffer under output): encrypted, or in plain with a proto3
// field holding its default value included, so that every key field
// contributes its tag. Returns 0, -6 or -7.
int WriteKeyField(const KeyField& key, const KeySource& source, tagtbl_idl* idl, int64_t capacity,
                  CodedOutputStream* output) {
    const FieldDescriptor* field = key.field;
    switch (key.how) {
        case KeyWrite::kEncrypted: {
            int outlen = 0;
            const int ret = EncryptField(key, source, idl, &outlen);
            if (ret != 0) return ret;
            // The bytes WireFormatLite::WriteString writes, without copying
            // the ciphertext into a string first.
            WireFormatLite::WriteTag(field->number(), WireFormatLite::WIRETYPE_LENGTH_DELIMITED, output);
            output->WriteVarint32(static_cast<uint32_t>(outlen));
            output->WriteRaw(idl->szValue, outlen);
            return 0;
        }
        case KeyWrite::kPlain: {
            // Written in when the field ends clear of the stream's slop: the
            // stream then never asks for more room and ends in the state the
            // serializers leave. Near the end of the buffer, and after an
            // overflow, the stream's byte counts depend on the writer (they
            // go into log lines and the zero-growth check), so such a field
            // goes the general way. Reading the error flag through EpsCopy()
            // leaves the stream as it is; CodedOutputStream::HadError would
            // flush it.
            if (output->EpsCopy()->HadError()) break;
            internal::IntoStream sink(output);
            if (WritePlainKeyField(key, source, capacity - output->ByteCount() - EpsCopyOutputStream::kSlopBytes,
                                   sink) == internal::Plain::kWritten) {
                return 0;
            }
            break;
        }
        case KeyWrite::kGeneric: break;
    }
    // HasField is defined for singular fields only; for a repeated field
    // both serializers write the same bytes.
    if (!field->is_repeated() && field->file()->syntax() == FileDescriptor::SYNTAX_PROTO3 &&
        !source.reflection->HasField(*source.msg, field)) {
        ProtobufUtil::SerializeFieldWithCachedSizesEx(field, *source.msg, output);
    } else {
        WireFormat::SerializeFieldWithCachedSizes(field, *source.msg, output);
    }
    return 0;
}

// An output stream that keeps nothing and counts what is written into it.
class CountingSink : public ZeroCopyOutputStream {
public:
    bool Next(void** data, int* size) override {
        *data = m_scratch;
        *size = sizeof(m_scratch);
        m_count += sizeof(m_scratch);
        return true;
    }
    void BackUp(int count) override { m_count -= count; }
    int64_t ByteCount() const override { return m_count; }

private:
    char m_scratch[512];
    int64_t m_count = 0;
};

// The key buffer as the key fields are written into it, with the byte counts
// a coded stream over the whole buffer (protobuf's ArrayOutputStream, one
// block) would report.
//
// Fields are copied straight into the buffer while they end more than the
// stream's slop before its end: a stream would have written the same bytes
// into the buffer and counted them. From the first field that does not, a
// coded stream takes over at that point, over the rest of the buffer: with
// more than its slop left it starts in the state the whole-buffer stream
// would be in there (writing in place, the same limit), and its counts are
// the whole stream's less the bytes before it.
//
// The stream stops at the end of buf without an error of its own, and once
// it has run out of room its byte count no longer tells what the fields
// wrote. So the key's length is kept apart: the stream's count while it has
// room, and from the field that overflowed it on, each field written once
// more into a counting sink (an encrypted one is encrypted again: a suite's
// ciphertext of one value has one length). A key longer than the limit is
// refused with its whole length whatever the size of buf, while the per-field
// counts (log lines and the zero-growth check) stay the stream's own.
class KeyOutput {
public:
    // Over buf of `capacity` bytes, whose first `written` bytes the fields
    // before have written in place.
    KeyOutput(uint8_t* buf, int32_t capacity, int written = 0)
        : m_buf(buf), m_capacity(capacity), m_base(written), m_length(written) {}

    // The next field written is encrypted, and its ciphertext of `outlen`
    // bytes is made already (in idl->szValue).
    void Encrypted(int outlen) { m_made = outlen; }

    int ByteCount() const { return m_stream ? m_base + static_cast<int>(m_stream->ByteCount()) : m_base; }

    // Writes one key field. Returns 0, -6 or -7.
    int Write(const KeyField& key, const KeySource& source, tagtbl_idl* idl) {
        if (!m_stream) {
            int ret = 0;
            if (WriteInPlace(key, source, idl, &ret)) return ret;
            m_array.emplace(m_buf + m_base, m_capacity - m_base, -1);
            m_stream.emplace(&*m_array);
            if (m_ciphertext >= 0) {
                // Encrypted already: the ciphertext is written as it is.
                WireFormatLite::WriteTag(key.field->number(), WireFormatLite::WIRETYPE_LENGTH_DELIMITED, &*m_stream);
                m_stream->WriteVarint32(static_cast<uint32_t>(m_ciphertext));
                m_stream->WriteRaw(idl->szValue, m_ciphertext);
                return Measure(key, source, idl);
            }
        }
        const int ret = WriteKeyField(key, source, idl, m_capacity - m_base, &*m_stream);
        if (ret != 0) return ret;
        return Measure(key, source, idl);
    }

    // The key's length, capped at INT32_MAX; what the stream still holds is
    // flushed into buf.
    int32_t Finish() {
        if (m_stream) m_stream->Trim();
        return static_cast<int32_t>(std::min<int64_t>(m_length, INT32_MAX));
    }

private:
    // How many more bytes may be written in place: what ends before the
    // stream's slop, with a byte to spare so that a stream taking over later
    // starts writing in place too.
    int64_t Room() const { return int64_t{m_capacity} - EpsCopyOutputStream::kSlopBytes - 1 - m_base; }

    // Writes the field straight into the buffer when it fits there (*ret is
    // the result then) and returns true; returns false, having written
    // nothing, otherwise. A field that needs protobuf's serializers is never
    // written here; an encrypted one is encrypted here either way (unless its
    // ciphertext was made before, Encrypted), and left in m_ciphertext when it
    // does not fit.
    bool WriteInPlace(const KeyField& key, const KeySource& source, tagtbl_idl* idl, int* ret) {
        m_ciphertext = -1;
        if (key.how == KeyWrite::kPlain) {
            internal::InPlace sink(m_buf + m_base);
            if (WritePlainKeyField(key, source, Room(), sink) != internal::Plain::kWritten) return false;
            m_base = static_cast<int>(sink.end() - m_buf);
        } else if (key.how == KeyWrite::kEncrypted) {
            int outlen = m_made;
            m_made = -1;
            if (outlen < 0) {
                *ret = EncryptField(key, source, idl, &outlen);
                if (*ret != 0) return true;
            }
            uint8_t head[10];
            const int head_size = EncryptedHead(key.field, outlen, head);
            if (int64_t{head_size} + outlen > Room()) {
                m_ciphertext = outlen;
                return false;
            }
            std::memcpy(m_buf + m_base, head, head_size);
            std::memcpy(m_buf + m_base + head_size, idl->szValue, outlen);
            m_base += head_size + outlen;
        } else {
            return false;
        }
        m_length = m_base;
        return true;
    }

    // Updates the key's length after key was written into the stream.
    // Reading the error flag through EpsCopy() leaves the stream as it is;
    // CodedOutputStream::HadError would flush it.
    int Measure(const KeyField& key, const KeySource& source, tagtbl_idl* idl) {
        if (!m_stream->EpsCopy()->HadError()) {
            m_length = ByteCount();
            return 0;
        }
        CountingSink sink;
        {
            CodedOutputStream counter(&sink);
            const int measured = WriteKeyField(key, source, idl, INT32_MAX, &counter);
            if (measured != 0) return measured;
        }
        m_length += sink.ByteCount();
        return 0;
    }

    uint8_t* const m_buf;
    const int32_t m_capacity;
    int m_base = 0;  // bytes written in place, before the stream
    int64_t m_length = 0;
    int m_ciphertext = -1;  // length of a ciphertext made for a field that did not fit in place
    int m_made = -1;        // length of a ciphertext made before for the next field (Encrypted)
    std::optional<ArrayOutputStream> m_array;
    std::optional<CodedOutputStream> m_stream;
};

// The key fields of a table: a fixed array, spilled into a vector only for
// unusually many key fields.
class KeyFieldList {
public:
    void Add(const FieldDescriptor* field) {
        const KeyField key = PlanKeyField(field);
        if (m_spill.empty() && m_count < kInlineKeyFields) {
            m_inline[m_count++] = key;
            return;
        }
        if (m_spill.empty()) m_spill.assign(m_inline, m_inline + m_count);
        m_spill.push_back(key);
    }

    // Gives each field its slot of slots (found for the class planned for).
    void SetSlots(const internal::FieldSlots& slots) {
        KeyField* first = m_spill.empty() ? m_inline : m_spill.data();
        for (KeyField* key = first; key != first + (end() - begin()); ++key) {
            key->slot = slots.by_index[static_cast<size_t>(key->field->index())];
        }
    }

    const KeyField* begin() const { return m_spill.empty() ? m_inline : m_spill.data(); }
    const KeyField* end() const { return begin() + (m_spill.empty() ? m_count : m_spill.size()); }

    // Ascending field number. The functor only keeps a reference to the
    // vector it is built over and never reads it.
    void SortByNumber() {
        const std::vector<const FieldDescriptor*> unread;
        const _FieldDescPtrFunctor less(unread);
        KeyField* first = m_spill.empty() ? m_inline : m_spill.data();
        std::sort(first, first + (end() - begin()),
                  [&less](const KeyField& a, const KeyField& b) { return less(a.field, b.field); });
    }

private:
    KeyField m_inline[kInlineKeyFields];
    size_t m_count = 0;
    std::vector<KeyField> m_spill;
};

// What the key encoders derive from a table type: the type's descriptor and
// reflection, its cipher suite's name, its primary-key fields in ascending
// number and, for types planned once, how each of its fields is written.
struct KeyPlan {
    const void* key = nullptr;  // the generated class (std::type_info) planned for; null: planned for one call
    const Descriptor* desc = nullptr;
    const Reflection* reflection = nullptr;
    const std::string* suite_name = nullptr;  // corvida_field_cipher_suite of desc
    const std::string* cipher_md5 = nullptr;  // corvida_cipher_md5 of desc
    int primary_result = 0;                   // 0, or -5 when a primary-key name is not a field
    KeyFieldList primary;
    bool proto3 = false;  // desc is of a proto3 file
    // Every primary-key field is plain or encrypted: WriteShortPrimaryKey
    // writes them.
    bool short_primary = false;
    std::vector<KeyField> by_index;  // every field of desc, by index; empty when planned for one call
};

using KeyPlans = internal::PlanCache<KeyPlan>;

// The descriptors of the fields named by corvida_primary_key, in the
// option's order. Returns 0, or -5 when a name (an empty one included) is not
// a field.
int CollectPrimaryKeyFields(const Descriptor* desc, KeyFieldList* fields) {
    internal::TokenView tokens(desc->options().GetExtension(corvidaservice::corvida_primary_key), ',');
    std::string_view token;
    while (tokens.Next(&token)) {
        const FieldDescriptor* field = internal::FindFieldByToken(desc, token);
        if (field == nullptr) return -5;
        fields->Add(field);
    }
    return 0;
}

// Plans desc's options into plan (desc and reflection set): the cipher
// suite's name and, with `primary`, the primary-key fields.
void PlanOptions(KeyPlan* plan, bool primary) {
    plan->suite_name = &plan->desc->options().GetExtension(corvidaservice::corvida_field_cipher_suite);
    plan->cipher_md5 = &plan->desc->options().GetExtension(corvidaservice::corvida_cipher_md5);
    plan->proto3 = plan->desc->file()->syntax() == FileDescriptor::SYNTAX_PROTO3;
    if (!primary) return;
    plan->primary_result = CollectPrimaryKeyFields(plan->desc, &plan->primary);
    // Key bytes must not depend on the order the option lists the names in.
    plan->primary.SortByNumber();
    plan->short_primary = plan->primary_result == 0 && plan->primary.begin() != plan->primary.end();
    for (const KeyField& key : plan->primary) {
        if (key.how == KeyWrite::kGeneric) plan->short_primary = false;
    }
}

// Plans msg's type into *local, with the primary-key fields when `primary`
// (desc or reflection null when msg lacks them, which the caller reports),
// and keeps a plan of the type when msg is of a generated class and the
// plans have room for it. Returns the plan to use.
const KeyPlan* PlanNow(const Message& msg, bool primary, std::optional<KeyPlan>* local) {
    KeyPlan& plan = local->emplace();
    plan.desc = msg.GetDescriptor();
    if (plan.desc == nullptr) return &plan;
    plan.reflection = msg.GetReflection();
    if (plan.reflection == nullptr) return &plan;
    if (KeyPlans::HasRoom(&typeid(msg)) && internal::IsGeneratedClass(msg, plan.desc)) {
        std::unique_ptr<KeyPlan> kept(new (std::nothrow) KeyPlan);
        if (kept != nullptr) {
            kept->key = &typeid(msg);
            kept->desc = plan.desc;
            kept->reflection = plan.reflection;
            PlanOptions(kept.get(), true);
            const internal::FieldSlots slots = internal::FindFieldSlots(msg);
            if (slots.type != nullptr) kept->primary.SetSlots(slots);
            kept->by_index.reserve(static_cast<size_t>(plan.desc->field_count()));
            for (int i = 0; i < plan.desc->field_count(); ++i) {
                kept->by_index.push_back(PlanKeyField(plan.desc->field(i)));
                if (slots.type != nullptr) kept->by_index.back().slot = slots.by_index[static_cast<size_t>(i)];
            }
            if (const KeyPlan* published = KeyPlans::Publish(kept)) return published;
        }
    }
    PlanOptions(&plan, primary);
    return &plan;
}

// The checks that come before any key field: arguments and reflection.
// Returns 0, -1 or -2. Lines are logged in the name of `func`, the calling
// operation.
int OpenKeySource(const char* func, const Message& msg, const KeyPlan& plan, tagtbl_idl* idl, LPPLOGCATEGORYINST log,
                  KeySource* source) {
    if (idl == nullptr || plan.desc == nullptr || log == nullptr) return -1;
    if (plan.reflection == nullptr) {
        PBU_LOG_IN(func, log, PLOG_PRIORITY_ERROR, "reflection param is null.");
        return -2;
    }
    *source = KeySource{&msg, plan.desc, plan.reflection, nullptr, plan.key != nullptr};
    return 0;
}

// Looks up the table's cipher suite (plan's suite_name: the table's
// corvida_field_cipher_suite; empty: none) and checks its key digest against
// the table's (plan's cipher_md5). Returns 0, -3 or -4, logged in the name of
// `func`.
inline int OpenCipherSuite(const char* func, CorvidaKVApi* pKVApi, const KeyPlan& plan, LPPLOGCATEGORYINST log,
                           KeySource* source) {
    const std::string& suite_name = *plan.suite_name;
    if (suite_name.empty()) return 0;
    // A null KV API configures no suite, so the named one is not found.
    CipherSuite* suite = pKVApi != nullptr ? pKVApi->GetCipherSuite(suite_name.c_str()) : nullptr;
    if (suite == nullptr) {
        PBU_LOG_IN(func, log, PLOG_PRIORITY_ERROR, "suite:%s not found.", suite_name.c_str());
        return -3;
    }
    // A client whose key differs from the one the schema was made for would
    // build keys that address nothing. The library's own suite shows its
    // digest without a copy; any other is asked through the interface.
    const std::string& meta_md5 = *plan.cipher_md5;
    if (typeid(*suite) == typeid(AesSivCipherSuite) &&
        static_cast<const AesSivCipherSuite*>(suite)->CipherKeyMD5() == meta_md5) {
        source->suite = suite;
        return 0;
    }
    const std::string suite_md5 = suite->GetCipherKeyMD5();
    if (suite_md5 != meta_md5) {
        PBU_LOG_IN(func, log, PLOG_PRIORITY_ERROR, "suite:%s md5sum:%s meta md5:%s not match.", suite_name.c_str(),
                   suite_md5.c_str(), meta_md5.c_str());
        return -4;
    }
    source->suite = suite;
    return 0;
}

// Publishes the key once every field is written: size (the capacity of buf
// until now) becomes the key length; -10 beyond kMaxKeyBytes, else 0 with the
// key logged at trace priority in the name of `func`, the calling operation.
int FinishKey(const char* func, KeyOutput* output, const uint8_t* buf, int32_t& size, CallLog& trace) {
    const int32_t capacity = size;
    size = output->Finish();
    if (size > kMaxKeyBytes) {
        PBU_LOG_IN(func, trace.get(), PLOG_PRIORITY_ERROR, "key byte count:%d exceed max:%d", size, kMaxKeyBytes);
        return -10;
    }
    PBU_FREQUENT_LINE(func, trace, PLOG_PRIORITY_TRACE, "msg key len(%d)", size);
    // A key longer than a short buf is cut at its end: dump only bytes of buf.
    if (trace.open()) {
        PBU_LOG_HEX_IN(func, trace.get(), PLOG_PRIORITY_TRACE, buf,
                       static_cast<size_t>(std::max(0, std::min(size, capacity))));
    }
    return 0;
}

// Writes the primary-key fields from `key` on (up to end) into output, which
// holds what the fields before them wrote, and publishes the key (see
// ExtractMsgKey); trace is the call's trace.
int WritePrimaryFields(const KeyField* key, const KeyField* end, const KeySource& source, uint8_t* buf, int32_t& size,
                       tagtbl_idl* idl, LPPLOGCATEGORYINST log, bool bCheck, KeyOutput* output, CallLog& trace) {
    for (; key != end; ++key) {
        const FieldDescriptor* field = key->field;
        const int before = output->ByteCount();
        const int ret = output->Write(*key, source, idl);
        if (ret != 0) return ret;
        // The suite, called to encrypt, might have changed the category.
        if (key->how == KeyWrite::kEncrypted) trace.Wrote();
        const int after = output->ByteCount();
        PBU_FREQUENT_LINE(kMsgKey, trace, PLOG_PRIORITY_TRACE, "field:%s bCheck:%d byte count before:%d, after:%d",
                          field->name().c_str(), static_cast<int>(bCheck), before, after);
        if (bCheck && before >= after) {
            PBU_LOG_IN(kMsgKey, log, PLOG_PRIORITY_ERROR, "key %s serialize bCheck:%d count:%d <= before:%d",
                       field->name().c_str(), 1, after, before);
            return -9;
        }
    }
    return FinishKey(kMsgKey, output, buf, size, trace);
}

// The primary key of msg under plan (see ExtractMsgKey).
int WritePrimaryKey(const KeyPlan& plan, CorvidaKVApi* pKVApi, const Message& msg, uint8_t* buf, int32_t& size,
                    tagtbl_idl* idl, LPPLOGCATEGORYINST log, bool bCheck) {
    KeySource source{};
    int ret = OpenKeySource(kMsgKey, msg, plan, idl, log, &source);
    if (ret != 0) return ret;
    ret = OpenCipherSuite(kMsgKey, pKVApi, plan, log, &source);
    if (ret != 0) return ret;
    if (plan.primary_result != 0) return plan.primary_result;

    CallLog trace(log, PLOG_PRIORITY_TRACE);
    KeyOutput output(buf, size);
    return WritePrimaryFields(plan.primary.begin(), plan.primary.end(), source, buf, size, idl, log, bCheck, &output,
                              trace);
}

// Publishes a key of `written` bytes written straight into its buffer, as
// FinishKey publishes it with the trace closed.
int PublishShortKey(int written, int32_t& size, LPPLOGCATEGORYINST log) {
    size = written;
    if (size > kMaxKeyBytes) {
        PBU_LOG_IN(kMsgKey, log, PLOG_PRIORITY_ERROR, "key byte count:%d exceed max:%d", size, kMaxKeyBytes);
        return -10;
    }
    return 0;
}

// Goes on with a primary key whose short way stopped at state.key: the
// general way, in the state it would be in at that field.
__attribute__((noinline)) int GoOnShortKey(const KeyPlan& plan, const KeySource& source, const ShortKeyState& state,
                                           uint8_t* buf, int32_t& size, tagtbl_idl* idl, LPPLOGCATEGORYINST log,
                                           bool bCheck) {
    const int written = static_cast<int>(state.at - buf);
    if (state.result != 0) return state.result;
    if (state.unset) {
        // As WritePrimaryFields reports a field that wrote nothing.
        PBU_LOG_IN(kMsgKey, log, PLOG_PRIORITY_ERROR, "key %s serialize bCheck:%d count:%d <= before:%d",
                   state.key->field->name().c_str(), 1, written, written);
        return -9;
    }
    KeyOutput output(buf, size, written);
    if (state.ciphertext >= 0) output.Encrypted(state.ciphertext);
    CallLog trace(log, PLOG_PRIORITY_TRACE);
    return WritePrimaryFields(state.key, plan.primary.end(), source, buf, size, idl, log, bCheck, &output, trace);
}

// WriteShortPrimaryKey for a plan with encrypted fields, the suite opened:
// plain fields as WriteShortKey writes them, and each encrypted one at once
// after its encryption, when it surely fits and the trace stays closed.
template <bool kProto3>
__attribute__((noinline)) int WriteShortEncryptedKey(const KeyPlan& plan, const KeySource& source, uint8_t* buf,
                                                     int32_t& size, tagtbl_idl* idl, LPPLOGCATEGORYINST log,
                                                     bool bCheck) {
    const KeyField* const end = plan.primary.end();
    const uint8_t* const limit = buf + (size - EpsCopyOutputStream::kSlopBytes - 1);
    // The library's own suite logs nothing; any other might open the trace.
    const bool suite_logs = typeid(*source.suite) != typeid(AesSivCipherSuite);
    ShortKeyState state{plan.primary.begin(), buf};
    for (;;) {
        WriteShortKey<kProto3>(&state, end, plan.reflection, *source.msg, limit, bCheck);
        if (state.unset || state.key == end || state.key->how != KeyWrite::kEncrypted) break;
        int outlen = 0;
        state.result = EncryptField(*state.key, source, idl, &outlen);
        if (state.result != 0) break;
        uint8_t head[10];
        const int head_size = EncryptedHead(state.key->field, outlen, head);
        if (int64_t{head_size} + outlen > limit - state.at ||
            (suite_logs && plog_category_accepts(log, PLOG_PRIORITY_TRACE) != 0)) {
            state.ciphertext = outlen;
            break;
        }
        internal::CopySmall(state.at, head, head_size);
        std::memcpy(state.at + head_size, idl->szValue, static_cast<size_t>(outlen));
        state.at += head_size + outlen;
        ++state.key;
    }
    return state.key == end && !state.unset ? PublishShortKey(static_cast<int>(state.at - buf), size, log)
                                            : GoOnShortKey(plan, source, state, buf, size, idl, log, bCheck);
}

// The primary key of msg under kept plan (see ExtractMsgKey) when every key
// field is plain or encrypted and no trace line is wanted: the fields are
// written straight into buf, where KeyOutput would write them in place. From
// the first field that does not surely fit there, or that only the general
// way writes as protobuf does, or after an encryption that may have opened
// the trace, the general way (WritePrimaryFields) goes on from the state it
// would be in at that field, an encrypted field's ciphertext made already:
// the suite is called exactly as the general way calls it. Returns true with
// the result in *ret, or false, having done nothing, when the arguments or
// the buffer are not of the commonest kind (WritePrimaryKey then writes the
// key).
bool WriteShortPrimaryKey(const KeyPlan& plan, CorvidaKVApi* pKVApi, const Message& msg, uint8_t* buf, int32_t& size,
                          tagtbl_idl* idl, LPPLOGCATEGORYINST log, bool bCheck, int* ret) {
    // OpenKeySource's checks pass, and the trace is closed (CallLog).
    if (idl == nullptr || log == nullptr || plan.reflection == nullptr || size <= EpsCopyOutputStream::kSlopBytes + 1 ||
        plog_category_accepts(log, PLOG_PRIORITY_TRACE) != 0) {
        return false;
    }
    if (!plan.suite_name->empty()) {
        KeySource source{&msg, plan.desc, plan.reflection, nullptr, true};
        *ret = OpenCipherSuite(kMsgKey, pKVApi, plan, log, &source);
        if (*ret != 0) return true;
        *ret = plan.proto3 ? WriteShortEncryptedKey<true>(plan, source, buf, size, idl, log, bCheck)
                           : WriteShortEncryptedKey<false>(plan, source, buf, size, idl, log, bCheck);
        return true;
    }
    const KeyField* const end = plan.primary.end();
    const uint8_t* const limit = buf + (size - EpsCopyOutputStream::kSlopBytes - 1);
    ShortKeyState state{plan.primary.begin(), buf};
    if (plan.proto3) {
        WriteShortKey<true>(&state, end, plan.reflection, msg, limit, bCheck);
    } else {
        WriteShortKey<false>(&state, end, plan.reflection, msg, limit, bCheck);
    }
    *ret = state.key == end && !state.unset
               ? PublishShortKey(static_cast<int>(state.at - buf), size, log)
               : GoOnShortKey(plan, KeySource{&msg, plan.desc, plan.reflection, nullptr, true}, state, buf, size, idl,
                              log, bCheck);
    return true;
}

// The key of the fields numbered in vecFields of msg under plan (see
// ExtractFieldKey).
int WriteFieldKey(const KeyPlan& plan, CorvidaKVApi* pKVApi, const Message& msg, const std::vector<int>& vecFields,
                  uint8_t* buf, int32_t& size, tagtbl_idl* idl, LPPLOGCATEGORYINST log) {
    KeySource source{};
    int ret = OpenKeySource(kFieldKey, msg, plan, idl, log, &source);
    if (ret != 0) return ret;
    ret = OpenCipherSuite(kFieldKey, pKVApi, plan, log, &source);
    if (ret != 0) return ret;

    CallLog trace(log, PLOG_PRIORITY_TRACE);
    KeyOutput output(buf, size);
    for (const int number : vecFields) {
        const FieldDescriptor* field = source.desc->FindFieldByNumber(number);
        if (field == nullptr) {
            PBU_LOG_IN(kFieldKey, log, PLOG_PRIORITY_ERROR, "field num:%u not found.", static_cast<unsigned>(number));
            trace.Wrote();
            continue;
        }
        const KeyField& key = plan.by_index.empty() ? PlanKeyField(field) : plan.by_index[field->index()];
        const int before = output.ByteCount();
        ret = output.Write(key, source, idl);
        if (ret != 0) return ret;
        // The suite, called to encrypt, might have changed the category.
        if (key.how == KeyWrite::kEncrypted) trace.Wrote();
        const int after = output.ByteCount();
        PBU_FREQUENT_LINE(kFieldKey, trace, PLOG_PRIORITY_TRACE, "field:%s byte count before:%d, after:%d",
                          field->name().c_str(), before, after);
        if (before >= after) {
            PBU_LOG_IN(kFieldKey, log, PLOG_PRIORITY_ERROR, "key %s serialize count:%d <= before:%d",
                       field->name().c_str(), after, before);
            return -9;
        }
    }
    return FinishKey(kFieldKey, &output, buf, size, trace);
}

// The primary key of msg, whose type has no kept plan: planned now. Kept out
// of ExtractMsgKey, whose common path then needs no room for a plan.
__attribute__((noinline)) int WritePrimaryKeyNow(CorvidaKVApi* pKVApi, const Message& msg, uint8_t* buf,
                                                 int32_t& size, tagtbl_idl* idl, LPPLOGCATEGORYINST log, bool bCheck) {
    std::optional<KeyPlan> local;
    return WritePrimaryKey(*PlanNow(msg, true, &local), pKVApi, msg, buf, size, idl, log, bCheck);
}

}  // namespace

int ProtobufUtil::ExtractMsgKey(CorvidaKVApi* pKVApi, const Message& msg, uint8_t* buf, int32_t& size, tagtbl_idl* idl,
                                LPPLOGCATEGORYINST log, bool bCheck) {
    if (const KeyPlan* kept = KeyPlans::Find(&typeid(msg))) {
        int ret = 0;
        if (kept->short_primary && WriteShortPrimaryKey(*kept, pKVApi, msg, buf, size, idl, log, bCheck, &ret)) {
            return ret;
        }
        return WritePrimaryKey(*kept, pKVApi, msg, buf, size, idl, log, bCheck);
    }
    return WritePrimaryKeyNow(pKVApi, msg, buf, size, idl, log, bCheck);
}

int ProtobufUtil::GetMsgKeyNames(const Message& msg, std::set<std::string>& setKeyNames) {
    const Descriptor* desc = msg.GetDescriptor();
    if (desc == nullptr) return -1;
    internal::TokenView tokens(desc->options().GetExtension(corvidaservice::corvida_primary_key), ',');
    std::string_view token;
    while (tokens.Next(&token)) {
        if (internal::FindFieldByToken(desc, token) == nullptr) return -2;
        setKeyNames.emplace(token);
    }
    return 0;
}

int ProtobufUtil::ExtractFieldKey(CorvidaKVApi* pKVApi, const Message& msg, const std::vector<int>& vecFields,
                                  uint8_t* buf, int32_t& size, tagtbl_idl* idl, LPPLOGCATEGORYINST log) {
    if (const KeyPlan* kept = KeyPlans::Find(&typeid(msg))) {
        return WriteFieldKey(*kept, pKVApi, msg, vecFields, buf, size, idl, log);
    }
    std::optional<KeyPlan> local;
    return WriteFieldKey(*PlanNow(msg, false, &local), pKVApi, msg, vecFields, buf, size, idl, log);
}

}  // namespace PROTOBUF_UTIL
