// Kept as the yardstick of the differential test (see reference/reference.h).
//
// Record keys: the primary key of a message and the key of chosen fields.
//
// These run on every request, so the path that encrypts nothing allocates
// nothing: option texts are split in place, key field descriptors live in a
// fixed array, and names are looked up without building strings. What
// ExtractMsgKey derives from a table type's options is kept per thread for
// the types of the generated pool, which live as long as the process.
#include <algorithm>
#include <climits>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/io/zero_copy_stream_impl_lite.h>
#include <google/protobuf/wire_format.h>
#include <google/protobuf/wire_format_lite.h>

#include "corvidaservice.optionv1.pb.h"
#include "reference/reference.h"
#include "protobuf_api/protobuf_util_log.h"
#include "reference/reference_tokens.h"

namespace corvida_reference {
namespace {

using google::protobuf::Descriptor;
using google::protobuf::DescriptorPool;
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

// Key fields kept without touching the heap; tables with more key fields
// than this are rare enough to pay for a vector.
constexpr size_t kInlineKeyFields = 16;

// What both key encoders need once the message has been checked.
struct KeySource {
    const Message* msg;
    const Descriptor* desc;
    const Reflection* reflection;
    CipherSuite* suite;  // null when the table names no cipher suite
};

// The checks that come before any key field: arguments and reflection.
// Returns 0, -1 or -2. Lines are logged in the name of `func`, the calling
// operation.
int OpenKeySource(const char* func, const Message& msg, tagtbl_idl* idl, LPPLOGCATEGORYINST log, KeySource* source) {
    const Descriptor* desc = msg.GetDescriptor();
    if (idl == nullptr || desc == nullptr || log == nullptr) return -1;
    const Reflection* reflection = msg.GetReflection();
    if (reflection == nullptr) {
        PBU_LOG_IN(func, log, PLOG_PRIORITY_ERROR, "reflection param is null.");
        return -2;
    }
    *source = KeySource{&msg, desc, reflection, nullptr};
    return 0;
}

// Looks up the table's cipher suite suite_name (the table's
// corvida_field_cipher_suite; empty: none) and checks its key digest against
// the table's. Returns 0, -3 or -4, logged in the name of `func`.
int OpenCipherSuite(const char* func, CorvidaKVApi* pKVApi, const std::string& suite_name, LPPLOGCATEGORYINST log,
                    KeySource* source) {
    if (suite_name.empty()) return 0;
    // A null KV API configures no suite, so the named one is not found.
    CipherSuite* suite = pKVApi != nullptr ? pKVApi->GetCipherSuite(suite_name.c_str()) : nullptr;
    if (suite == nullptr) {
        PBU_LOG_IN(func, log, PLOG_PRIORITY_ERROR, "suite:%s not found.", suite_name.c_str());
        return -3;
    }
    // A client whose key differs from the one the schema was made for would
    // build keys that address nothing.
    const std::string suite_md5 = suite->GetCipherKeyMD5();
    const std::string& meta_md5 = source->desc->options().GetExtension(corvidaservice::corvida_cipher_md5);
    if (suite_md5 != meta_md5) {
        PBU_LOG_IN(func, log, PLOG_PRIORITY_ERROR, "suite:%s md5sum:%s meta md5:%s not match.", suite_name.c_str(),
                   suite_md5.c_str(), meta_md5.c_str());
        return -4;
    }
    source->suite = suite;
    return 0;
}

// Writes the ciphertext of a string or bytes field as a length-delimited
// field under the field's own number. Returns 0, -6 (no suite) or -7.
int WriteEncryptedField(const FieldDescriptor* field, const KeySource& source, tagtbl_idl* idl,
                        CodedOutputStream* output) {
    if (source.suite == nullptr) return -6;
    // A repeated field has no single value to encrypt; refusing it is safer
    // than writing its values in plain.
    if (field->is_repeated()) return -7;
    std::string scratch;
    const std::string& value = source.reflection->GetStringReference(*source.msg, field, &scratch);
    // The suite takes an int length: a longer value would be encrypted cut
    // short, and two different records would share one key.
    if (value.size() > static_cast<size_t>(INT_MAX)) return -7;
    int outlen = kCipherCapacity;
    const int ret = source.suite->Encrypt(reinterpret_cast<const unsigned char*>(value.data()),
                                          static_cast<int>(value.size()), idl->szValue, outlen);
    // A length outside the output area would make us read beyond it.
    if (ret != 0 || outlen < 0 || outlen > kCipherCapacity) return -7;
    // The bytes WireFormatLite::WriteString writes, without copying the
    // ciphertext into a string first.
    WireFormatLite::WriteTag(field->number(), WireFormatLite::WIRETYPE_LENGTH_DELIMITED, output);
    output->WriteVarint32(static_cast<uint32_t>(outlen));
    output->WriteRaw(idl->szValue, outlen);
    return 0;
}

// True for the fields that WritePlainSingular may write: singular fields that
// are neither messages nor groups, except proto2 strings, for which
// protobuf's serializer may check the UTF-8 (and log) where the key field
// serializer never does.
bool IsPlainSingular(const FieldDescriptor* field) {
    if (field->is_repeated() || field->cpp_type() == FieldDescriptor::CPPTYPE_MESSAGE) return false;
    return field->type() != FieldDescriptor::TYPE_STRING || field->file()->syntax() == FileDescriptor::SYNTAX_PROTO3;
}

// Most bytes a plain field other than a string or bytes field takes: a tag
// of at most 5 bytes and a value of at most 10.
constexpr int kMaxPlainScalarBytes = 15;

// Writes a field for which IsPlainSingular holds exactly as
// SerializeFieldWithCachedSizesEx and protobuf's serializer both do (a proto3
// field always, a proto2 field when set; protobuf's writer for its type, the
// UTF-8 of a proto3 string checked), through the reflection the caller holds
// and without their generic dispatch: the common key field, on every request.
//
// Only a field that surely fits into `room` bytes is written; returns false,
// having written nothing, for one that might not.
bool WritePlainSingular(const FieldDescriptor* field, const KeySource& source, int64_t room,
                        CodedOutputStream* output) {
    const Reflection* r = source.reflection;
    const Message& m = *source.msg;
    const bool proto3 = field->file()->syntax() == FileDescriptor::SYNTAX_PROTO3;
    if (!proto3 && !r->HasField(m, field)) return true;
    const int number = field->number();
    if (field->cpp_type() == FieldDescriptor::CPPTYPE_STRING) {
        std::string scratch;
        const std::string& value = r->GetStringReference(m, field, &scratch);
        // A tag and a length of at most 5 bytes each.
        if (room < 10 || static_cast<uint64_t>(room - 10) < value.size()) return false;
        if (field->type() == FieldDescriptor::TYPE_BYTES) {
            WireFormatLite::WriteBytes(number, value, output);
            return true;
        }
        // Reports invalid UTF-8 through protobuf's log; the bytes are written anyway.
        WireFormatLite::VerifyUtf8String(value.data(), static_cast<int>(value.size()), WireFormatLite::SERIALIZE,
                                         field->full_name().c_str());
        WireFormatLite::WriteString(number, value, output);
        return true;
    }
    if (room < kMaxPlainScalarBytes) return false;
    switch (field->type()) {
        case FieldDescriptor::TYPE_INT32: WireFormatLite::WriteInt32(number, r->GetInt32(m, field), output); break;
        case FieldDescriptor::TYPE_INT64: WireFormatLite::WriteInt64(number, r->GetInt64(m, field), output); break;
        case FieldDescriptor::TYPE_UINT32: WireFormatLite::WriteUInt32(number, r->GetUInt32(m, field), output); break;
        case FieldDescriptor::TYPE_UINT64: WireFormatLite::WriteUInt64(number, r->GetUInt64(m, field), output); break;
        case FieldDescriptor::TYPE_SINT32: WireFormatLite::WriteSInt32(number, r->GetInt32(m, field), output); break;
        case FieldDescriptor::TYPE_SINT64: WireFormatLite::WriteSInt64(number, r->GetInt64(m, field), output); break;
        case FieldDescriptor::TYPE_FIXED32: WireFormatLite::WriteFixed32(number, r->GetUInt32(m, field), output); break;
        case FieldDescriptor::TYPE_FIXED64: WireFormatLite::WriteFixed64(number, r->GetUInt64(m, field), output); break;
        case FieldDescriptor::TYPE_SFIXED32:
            WireFormatLite::WriteSFixed32(number, r->GetInt32(m, field), output);
            break;
        case FieldDescriptor::TYPE_SFIXED64:
            WireFormatLite::WriteSFixed64(number, r->GetInt64(m, field), output);
            break;
        case FieldDescriptor::TYPE_FLOAT: WireFormatLite::WriteFloat(number, r->GetFloat(m, field), output); break;
        case FieldDescriptor::TYPE_DOUBLE: WireFormatLite::WriteDouble(number, r->GetDouble(m, field), output); break;
        case FieldDescriptor::TYPE_BOOL: WireFormatLite::WriteBool(number, r->GetBool(m, field), output); break;
        case FieldDescriptor::TYPE_ENUM: WireFormatLite::WriteEnum(number, r->GetEnumValue(m, field), output); break;
        default: return false;  // strings above; messages and groups are never plain
    }
    return true;
}

// How a key field is written; fixed by its descriptor.
enum class KeyWrite : uint8_t {
    kEncrypted,  // a string or bytes field marked corvida_crypto: the suite's ciphertext
    kPlain,      // IsPlainSingular: WritePlainSingular where it fits, else as kGeneric
    kGeneric,    // anything else: the serializers
};

// A mark corvida_crypto on a field that is not a string or bytes field is
// ignored.
KeyWrite HowToWrite(const FieldDescriptor* field) {
    if (field->cpp_type() == FieldDescriptor::CPPTYPE_STRING &&
        field->options().GetExtension(corvidaservice::corvida_crypto)) {
        return KeyWrite::kEncrypted;
    }
    return IsPlainSingular(field) ? KeyWrite::kPlain : KeyWrite::kGeneric;
}

// Writes one key field as HowToWrite(field) says: encrypted, or in plain with
// a proto3 field holding its default value included, so that every key field
// contributes its tag. capacity is that of the key buffer under output.
// Returns 0, -6 or -7.
int WriteKeyField(const FieldDescriptor* field, KeyWrite how, const KeySource& source, tagtbl_idl* idl,
                  int32_t capacity, CodedOutputStream* output) {
    switch (how) {
        case KeyWrite::kEncrypted: return WriteEncryptedField(field, source, idl, output);
        case KeyWrite::kPlain:
            // Straight into the key buffer when the field fits there with the
            // stream's slop to spare: the stream then never asks for more room
            // and ends in the state the serializers leave. Near the end of the
            // buffer, and after an overflow, the stream's byte counts depend on
            // the writer (they go into log lines and the zero-growth check),
            // so such a field goes the general way. Reading the error flag
            // through EpsCopy() leaves the stream as it is;
            // CodedOutputStream::HadError would flush it.
            if (!output->EpsCopy()->HadError() &&
                WritePlainSingular(field, source,
                                   int64_t{capacity} - output->ByteCount() - EpsCopyOutputStream::kSlopBytes, output)) {
                return 0;
            }
            break;
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

struct KeyField {
    const FieldDescriptor* field;
    KeyWrite how;
};

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

// The key buffer as the key fields are written into it. The coded stream
// stops at the end of buf without an error of its own, and once it has run
// out of room its byte count no longer tells what the fields wrote. So the
// key's length is kept apart: the stream's count while it has room, and from
// the field that overflowed it on, each field written once more into a
// counting sink (an encrypted one is encrypted again: a suite's ciphertext of
// one value has one length). A key longer than the limit is refused with its
// whole length whatever the size of buf, while the per-field counts (log
// lines and the zero-growth check) stay the stream's own.
class KeyOutput {
public:
    KeyOutput(uint8_t* buf, int32_t capacity) : m_array(buf, capacity, -1), m_output(&m_array), m_capacity(capacity) {}

    int ByteCount() const { return m_output.ByteCount(); }

    // Writes one key field (see WriteKeyField). Returns 0, -6 or -7.
    int Write(const FieldDescriptor* field, KeyWrite how, const KeySource& source, tagtbl_idl* idl) {
        const int ret = WriteKeyField(field, how, source, idl, m_capacity, &m_output);
        if (ret != 0) return ret;
        // Reading the error flag through EpsCopy() leaves the stream as it
        // is; CodedOutputStream::HadError would flush it.
        if (!m_output.EpsCopy()->HadError()) {
            m_length = m_output.ByteCount();
            return 0;
        }
        CountingSink sink;
        {
            CodedOutputStream counter(&sink);
            const int measured = WriteKeyField(field, how, source, idl, INT32_MAX, &counter);
            if (measured != 0) return measured;
        }
        m_length += sink.ByteCount();
        return 0;
    }

    // The key's length, capped at INT32_MAX; what the stream still holds is
    // flushed into buf.
    int32_t Finish() {
        m_output.Trim();
        return static_cast<int32_t>(std::min<int64_t>(m_length, INT32_MAX));
    }

private:
    ArrayOutputStream m_array;
    CodedOutputStream m_output;
    const int32_t m_capacity;
    int64_t m_length = 0;
};

// The key fields of a table: a fixed array, spilled into a vector only for
// unusually many key fields.
class KeyFieldList {
public:
    void Clear() {
        m_count = 0;
        m_spill.clear();
    }

    void Add(const FieldDescriptor* field) {
        const KeyField key{field, HowToWrite(field)};
        if (m_spill.empty() && m_count < kInlineKeyFields) {
            m_inline[m_count++] = key;
            return;
        }
        if (m_spill.empty()) m_spill.assign(m_inline, m_inline + m_count);
        m_spill.push_back(key);
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

// Publishes the key once every field is written: size (the capacity of buf
// until now) becomes the key length; -10 beyond kMaxKeyBytes, else 0 with the
// key logged at trace priority in the name of `func`, the calling operation.
int FinishKey(const char* func, KeyOutput* output, const uint8_t* buf, int32_t& size, LPPLOGCATEGORYINST log) {
    const int32_t capacity = size;
    size = output->Finish();
    if (size > kMaxKeyBytes) {
        PBU_LOG_IN(func, log, PLOG_PRIORITY_ERROR, "key byte count:%d exceed max:%d", size, kMaxKeyBytes);
        return -10;
    }
    PBU_LOG_IN(func, log, PLOG_PRIORITY_TRACE, "msg key len(%d)", size);
    // A key longer than a short buf is cut at its end: dump only bytes of buf.
    PBU_LOG_HEX_IN(func, log, PLOG_PRIORITY_TRACE, buf, static_cast<size_t>(std::max(0, std::min(size, capacity))));
    return 0;
}

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

// What ExtractMsgKey derives from a table type's options before it writes a
// byte: the cipher suite's name, and the key fields in ascending field number.
struct PrimaryKeyPlan {
    const Descriptor* desc = nullptr;         // the type planned for; null: none yet
    const std::string* suite_name = nullptr;  // corvida_field_cipher_suite of desc
    int result = 0;                           // 0, or -5 from CollectPrimaryKeyFields
    KeyFieldList fields;
};

// Works out the plan of desc. The plan names its type only once it is
// complete, so one left half-built by an allocation failure is never used.
void BuildPlan(const Descriptor* desc, PrimaryKeyPlan* plan) {
    plan->desc = nullptr;
    plan->suite_name = &desc->options().GetExtension(corvidaservice::corvida_field_cipher_suite);
    plan->fields.Clear();
    plan->result = CollectPrimaryKeyFields(desc, &plan->fields);
    // Key bytes must not depend on the order the option lists the names in.
    plan->fields.SortByNumber();
    plan->desc = desc;
}

// The plan of desc. A generated type lives as long as the process, so its
// plan is kept in this thread's cache (slots chosen by address) and copied
// out; a type of any other pool may be destroyed and another built at its
// address, so its plan is worked out on every call. The copy keeps a plan in
// use safe from a nested call (a cipher suite asking for a key) that reuses
// its slot.
void LoadPlan(const Descriptor* desc, PrimaryKeyPlan* plan) {
    static const DescriptorPool* const generated = DescriptorPool::generated_pool();
    if (desc->file()->pool() != generated) {
        BuildPlan(desc, plan);
        return;
    }
    constexpr size_t kPlanSlots = 16;
    thread_local PrimaryKeyPlan slots[kPlanSlots];
    PrimaryKeyPlan& slot = slots[reinterpret_cast<uintptr_t>(desc) / sizeof(Descriptor) % kPlanSlots];
    if (slot.desc != desc) BuildPlan(desc, &slot);
    *plan = slot;
}

}  // namespace

int ProtobufUtil::ExtractMsgKey(CorvidaKVApi* pKVApi, const Message& msg, uint8_t* buf, int32_t& size,
                                tagtbl_idl* idl, LPPLOGCATEGORYINST log, bool bCheck) {
    KeySource source{};
    int ret = OpenKeySource(__func__, msg, idl, log, &source);
    if (ret != 0) return ret;
    PrimaryKeyPlan plan;
    LoadPlan(source.desc, &plan);
    ret = OpenCipherSuite(__func__, pKVApi, *plan.suite_name, log, &source);
    if (ret != 0) return ret;
    if (plan.result != 0) return plan.result;

    KeyOutput output(buf, size);
    for (const KeyField& key : plan.fields) {
        const FieldDescriptor* field = key.field;
        const int before = output.ByteCount();
        ret = output.Write(field, key.how, source, idl);
        if (ret != 0) return ret;
        const int after = output.ByteCount();
        PBU_LOG_TRACE(log, "field:%s bCheck:%d byte count before:%d, after:%d", field->name().c_str(),
                      static_cast<int>(bCheck), before, after);
        if (bCheck && before >= after) {
            PBU_LOG_ERROR(log, "key %s serialize bCheck:%d count:%d <= before:%d", field->name().c_str(), 1, after,
                          before);
            return -9;
        }
    }
    return FinishKey(__func__, &output, buf, size, log);
}

int ProtobufUtil::ExtractFieldKey(CorvidaKVApi* pKVApi, const Message& msg, const std::vector<int>& vecFields,
                                  uint8_t* buf, int32_t& size, tagtbl_idl* idl, LPPLOGCATEGORYINST log) {
    KeySource source{};
    int ret = OpenKeySource(__func__, msg, idl, log, &source);
    if (ret != 0) return ret;
    ret =
        OpenCipherSuite(__func__, pKVApi,
                        source.desc->options().GetExtension(corvidaservice::corvida_field_cipher_suite), log, &source);
    if (ret != 0) return ret;

    KeyOutput output(buf, size);
    for (const int number : vecFields) {
        const FieldDescriptor* field = source.desc->FindFieldByNumber(number);
        if (field == nullptr) {
            PBU_LOG_ERROR(log, "field num:%u not found.", static_cast<unsigned>(number));
            continue;
        }
        const int before = output.ByteCount();
        ret = output.Write(field, HowToWrite(field), source, idl);
        if (ret != 0) return ret;
        const int after = output.ByteCount();
        PBU_LOG_TRACE(log, "field:%s byte count before:%d, after:%d", field->name().c_str(), before, after);
        if (before >= after) {
            PBU_LOG_ERROR(log, "key %s serialize count:%d <= before:%d", field->name().c_str(), after, before);
            return -9;
        }
    }
    return FinishKey(__func__, &output, buf, size, log);
}

}  // namespace corvida_reference
