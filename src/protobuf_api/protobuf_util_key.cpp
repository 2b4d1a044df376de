// Record keys: the primary key of a message, the key of chosen fields, and the
// names of the primary-key fields.
//
// These run on every request, so the path that encrypts nothing allocates
// nothing: option texts are split in place, key field descriptors live in a
// fixed array, and names are looked up through a reused per-thread string.
#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/io/zero_copy_stream_impl_lite.h>
#include <google/protobuf/wire_format.h>
#include <google/protobuf/wire_format_lite.h>

#include "corvidaservice.optionv1.pb.h"
#include "protobuf_api/protobuf_util.h"
#include "protobuf_api/protobuf_util_log.h"

namespace PROTOBUF_UTIL {
namespace {

using google::protobuf::Descriptor;
using google::protobuf::FieldDescriptor;
using google::protobuf::FileDescriptor;
using google::protobuf::Message;
using google::protobuf::Reflection;
using google::protobuf::io::ArrayOutputStream;
using google::protobuf::io::CodedOutputStream;
using google::protobuf::internal::WireFormat;
using google::protobuf::internal::WireFormatLite;

// Longest key the service accepts: two bytes below the 1024-byte szKey of
// tagtbl_idl.
constexpr int kMaxKeyBytes = 1022;

// Output capacity handed to the cipher suite: all of idl->szValue.
constexpr int kCipherCapacity = static_cast<int>(sizeof(tagtbl_idl::szValue));

// Key fields kept without touching the heap; tables with more key fields
// than this are rare enough to pay for a vector.
constexpr size_t kInlineKeyFields = 16;

std::string_view TrimView(std::string_view s) {
    while (!s.empty() && isWhitespace(s.front())) s.remove_prefix(1);
    while (!s.empty() && isWhitespace(s.back())) s.remove_suffix(1);
    return s;
}

// Yields, as views into text, exactly the tokens that TokenSplit(text, ",",
// vec) appends: trimmed, empty ones between delimiters kept, none for a
// trailing delimiter, one empty token for a tail of white space alone.
class KeyNameTokens {
public:
    explicit KeyNameTokens(const std::string& text) : m_text(text) {}

    bool Next(std::string_view* token) {
        if (m_done) return false;
        const size_t index = m_text.find(',', m_last);
        if (index != std::string_view::npos) {
            *token = TrimView(m_text.substr(m_last, index - m_last));
            m_last = index + 1;
            return true;
        }
        m_done = true;
        if (m_last >= m_text.size()) return false;
        *token = TrimView(m_text.substr(m_last));
        return true;
    }

private:
    std::string_view m_text;
    size_t m_last = 0;
    bool m_done = false;
};

// FindFieldByName wants a std::string; a per-thread scratch string that keeps
// its capacity turns the lookup of an ordinary name into a copy without
// allocation.
const FieldDescriptor* FindFieldByToken(const Descriptor* desc, std::string_view token) {
    thread_local std::string scratch;
    scratch.assign(token.data(), token.size());
    return desc->FindFieldByName(scratch);
}

// The key field descriptors of one call: a fixed array, spilled into a
// vector only for unusually many key fields.
class KeyFieldList {
public:
    void Add(const FieldDescriptor* field) {
        if (m_spill.empty() && m_count < kInlineKeyFields) {
            m_inline[m_count++] = field;
            return;
        }
        if (m_spill.empty()) m_spill.assign(m_inline, m_inline + m_count);
        m_spill.push_back(field);
    }

    const FieldDescriptor** begin() { return m_spill.empty() ? m_inline : m_spill.data(); }
    const FieldDescriptor** end() { return begin() + (m_spill.empty() ? m_count : m_spill.size()); }

    // Ascending field number. The functor only keeps a reference to the
    // vector it is built over and never reads it, so the (possibly empty)
    // spill vector serves for the inline array too.
    void SortByNumber() { std::sort(begin(), end(), _FieldDescPtrFunctor(m_spill)); }

private:
    const FieldDescriptor* m_inline[kInlineKeyFields];
    size_t m_count = 0;
    std::vector<const FieldDescriptor*> m_spill;
};

// What both key encoders need once the message has been checked.
struct KeySource {
    const Message* msg;
    const Descriptor* desc;
    const Reflection* reflection;
    CipherSuite* suite;  // null when the table names no cipher suite
};

// The checks that come before any key field: arguments, reflection, and the
// table's cipher suite with its key digest. Returns 0, -1, -2, -3 or -4.
// Lines are logged in the name of `func`, the calling operation.
int OpenKeySource(const char* func, CorvidaKVApi* pKVApi, const Message& msg, tagtbl_idl* idl,
                  LPPLOGCATEGORYINST log, KeySource* source) {
    const Descriptor* desc = msg.GetDescriptor();
    if (idl == nullptr || desc == nullptr || log == nullptr) return -1;
    const Reflection* reflection = msg.GetReflection();
    if (reflection == nullptr) {
        PBU_LOG_IN(func, log, PLOG_PRIORITY_ERROR, "reflection param is null.");
        return -2;
    }
    *source = KeySource{&msg, desc, reflection, nullptr};

    const google::protobuf::MessageOptions& options = desc->options();
    const std::string& suite_name = options.GetExtension(corvidaservice::corvida_field_cipher_suite);
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
    const std::string& meta_md5 = options.GetExtension(corvidaservice::corvida_cipher_md5);
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

// Writes one key field: encrypted when it is a string or bytes field marked
// corvida_crypto (a mark on any other type is ignored), otherwise in plain,
// a proto3 field holding its default value included so that every key field
// contributes its tag. Returns 0, -6 or -7.
int WriteKeyField(const FieldDescriptor* field, const KeySource& source, tagtbl_idl* idl, CodedOutputStream* output) {
    if (field->cpp_type() == FieldDescriptor::CPPTYPE_STRING &&
        field->options().GetExtension(corvidaservice::corvida_crypto)) {
        return WriteEncryptedField(field, source, idl, output);
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

// Publishes the key once every field is written: size (the capacity of buf
// until now) becomes the key length; -10 beyond kMaxKeyBytes, else 0 with the
// key logged at trace priority in the name of `func`, the calling operation.
int FinishKey(const char* func, CodedOutputStream* output, const uint8_t* buf, int32_t& size,
              LPPLOGCATEGORYINST log) {
    const int32_t capacity = size;
    // The stream may still hold the tail of the key in its own buffer.
    output->Trim();
    size = output->ByteCount();
    if (size > kMaxKeyBytes) {
        PBU_LOG_IN(func, log, PLOG_PRIORITY_ERROR, "key byte count:%d exceed max:%d", size, kMaxKeyBytes);
        return -10;
    }
    PBU_LOG_IN(func, log, PLOG_PRIORITY_TRACE, "msg key len(%d)", size);
    // Once buf is full the stream's byte count stops matching what buf holds
    // (it may even pass the capacity or go negative): dump only bytes of buf.
    PBU_LOG_HEX_IN(func, log, PLOG_PRIORITY_TRACE, buf, static_cast<size_t>(std::max(0, std::min(size, capacity))));
    return 0;
}

// The descriptors of the fields named by corvida_primary_key, in the
// option's order. Returns 0, or -5 when a name (an empty one included) is not
// a field.
int CollectPrimaryKeyFields(const Descriptor* desc, KeyFieldList* fields) {
    KeyNameTokens tokens(desc->options().GetExtension(corvidaservice::corvida_primary_key));
    std::string_view token;
    while (tokens.Next(&token)) {
        const FieldDescriptor* field = FindFieldByToken(desc, token);
        if (field == nullptr) return -5;
        fields->Add(field);
    }
    return 0;
}

}  // namespace

int ProtobufUtil::ExtractMsgKey(CorvidaKVApi* pKVApi, const Message& msg, uint8_t* buf, int32_t& size,
                                tagtbl_idl* idl, LPPLOGCATEGORYINST log, bool bCheck) {
    KeySource source{};
    int ret = OpenKeySource(__func__, pKVApi, msg, idl, log, &source);
    if (ret != 0) return ret;

    KeyFieldList fields;
    ret = CollectPrimaryKeyFields(source.desc, &fields);
    if (ret != 0) return ret;

    ArrayOutputStream array(buf, size, -1);
    CodedOutputStream output(&array);
    // Key bytes must not depend on the order the option lists the names in.
    fields.SortByNumber();
    for (const FieldDescriptor* field : fields) {
        const int before = output.ByteCount();
        ret = WriteKeyField(field, source, idl, &output);
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

int ProtobufUtil::GetMsgKeyNames(const Message& msg, std::set<std::string>& setKeyNames) {
    const Descriptor* desc = msg.GetDescriptor();
    if (desc == nullptr) return -1;
    KeyNameTokens tokens(desc->options().GetExtension(corvidaservice::corvida_primary_key));
    std::string_view token;
    while (tokens.Next(&token)) {
        if (FindFieldByToken(desc, token) == nullptr) return -2;
        setKeyNames.emplace(token);
    }
    return 0;
}

int ProtobufUtil::ExtractFieldKey(CorvidaKVApi* pKVApi, const Message& msg, const std::vector<int>& vecFields,
                                  uint8_t* buf, int32_t& size, tagtbl_idl* idl, LPPLOGCATEGORYINST log) {
    KeySource source{};
    int ret = OpenKeySource(__func__, pKVApi, msg, idl, log, &source);
    if (ret != 0) return ret;

    ArrayOutputStream array(buf, size, -1);
    CodedOutputStream output(&array);
    for (const int number : vecFields) {
        const FieldDescriptor* field = source.desc->FindFieldByNumber(number);
        if (field == nullptr) {
            PBU_LOG_ERROR(log, "field num:%u not found.", static_cast<unsigned>(number));
            continue;
        }
        const int before = output.ByteCount();
        ret = WriteKeyField(field, source, idl, &output);
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

}  // namespace PROTOBUF_UTIL
