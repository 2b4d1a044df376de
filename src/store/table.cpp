#include "store/table.h"

#include <algorithm>
#include <map>
#include <utility>

#include <google/protobuf/descriptor.h>
#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/io/zero_copy_stream_impl_lite.h>
#include <google/protobuf/wire_format.h>
#include <rocksdb/iterator.h>
#include <rocksdb/write_batch.h>

#include "corvidaservice.optionv1.pb.h"
#include "protobuf_api/protobuf_util.h"
#include "store/key_layout.h"
#include "store/record_codec.h"
#include "store/store_core.h"

namespace corvida {
namespace store {

namespace {

using google::protobuf::Descriptor;
using google::protobuf::FieldDescriptor;
using google::protobuf::Message;
using PROTOBUF_UTIL::ProtobufUtil;

// Largest record (its protobuf size) that a write takes: well inside the
// value set that carries its fields to the store.
constexpr size_t kMaxRecordBytes = 8u << 20;

// An index of the table, or its shard listing: the entries that map the
// values of some fields (a field key) to primary keys.
struct Secondary {
    char space;               // layout::kIndex or layout::kShard
    std::string name;         // the index's name; empty for the shard listing
    std::vector<int> fields;  // field numbers, in the order of the key

    bool Covers(int number) const { return std::find(fields.begin(), fields.end(), number) != fields.end(); }
    std::string What(const std::string& table) const {
        return "table " + table + ": " + (space == layout::kIndex ? "index " + name : std::string("sharding key"));
    }
};

// One requested dotted path, resolved against the client type.
struct ResolvedPath {
    std::string dotted;
    std::string tag_path;
    std::vector<int> numbers;
    const FieldDescriptor* top = nullptr;   // the top-level field
    const FieldDescriptor* last = nullptr;  // the field the path names
};

// The first number of a tag path, or -1.
int FirstNumber(std::string_view tag_path) {
    int number = 0;
    size_t i = 0;
    for (; i < tag_path.size() && tag_path[i] >= '0' && tag_path[i] <= '9' && i < 9; ++i) {
        number = number * 10 + (tag_path[i] - '0');
    }
    if (i == 0 || (i < tag_path.size() && tag_path[i] != '.')) return -1;
    return number;
}

// True when one tag path is the other or lies under it.
bool OnSameBranch(std::string_view a, std::string_view b) {
    if (a.size() > b.size()) std::swap(a, b);
    return b.compare(0, a.size(), a) == 0 && (b.size() == a.size() || b[a.size()] == '.');
}

// Copies the listed fields of from into to (the same type): singular ones
// with reflection's setters, repeated ones through their serialization
// (cached sizes of from must then be current).
void CopyFields(const Message& from, const std::vector<const FieldDescriptor*>& fields, Message* to) {
    const google::protobuf::Reflection* in = from.GetReflection();
    const google::protobuf::Reflection* out = to->GetReflection();
    for (const FieldDescriptor* field : fields) {
        if (field->is_repeated()) {
            std::string bytes;
            SerializeRepeatedField(from, field, &bytes);
            to->MergeFromString(bytes);
            continue;
        }
        if (!field->has_presence() || in->HasField(from, field)) {
            switch (field->cpp_type()) {
                case FieldDescriptor::CPPTYPE_INT32: out->SetInt32(to, field, in->GetInt32(from, field)); break;
                case FieldDescriptor::CPPTYPE_INT64: out->SetInt64(to, field, in->GetInt64(from, field)); break;
                case FieldDescriptor::CPPTYPE_UINT32: out->SetUInt32(to, field, in->GetUInt32(from, field)); break;
                case FieldDescriptor::CPPTYPE_UINT64: out->SetUInt64(to, field, in->GetUInt64(from, field)); break;
                case FieldDescriptor::CPPTYPE_DOUBLE: out->SetDouble(to, field, in->GetDouble(from, field)); break;
                case FieldDescriptor::CPPTYPE_FLOAT: out->SetFloat(to, field, in->GetFloat(from, field)); break;
                case FieldDescriptor::CPPTYPE_BOOL: out->SetBool(to, field, in->GetBool(from, field)); break;
                case FieldDescriptor::CPPTYPE_ENUM: out->SetEnumValue(to, field, in->GetEnumValue(from, field)); break;
                case FieldDescriptor::CPPTYPE_STRING: out->SetString(to, field, in->GetString(from, field)); break;
                case FieldDescriptor::CPPTYPE_MESSAGE:
                    out->MutableMessage(to, field)->CopyFrom(in->GetMessage(from, field));
                    break;
            }
        }
    }
}

// Clears every field of msg that no requested path reaches; paths are the
// tag numbers of the requested paths from depth on. Top-level key fields
// stay.
void KeepOnly(Message* msg, const std::vector<const std::vector<int>*>& paths, size_t depth,
              const std::vector<const FieldDescriptor*>& keep) {
    std::vector<const FieldDescriptor*> set_fields;
    msg->GetReflection()->ListFields(*msg, &set_fields);
    for (const FieldDescriptor* field : set_fields) {
        if (std::find(keep.begin(), keep.end(), field) != keep.end()) continue;
        std::vector<const std::vector<int>*> below;
        bool whole = false;
        for (const std::vector<int>* path : paths) {
            if ((*path)[depth] != field->number()) continue;
            if (path->size() == depth + 1) whole = true;
            below.push_back(path);
        }
        if (whole) continue;
        if (below.empty() || field->cpp_type() != FieldDescriptor::CPPTYPE_MESSAGE || field->is_repeated()) {
            msg->GetReflection()->ClearField(msg, field);
        } else {
            KeepOnly(msg->GetReflection()->MutableMessage(msg, field), below, depth + 1, {});
        }
    }
}

// True when field of msg would add no bytes to a field key, which
// ExtractFieldKey refuses (-9) after logging an error: a repeated field
// without elements, or an unset field of a proto2 file written in plain (an
// encrypted one adds the ciphertext of the empty value).
bool AddsNoKeyBytes(const Message& msg, const FieldDescriptor* field) {
    const google::protobuf::Reflection* reflection = msg.GetReflection();
    if (field->is_repeated()) return reflection->FieldSize(msg, field) == 0;
    return !IsEncryptedKeyField(field) && field->file()->syntax() != google::protobuf::FileDescriptor::SYNTAX_PROTO3 &&
           !reflection->HasField(msg, field);
}

// The Status of a key encoder's failure. what names the key ("table T:
// primary key").
Status KeyError(const std::string& what, int ret, const Descriptor* desc) {
    const std::string& suite = desc->options().GetExtension(corvidaservice::corvida_field_cipher_suite);
    std::string why;
    switch (ret) {
        case -3: why = "cipher suite '" + suite + "' is not configured in the client's CorvidaKVApi"; break;
        case -4:
            why = "the key of cipher suite '" + suite + "' does not match the table's corvida_cipher_md5 (a wrong cipher key)";
            break;
        case -5: why = "a name in corvida_primary_key is not a field"; break;
        case -6: why = "a key field is marked corvida_crypto but the table names no cipher suite"; break;
        case -7: why = "cipher suite '" + suite + "' failed to encrypt a key field"; break;
        case -9: why = "a key field is not set"; break;
        case -10: why = "the key is longer than 1022 bytes"; break;
        default: why = "the key cannot be built"; break;
    }
    return Status::InvalidArgument(what + ": " + why + " (result " + std::to_string(ret) + ")", ret);
}

// The bytes of one stored field for a write, and its tag path.
struct FieldWrite {
    std::string tag_path;
    std::string_view bytes;
};

}  // namespace

// ---------------------------------------------------------------------------
// The table's state: fixed when it is opened, only read afterwards.
// ---------------------------------------------------------------------------

class Table::Impl {
public:
    Impl(std::shared_ptr<TableStore::Core> core, std::string name, uint32_t id, const Message& prototype,
         CORVIDA_KV::CorvidaKVApi* kv)
        : m_core(std::move(core)),
          m_name(std::move(name)),
          m_id(id),
          m_prototype(prototype),
          m_desc(prototype.GetDescriptor()),
          m_kv(kv) {}

    Status Load(const std::string& blob);

    Status Put(const Message& record);
    Status Update(const Message& record, const std::vector<std::string>& paths);
    Status Get(const Message& key, const std::vector<std::string>& paths, Message* out,
               std::set<std::string>* failed_paths);
    Status Delete(const Message& key);
    Status FindByIndex(std::string_view index, const Message& index_fields, std::vector<Record>* records,
                       size_t limit);
    Status Scan(const Message* shard, size_t limit, std::vector<Record>* records);
    Status Verify();

    const std::string& name() const { return m_name; }
    const Message& prototype() const { return m_prototype; }
    std::vector<std::string> IndexNames() const;
    bool HasShardingKey() const { return m_shard != nullptr; }

private:
    // The stored state of one row that a write needs.
    struct Row {
        explicit Row(bool for_write) : for_write(for_write) { fields.reserve(32); }

        bool for_write;                      // a write needs every tag path
        bool exists = false;
        std::vector<std::string> tag_paths;  // every stored field's tag path, for a write
        std::vector<StoredField> fields;     // those a filter kept
    };

    Status CheckType(const Message& msg, const char* what) const;
    Status PrimaryKey(const Message& msg, Scratch* scratch, std::string* pk) const;
    // Field key of secondary of msg into *key; *present false when the fields
    // cannot form a key (one adds no bytes): the record has no entry.
    Status SecondaryKey(const Message& msg, const Secondary& secondary, Scratch* scratch, std::string* key,
                        bool* present) const;
    Status ResolvePaths(const std::vector<std::string>& paths, bool for_write, std::vector<ResolvedPath>* out) const;

    // Reads the fields of row row_key from it (positioned anywhere): every
    // tag path, and the fields keep accepts.
    template <typename Keep>
    Status ReadRow(rocksdb::Iterator* it, const std::string& row_key, Keep keep, Row* row) const;
    // What a whole-record write (Put, Delete) needs of the stored row: every
    // tag path, and the fields of the indexes and the shard listing.
    Status ReadOldRow(const std::string& row_key, Row* row) const {
        std::unique_ptr<rocksdb::Iterator> it(m_core->db()->NewIterator(rocksdb::ReadOptions()));
        return ReadRow(it.get(), row_key, [this](std::string_view tag) { return IsSecondaryField(tag); }, row);
    }
    // The record of primary key pk read in full from it, key fields parsed
    // back from pk. kNotFound when the row is missing.
    Status ReadRecord(rocksdb::Iterator* it, std::string_view pk, Record* record) const;
    // A message holding base's key fields and the stored fields of row.
    std::unique_ptr<Message> View(const Message& base, const std::vector<StoredField>& fields) const;
    // Stages the moves of the secondary entries of `affected` from old (null:
    // no old record) to now (null: record removed).
    Status StageSecondaries(const std::vector<const Secondary*>& affected, const std::string& pk, const Message* old,
                            const Message* now, Scratch* scratch, rocksdb::WriteBatch* batch) const;
    Status Write(rocksdb::WriteBatch* batch, const char* what) const;
    // Appends the primary keys of the table's rows, in key order, to *pks (at
    // most limit when limit > 0).
    Status RowKeys(rocksdb::Iterator* it, size_t limit, std::vector<std::string>* pks) const;
    // Reads the records of pks. secondary: the entries they came from, whose
    // record must exist.
    Status ReadRecords(rocksdb::Iterator* it, const std::vector<std::string>& pks, const Secondary* secondary,
                       std::vector<Record>* records) const;
    // The records whose secondary fields equal those of fields.
    Status ReadSecondary(const Secondary& secondary, const Message& fields, size_t limit,
                         std::vector<Record>* records) const;
    // Stored fields of a row kept when only secondary fields are needed.
    bool IsSecondaryField(std::string_view tag_path) const {
        const int number = FirstNumber(tag_path);
        return std::find(m_secondary_numbers.begin(), m_secondary_numbers.end(), number) !=
               m_secondary_numbers.end();
    }

    std::shared_ptr<TableStore::Core> m_core;
    std::string m_name;
    uint32_t m_id;
    const Message& m_prototype;
    const Descriptor* m_desc;
    CORVIDA_KV::CorvidaKVApi* m_kv;
    PROTOBUF_UTIL::MsgDescGroup m_group;

    std::set<std::string> m_key_names;
    std::vector<const FieldDescriptor*> m_key_fields;
    std::set<std::string> m_put_paths;                      // top-level singular fields outside the key
    std::vector<const FieldDescriptor*> m_repeated_fields;  // top-level repeated fields and maps
    std::vector<Secondary> m_secondaries;                   // indexes by name, then the shard listing
    const Secondary* m_shard = nullptr;
    std::vector<const Secondary*> m_all;   // every one of m_secondaries
    std::vector<int> m_secondary_numbers;  // every field number of m_secondaries
};

Status Table::Impl::Load(const std::string& blob) {
    ErrorLines errors;
    if (PROTOBUF_UTIL::FillMessageGroup(m_name, blob, &m_group, errors.category()) == nullptr) {
        return Status::Corruption("table " + m_name + ": the stored schema blob no longer loads: " +
                                  (errors.text().empty() ? "the table's type is missing" : errors.text()));
    }
    ErrorLines compare;
    const int code = PROTOBUF_UTIL::GetMetaAndCompare(m_name, blob, m_desc, compare.category());
    if (code != 0) {
        return Status::IncompatibleSchema(code, "table " + m_name + ": the client's type " + m_desc->full_name() +
                                                    " is incompatible with the stored schema (result " +
                                                    std::to_string(code) + "): " + compare.text());
    }
    // A client whose cipher suite is missing or holds another key builds no
    // key of the table, and could not decrypt the stored ones: the key
    // encoder's own check (it comes before any field) refuses it now.
    {
        ScratchPool::Lease scratch = m_core->scratch().Acquire();
        uint8_t buf[1024];
        int32_t size = sizeof(buf);
        m_prototype.ByteSizeLong();
        const int ret =
            ProtobufUtil::ExtractMsgKey(m_kv, m_prototype, buf, size, scratch->idl.get(), m_core->log(), false);
        if (ret == -3 || ret == -4) return KeyError("table " + m_name + ": primary key", ret, m_desc);
    }
    if (ProtobufUtil::GetMsgKeyNames(m_prototype, m_key_names) != 0) {
        return Status::InvalidArgument("table " + m_name + ": corvida_primary_key names a missing field");
    }
    for (int i = 0; i < m_desc->field_count(); ++i) {
        const FieldDescriptor* field = m_desc->field(i);
        if (m_key_names.count(field->name()) != 0) {
            m_key_fields.push_back(field);
        } else if (field->is_repeated()) {
            m_repeated_fields.push_back(field);
        } else {
            m_put_paths.insert(field->name());
        }
    }
    if (m_put_paths.size() > MAX_DBFIELD_NUM) {
        return Status::NotSupported("table " + m_name + ": more than 256 top-level fields outside the key");
    }

    // Index fields in the order the declaration names them (the group keeps
    // them in field-number order): the order of their field key.
    const google::protobuf::MessageOptions& options = m_group.m_desc->options();
    std::map<std::string, std::vector<int>> declared;
    for (int i = 0; i < options.ExtensionSize(corvidaservice::corvida_index); ++i) {
        std::string index_name;
        std::string index_fields;
        PROTOBUF_UTIL::getIndexInfo(options.GetExtension(corvidaservice::corvida_index, i), index_name, index_fields);
        std::vector<std::string> names;
        PROTOBUF_UTIL::TokenSplit(index_fields, ",", names);
        for (const std::string& field_name : names) {
            declared[index_name].push_back(m_group.m_desc->FindFieldByName(field_name)->number());
        }
    }
    for (const auto& index : declared) m_secondaries.push_back(Secondary{layout::kIndex, index.first, index.second});
    if (!m_group.vecSplitKeyTag.empty()) {
        m_secondaries.push_back(Secondary{layout::kShard, "", m_group.vecSplitKeyTag});
        m_shard = &m_secondaries.back();
    }
    for (const Secondary& secondary : m_secondaries) {
        m_all.push_back(&secondary);
        for (int number : secondary.fields) {
            if (m_desc->FindFieldByNumber(number) == nullptr) {
                return Status::IncompatibleSchema(0, secondary.What(m_name) + ": field " + std::to_string(number) +
                                                         " is missing in the client's type " + m_desc->full_name());
            }
            m_secondary_numbers.push_back(number);
        }
    }
    return Status::OK();
}

std::vector<std::string> Table::Impl::IndexNames() const {
    std::vector<std::string> names;
    for (const Secondary& secondary : m_secondaries) {
        if (secondary.space == layout::kIndex) names.push_back(secondary.name);
    }
    return names;
}

Status Table::Impl::CheckType(const Message& msg, const char* what) const {
    if (msg.GetDescriptor() == m_desc) return Status::OK();
    return Status::InvalidArgument("table " + m_name + ": " + what + " is a " + msg.GetDescriptor()->full_name() +
                                   ", not a " + m_desc->full_name());
}

Status Table::Impl::PrimaryKey(const Message& msg, Scratch* scratch, std::string* pk) const {
    msg.ByteSizeLong();  // the key encoders write with cached sizes
    uint8_t buf[1024];
    int32_t size = sizeof(buf);
    const int ret = ProtobufUtil::ExtractMsgKey(m_kv, msg, buf, size, scratch->idl.get(), m_core->log(), true);
    if (ret == -9) {
        // Name a key field that added nothing.
        for (const FieldDescriptor* field : m_key_fields) {
            if (AddsNoKeyBytes(msg, field)) {
                return Status::InvalidArgument("table " + m_name + ": primary key: key field " + field->name() +
                                                   " is not set (result -9)",
                                               ret);
            }
        }
    }
    if (ret != 0) return KeyError("table " + m_name + ": primary key", ret, m_desc);
    pk->assign(reinterpret_cast<const char*>(buf), size);
    return Status::OK();
}

Status Table::Impl::SecondaryKey(const Message& msg, const Secondary& secondary, Scratch* scratch, std::string* key,
                                 bool* present) const {
    // Checked first, so that a record outside a sparse index costs no error
    // line in the caller's log.
    *present = false;
    for (int number : secondary.fields) {
        if (AddsNoKeyBytes(msg, m_desc->FindFieldByNumber(number))) return Status::OK();
    }
    uint8_t buf[1024];
    int32_t size = sizeof(buf);
    const int ret =
        ProtobufUtil::ExtractFieldKey(m_kv, msg, secondary.fields, buf, size, scratch->idl.get(), m_core->log());
    if (ret != 0) return KeyError(secondary.What(m_name), ret, m_desc);
    *present = true;
    key->assign(reinterpret_cast<const char*>(buf), size);
    return Status::OK();
}

Status Table::Impl::ResolvePaths(const std::vector<std::string>& paths, bool for_write,
                                 std::vector<ResolvedPath>* out) const {
    for (const std::string& dotted : paths) {
        ResolvedPath path;
        path.dotted = dotted;
        std::vector<std::string> names;
        PROTOBUF_UTIL::TokenSplit(dotted, ".", names);
        const Descriptor* desc = m_desc;
        for (size_t i = 0; i < names.size(); ++i) {
            if (desc == nullptr) {
                return Status::InvalidArgument("table " + m_name + ": path '" + dotted + "': field " +
                                               path.last->full_name() + " is not a message, so it has no field '" +
                                               names[i] + "'");
            }
            const FieldDescriptor* field = desc->FindFieldByName(names[i]);
            if (field == nullptr) {
                return Status::InvalidArgument("table " + m_name + ": path '" + dotted + "': " + desc->full_name() +
                                               " has no field '" + names[i] + "'");
            }
            if (field->is_repeated() && i + 1 < names.size()) {
                return Status::InvalidArgument("table " + m_name + ": path '" + dotted +
                                               "' goes into repeated field " + field->name() +
                                               "; name the field whole");
            }
            if (i == 0) path.top = field;
            path.last = field;
            path.numbers.push_back(field->number());
            if (!path.tag_path.empty()) path.tag_path += '.';
            path.tag_path += std::to_string(field->number());
            desc = field->message_type();
        }
        if (path.top == nullptr) return Status::InvalidArgument("table " + m_name + ": an empty path");
        if (for_write && m_key_names.count(path.top->name()) != 0) {
            return Status::InvalidArgument("table " + m_name + ": path '" + dotted +
                                           "' is a key field; a key field cannot be updated");
        }
        out->push_back(std::move(path));
    }
    return Status::OK();
}

template <typename Keep>
Status Table::Impl::ReadRow(rocksdb::Iterator* it, const std::string& row_key, Keep keep, Row* row) const {
    for (it->Seek(row_key); it->Valid() && it->key().starts_with(row_key); it->Next()) {
        row->exists = true;
        const std::string_view tag_path(it->key().data() + row_key.size(), it->key().size() - row_key.size());
        if (tag_path.empty()) continue;  // the row marker
        if (row->for_write) row->tag_paths.emplace_back(tag_path);
        if (keep(tag_path)) row->fields.push_back(StoredField{std::string(tag_path), it->value().ToString()});
    }
    return FromRocks(it->status(), "table " + m_name + ": reading a record");
}

Status Table::Impl::ReadRecord(rocksdb::Iterator* it, std::string_view pk, Record* record) const {
    Row row(false);
    Status status = ReadRow(it, layout::RowKey(m_id, pk), [](std::string_view) { return true; }, &row);
    if (!status.ok()) return status;
    if (!row.exists) return Status::NotFound("table " + m_name + ": no record");
    record->message.reset(m_prototype.New());
    std::string why;
    if (!ParsePrimaryKey(pk, m_kv, record->message.get(), &why)) {
        return Status::Corruption("table " + m_name + ": a stored primary key does not parse: " + why);
    }
    MergeStoredFields(row.fields, record->message.get(), &record->failed_paths, m_core->log());
    return Status::OK();
}

std::unique_ptr<Message> Table::Impl::View(const Message& base, const std::vector<StoredField>& fields) const {
    std::unique_ptr<Message> view(m_prototype.New());
    CopyFields(base, m_key_fields, view.get());
    std::set<std::string> ignored;  // a field that does not merge reads as absent, here as in Get
    MergeStoredFields(fields, view.get(), &ignored, m_core->log());
    view->ByteSizeLong();
    return view;
}

Status Table::Impl::StageSecondaries(const std::vector<const Secondary*>& affected, const std::string& pk,
                                     const Message* old, const Message* now, Scratch* scratch,
                                     rocksdb::WriteBatch* batch) const {
    std::string old_key;
    std::string new_key;
    for (const Secondary* secondary : affected) {
        bool had = false;
        bool has = false;
        Status status = old != nullptr ? SecondaryKey(*old, *secondary, scratch, &old_key, &had) : Status::OK();
        if (status.ok() && now != nullptr) status = SecondaryKey(*now, *secondary, scratch, &new_key, &has);
        if (!status.ok()) return status;
        if (had && has && old_key == new_key) continue;
        if (had) batch->Delete(layout::SecondaryPrefix(secondary->space, m_id, secondary->name, old_key) + pk);
        if (has) batch->Put(layout::SecondaryPrefix(secondary->space, m_id, secondary->name, new_key) + pk, "");
    }
    return Status::OK();
}

Status Table::Impl::Write(rocksdb::WriteBatch* batch, const char* what) const {
    const rocksdb::Status s = m_core->db()->Write(m_core->write_options(), batch);
    return s.ok() ? Status::OK() : FromRocks(s, "table " + m_name + ": " + what);
}

Status Table::Impl::Put(const Message& record) {
    Status status = CheckType(record, "the record");
    if (!status.ok()) return status;
    if (record.ByteSizeLong() > kMaxRecordBytes) {
        return Status::InvalidArgument("table " + m_name + ": the record is larger than 8 MiB");
    }
    ScratchPool::Lease scratch = m_core->scratch().Acquire();
    std::string pk;
    status = PrimaryKey(record, scratch.operator->(), &pk);
    if (!status.ok()) return status;

    // Every top-level field outside the key: the singular ones cut by the
    // bridge (an unset one as a record of no bytes), the repeated ones and
    // maps as protobuf serializes them.
    const int cut = PROTOBUF_UTIL::FillValueSetWithMsg(const_cast<Message*>(&record), m_key_names, m_put_paths,
                                                       *scratch->values, m_core->log());
    if (cut != 0) {
        return Status::InvalidArgument("table " + m_name + ": the record cannot be cut into fields (result " +
                                           std::to_string(cut) + ")",
                                       cut);
    }
    std::vector<CorvidaCommon::PbValueSetBuffer::Field> cut_fields;
    CorvidaCommon::PbValueSetBuffer reader(scratch->values.get(), scratch->values->iVersion_, m_core->log());
    if (reader.GetFields(cut_fields) != 0) return Status::Corruption("table " + m_name + ": a cut value set is unreadable");
    std::vector<std::string> repeated_bytes(m_repeated_fields.size());
    for (size_t i = 0; i < m_repeated_fields.size(); ++i) {
        SerializeRepeatedField(record, m_repeated_fields[i], &repeated_bytes[i]);
    }
    std::vector<FieldWrite> writes;
    writes.reserve(cut_fields.size() + m_repeated_fields.size());
    for (const auto& field : cut_fields) writes.push_back(FieldWrite{field.path, {field.buf, size_t(field.buf_len)}});
    for (size_t i = 0; i < m_repeated_fields.size(); ++i) {
        writes.push_back(FieldWrite{std::to_string(m_repeated_fields[i]->number()), repeated_bytes[i]});
    }

    const std::string row_key = layout::RowKey(m_id, pk);
    std::lock_guard<std::mutex> lock(m_core->locks().For(m_id, pk));
    Row row(true);
    status = ReadOldRow(row_key, &row);
    if (!status.ok()) return status;

    rocksdb::WriteBatch batch;
    std::string key = row_key;
    for (const std::string& tag_path : row.tag_paths) {
        const bool rewritten = std::any_of(writes.begin(), writes.end(),
                                           [&tag_path](const FieldWrite& w) { return w.tag_path == tag_path; });
        if (rewritten) continue;
        key.resize(row_key.size());
        batch.Delete(key.append(tag_path));
    }
    batch.Put(row_key, "");
    for (const FieldWrite& write : writes) {
        key.resize(row_key.size());
        batch.Put(key.append(write.tag_path), rocksdb::Slice(write.bytes.data(), write.bytes.size()));
    }
    std::unique_ptr<Message> old = row.exists && !m_all.empty() ? View(record, row.fields) : nullptr;
    status = StageSecondaries(m_all, pk, old.get(), &record, scratch.operator->(), &batch);
    if (!status.ok()) return status;
    return Write(&batch, "writing a record");
}

Status Table::Impl::Update(const Message& record, const std::vector<std::string>& paths) {
    Status status = CheckType(record, "the record");
    if (!status.ok()) return status;
    if (paths.empty()) return Status::InvalidArgument("table " + m_name + ": Update without paths");
    std::vector<ResolvedPath> resolved;
    status = ResolvePaths(paths, true, &resolved);
    if (!status.ok()) return status;
    if (record.ByteSizeLong() > kMaxRecordBytes) {
        return Status::InvalidArgument("table " + m_name + ": the record is larger than 8 MiB");
    }

    // The bridge creates the unset sub-messages on a path in the message it
    // cuts from; such paths are cut from a copy so that record stays as it is.
    std::set<std::string> singular_paths;
    std::vector<const FieldDescriptor*> repeated;
    bool copy = false;
    for (const ResolvedPath& path : resolved) {
        if (path.top->is_repeated()) {
            if (std::find(repeated.begin(), repeated.end(), path.top) == repeated.end()) repeated.push_back(path.top);
            continue;
        }
        singular_paths.insert(path.dotted);
        const Message* at = &record;
        for (size_t i = 0; i + 1 < path.numbers.size() && !copy; ++i) {
            const FieldDescriptor* field = at->GetDescriptor()->FindFieldByNumber(path.numbers[i]);
            copy = !at->GetReflection()->HasField(*at, field);
            at = &at->GetReflection()->GetMessage(*at, field);
        }
    }
    std::unique_ptr<Message> copied;
    if (copy) {
        copied.reset(record.New());
        copied->CopyFrom(record);
    }
    Message* source = copy ? copied.get() : const_cast<Message*>(&record);

    ScratchPool::Lease scratch = m_core->scratch().Acquire();
    std::string pk;
    status = PrimaryKey(*source, scratch.operator->(), &pk);
    if (!status.ok()) return status;
    const int cut =
        PROTOBUF_UTIL::FillValueSetWithMsg(source, m_key_names, singular_paths, *scratch->values, m_core->log());
    if (cut != 0) {
        ErrorLines errors;  // the same cut again, for the bridge's reason
        PROTOBUF_UTIL::FillValueSetWithMsg(source, m_key_names, singular_paths, *scratch->values, errors.category());
        return Status::InvalidArgument("table " + m_name + ": the paths cannot be cut (result " +
                                           std::to_string(cut) + "): " + errors.text(),
                                       cut);
    }
    std::vector<CorvidaCommon::PbValueSetBuffer::Field> cut_fields;
    CorvidaCommon::PbValueSetBuffer reader(scratch->values.get(), scratch->values->iVersion_, m_core->log());
    if (reader.GetFields(cut_fields) != 0) return Status::Corruption("table " + m_name + ": a cut value set is unreadable");
    std::vector<StoredField> writes;
    writes.reserve(cut_fields.size() + repeated.size());
    for (const auto& field : cut_fields) writes.push_back(StoredField{field.path, std::string(field.buf, field.buf_len)});
    for (const FieldDescriptor* field : repeated) {
        writes.push_back(StoredField{std::to_string(field->number()), ""});
        SerializeRepeatedField(*source, field, &writes.back().bytes);
    }

    const std::string row_key = layout::RowKey(m_id, pk);
    std::lock_guard<std::mutex> lock(m_core->locks().For(m_id, pk));
    std::string marker;
    rocksdb::Status s = m_core->db()->Get(rocksdb::ReadOptions(), row_key, &marker);
    if (!s.ok() && !s.IsNotFound()) return FromRocks(s, "table " + m_name + ": reading a record");
    const bool exists = s.ok();

    // The secondaries whose fields the update writes; every one for a new
    // record, which has had no entries so far.
    std::vector<const Secondary*> affected;
    for (const Secondary& secondary : m_secondaries) {
        const bool touched = std::any_of(resolved.begin(), resolved.end(), [&secondary](const ResolvedPath& path) {
            return secondary.Covers(path.top->number());
        });
        if (touched || !exists) affected.push_back(&secondary);
    }
    // Stored fields below a written sub-message are replaced by it.
    std::vector<std::string> below;
    for (const ResolvedPath& path : resolved) {
        if (path.last->cpp_type() == FieldDescriptor::CPPTYPE_MESSAGE && !path.last->is_repeated()) {
            below.push_back(path.tag_path);
        }
    }
    std::unique_ptr<rocksdb::Iterator> it;
    Row old_row(true);
    if (exists && (!affected.empty() || !below.empty())) {
        it.reset(m_core->db()->NewIterator(rocksdb::ReadOptions()));
        auto keep = [&affected](std::string_view tag) {
            const int number = FirstNumber(tag);
            return std::any_of(affected.begin(), affected.end(),
                               [number](const Secondary* secondary) { return secondary->Covers(number); });
        };
        status = ReadRow(it.get(), row_key, keep, &old_row);
        if (!status.ok()) return status;
    }

    rocksdb::WriteBatch batch;
    std::string key = row_key;
    if (!exists) batch.Put(row_key, "");
    for (const std::string& tag_path : old_row.tag_paths) {
        const bool replaced = std::any_of(below.begin(), below.end(), [&tag_path](const std::string& parent) {
            return tag_path.size() > parent.size() && OnSameBranch(tag_path, parent);
        });
        if (!replaced) continue;
        key.resize(row_key.size());
        batch.Delete(key.append(tag_path));
    }
    for (const StoredField& write : writes) {
        key.resize(row_key.size());
        batch.Put(key.append(write.tag_path), write.bytes);
    }
    if (!affected.empty()) {
        // The index fields after the update: the old ones with the update's
        // fields merged over them, as a later read will see them.
        std::unique_ptr<Message> old = exists ? View(*source, old_row.fields) : nullptr;
        std::unique_ptr<Message> now(m_prototype.New());
        if (old != nullptr) now->CopyFrom(*old);
        else CopyFields(*source, m_key_fields, now.get());
        std::vector<StoredField> affecting;
        for (const StoredField& write : writes) {
            const int number = FirstNumber(write.tag_path);
            for (const Secondary* secondary : affected) {
                if (secondary->Covers(number)) {
                    affecting.push_back(write);
                    break;
                }
            }
        }
        std::set<std::string> ignored;
        MergeStoredFields(affecting, now.get(), &ignored, m_core->log());
        now->ByteSizeLong();
        status = StageSecondaries(affected, pk, old.get(), now.get(), scratch.operator->(), &batch);
        if (!status.ok()) return status;
    }
    return Write(&batch, "updating a record");
}

Status Table::Impl::Get(const Message& key, const std::vector<std::string>& paths, Message* out,
                        std::set<std::string>* failed_paths) {
    if (out == nullptr) return Status::InvalidArgument("table " + m_name + ": Get without an output message");
    Status status = CheckType(key, "the key");
    if (status.ok()) status = CheckType(*out, "the output");
    std::vector<ResolvedPath> resolved;
    if (status.ok()) status = ResolvePaths(paths, false, &resolved);
    if (!status.ok()) return status;
    std::string pk;
    {
        ScratchPool::Lease scratch = m_core->scratch().Acquire();
        status = PrimaryKey(key, scratch.operator->(), &pk);
        if (!status.ok()) return status;
    }
    bool above = false;  // a stored sub-message holding more than was asked
    auto keep = [&resolved, &above](std::string_view tag) {
        if (resolved.empty()) return true;
        bool kept = false;
        for (const ResolvedPath& path : resolved) {
            if (!OnSameBranch(tag, path.tag_path)) continue;
            kept = true;
            above = above || tag.size() < path.tag_path.size();
        }
        return kept;
    };
    std::unique_ptr<rocksdb::Iterator> it(m_core->db()->NewIterator(rocksdb::ReadOptions()));
    Row row(false);
    status = ReadRow(it.get(), layout::RowKey(m_id, pk), keep, &row);
    if (!status.ok()) return status;
    if (!row.exists) return Status::NotFound("table " + m_name + ": no record with that key");

    out->Clear();
    CopyFields(key, m_key_fields, out);
    std::set<std::string> failed;
    MergeStoredFields(row.fields, out, &failed, m_core->log());
    if (above) {
        std::vector<const std::vector<int>*> wanted;
        for (const ResolvedPath& path : resolved) wanted.push_back(&path.numbers);
        KeepOnly(out, wanted, 0, m_key_fields);
    }
    if (failed_paths != nullptr) failed_paths->insert(failed.begin(), failed.end());
    return Status::OK();
}

Status Table::Impl::Delete(const Message& key) {
    Status status = CheckType(key, "the key");
    if (!status.ok()) return status;
    ScratchPool::Lease scratch = m_core->scratch().Acquire();
    std::string pk;
    status = PrimaryKey(key, scratch.operator->(), &pk);
    if (!status.ok()) return status;

    const std::string row_key = layout::RowKey(m_id, pk);
    std::lock_guard<std::mutex> lock(m_core->locks().For(m_id, pk));
    Row row(true);
    status = ReadOldRow(row_key, &row);
    if (!status.ok()) return status;
    if (!row.exists) return Status::NotFound("table " + m_name + ": no record with that key");

    rocksdb::WriteBatch batch;
    batch.Delete(row_key);
    std::string field_key = row_key;
    for (const std::string& tag_path : row.tag_paths) {
        field_key.resize(row_key.size());
        batch.Delete(field_key.append(tag_path));
    }
    if (!m_all.empty()) {
        std::unique_ptr<Message> old = View(key, row.fields);
        status = StageSecondaries(m_all, pk, old.get(), nullptr, scratch.operator->(), &batch);
        if (!status.ok()) return status;
    }
    return Write(&batch, "deleting a record");
}

Status Table::Impl::FindByIndex(std::string_view index, const Message& index_fields, std::vector<Record>* records,
                                 size_t limit) {
    const Secondary* found = nullptr;
    for (const Secondary& secondary : m_secondaries) {
        if (secondary.space == layout::kIndex && secondary.name == index) found = &secondary;
    }
    if (found != nullptr) return ReadSecondary(*found, index_fields, limit, records);
    std::string names;
    for (const std::string& name : IndexNames()) names += (names.empty() ? "" : ", ") + name;
    return Status::InvalidArgument("table " + m_name + " has no index '" + std::string(index) + "' (its indexes: " +
                                   (names.empty() ? "none" : names) + ")");
}

Status Table::Impl::Scan(const Message* shard, size_t limit, std::vector<Record>* records) {
    if (shard != nullptr) {
        if (m_shard == nullptr) return Status::InvalidArgument("table " + m_name + " has no sharding key");
        return ReadSecondary(*m_shard, *shard, limit, records);
    }
    if (records == nullptr) return Status::InvalidArgument("table " + m_name + ": Scan without an output");
    // The keys of one row are contiguous: a new primary key starts a new
    // record, read whole from its own row afterwards.
    std::unique_ptr<rocksdb::Iterator> it(m_core->db()->NewIterator(rocksdb::ReadOptions()));
    std::vector<std::string> pks;
    Status status = RowKeys(it.get(), limit, &pks);
    return status.ok() ? ReadRecords(it.get(), pks, nullptr, records) : status;
}

Status Table::Impl::RowKeys(rocksdb::Iterator* it, size_t limit, std::vector<std::string>* pks) const {
    const std::string rows = layout::TableRows(m_id);
    for (it->Seek(rows); it->Valid() && it->key().starts_with(rows); it->Next()) {
        std::string_view pk;
        std::string_view tag_path;
        const std::string_view rest(it->key().data() + rows.size(), it->key().size() - rows.size());
        if (!layout::SplitRowKey(rest, &pk, &tag_path)) {
            return Status::Corruption("table " + m_name + ": a stored row key is cut short");
        }
        if (!pks->empty() && pks->back() == pk) continue;
        if (limit > 0 && pks->size() == limit) break;
        pks->emplace_back(pk);
    }
    return FromRocks(it->status(), "table " + m_name + ": reading the rows");
}

Status Table::Impl::ReadRecords(rocksdb::Iterator* it, const std::vector<std::string>& pks,
                                const Secondary* secondary, std::vector<Record>* records) const {
    for (const std::string& pk : pks) {
        Record record;
        Status status = ReadRecord(it, pk, &record);
        if (status.IsNotFound() && secondary != nullptr) {
            status = Status::Corruption(secondary->What(m_name) + ": an entry without its record");
        }
        if (!status.ok()) return status;
        records->push_back(std::move(record));
    }
    return Status::OK();
}

Status Table::Impl::ReadSecondary(const Secondary& secondary, const Message& fields, size_t limit,
                                  std::vector<Record>* records) const {
    if (records == nullptr) return Status::InvalidArgument(secondary.What(m_name) + ": no output for the records");
    Status status = CheckType(fields, "the message of the looked-up fields");
    if (!status.ok()) return status;
    std::string value;
    bool present = false;
    {
        ScratchPool::Lease scratch = m_core->scratch().Acquire();
        fields.ByteSizeLong();
        status = SecondaryKey(fields, secondary, scratch.operator->(), &value, &present);
    }
    if (!status.ok()) return status;
    if (!present) return Status::InvalidArgument(secondary.What(m_name) + ": a field of it is not set");

    // One iterator for the entries and the records: both from one snapshot.
    std::unique_ptr<rocksdb::Iterator> it(m_core->db()->NewIterator(rocksdb::ReadOptions()));
    const std::string prefix = layout::SecondaryPrefix(secondary.space, m_id, secondary.name, value);
    std::vector<std::string> pks;
    for (it->Seek(prefix); it->Valid() && it->key().starts_with(prefix); it->Next()) {
        if (limit > 0 && pks.size() == limit) break;
        pks.emplace_back(it->key().data() + prefix.size(), it->key().size() - prefix.size());
    }
    status = FromRocks(it->status(), secondary.What(m_name) + ": reading entries");
    return status.ok() ? ReadRecords(it.get(), pks, &secondary, records) : status;
}

Status Table::Impl::Verify() {
    std::unique_ptr<rocksdb::Iterator> it(m_core->db()->NewIterator(rocksdb::ReadOptions()));
    // The entries every record should have.
    std::set<std::string> expected;
    std::vector<std::string> pks;
    Status status = RowKeys(it.get(), 0, &pks);
    ScratchPool::Lease scratch = m_core->scratch().Acquire();
    for (const std::string& pk : pks) {
        if (!status.ok()) return status;
        Record record;
        status = ReadRecord(it.get(), pk, &record);
        if (!status.ok()) return status;
        record.message->ByteSizeLong();
        for (const Secondary& secondary : m_secondaries) {
            std::string value;
            bool present = false;
            status = SecondaryKey(*record.message, secondary, scratch.operator->(), &value, &present);
            if (!status.ok()) return status;
            if (present) expected.insert(layout::SecondaryPrefix(secondary.space, m_id, secondary.name, value) + pk);
        }
    }
    // The entries there are.
    size_t missing = expected.size();
    size_t orphans = 0;
    for (const Secondary& secondary : m_secondaries) {
        const std::string space = layout::SecondarySpace(secondary.space, m_id, secondary.name);
        for (it->Seek(space); it->Valid() && it->key().starts_with(space); it->Next()) {
            if (expected.count(it->key().ToString()) != 0) {
                --missing;
            } else {
                ++orphans;
            }
        }
        status = FromRocks(it->status(), "table " + m_name + ": verifying");
        if (!status.ok()) return status;
    }
    if (missing == 0 && orphans == 0) return Status::OK();
    return Status::Corruption("table " + m_name + ": " + std::to_string(missing) + " index or shard entries missing, " +
                              std::to_string(orphans) + " entries without their record, in " +
                              std::to_string(pks.size()) + " records");
}

// ---------------------------------------------------------------------------
// Table.
// ---------------------------------------------------------------------------

Status LoadTable(std::shared_ptr<TableStore::Core> core, const std::string& name, uint32_t id, const std::string& blob,
                 const Message& prototype, CORVIDA_KV::CorvidaKVApi* kv, std::unique_ptr<Table>* table) {
    std::unique_ptr<Table::Impl> loaded(new Table::Impl(std::move(core), name, id, prototype, kv));
    Status status = loaded->Load(blob);
    if (status.ok()) table->reset(new Table(std::move(loaded)));
    return status;
}

Table::Table(std::unique_ptr<Impl> impl) : m_impl(std::move(impl)) {}
Table::~Table() = default;

const std::string& Table::name() const { return m_impl->name(); }
const Message& Table::prototype() const { return m_impl->prototype(); }
std::vector<std::string> Table::IndexNames() const { return m_impl->IndexNames(); }
bool Table::HasShardingKey() const { return m_impl->HasShardingKey(); }

Status Table::Put(const Message& record) {
    return NoThrow([&] { return m_impl->Put(record); });
}

Status Table::Update(const Message& record, const std::vector<std::string>& paths) {
    return NoThrow([&] { return m_impl->Update(record, paths); });
}

Status Table::Get(const Message& key, const std::vector<std::string>& paths, Message* out,
                  std::set<std::string>* failed_paths) {
    return NoThrow([&] { return m_impl->Get(key, paths, out, failed_paths); });
}

Status Table::Delete(const Message& key) {
    return NoThrow([&] { return m_impl->Delete(key); });
}

Status Table::FindByIndex(std::string_view index, const Message& index_fields, std::vector<Record>* records,
                          size_t limit) {
    return NoThrow([&] { return m_impl->FindByIndex(index, index_fields, records, limit); });
}

Status Table::Scan(const Message* shard, size_t limit, std::vector<Record>* records) {
    return NoThrow([&] { return m_impl->Scan(shard, limit, records); });
}

Status Table::Verify() {
    return NoThrow([&] { return m_impl->Verify(); });
}

}  // namespace store
}  // namespace corvida
