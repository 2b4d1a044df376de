// TableSchema: a table's stored schema bound to one client type. Private to
// the store.
//
// Binding loads the stored schema blob once with FillMessageGroup (the
// table's key, sharding-key and index fields), checks the client's type
// against it with GetMetaAndCompare, and checks that the client can build
// the table's keys (its cipher suite is there and holds the table's key).
// Afterwards the schema answers, without locks, what the read and write
// paths ask: which fields are key fields, which top-level fields a put
// writes, the indexes and the shard listing, and the tag paths of dotted
// paths. It also builds keys: primary keys with ExtractMsgKey and the keys
// of index and shard entries with ExtractFieldKey.
//
// A binding is of one state of the table's catalog entry (table_state.h):
// its schema stamp, which every write is conditioned on, and what schema
// evolution left in progress: indexes still being built, and field numbers
// that the table holds but the client's type lacks (fields an alter added
// after the client was compiled, or removed). Reads skip those fields
// without a word and writes keep them (docs/store.md, "Clients of two
// versions").
#ifndef CORVIDA_STORE_TABLE_SCHEMA_H_
#define CORVIDA_STORE_TABLE_SCHEMA_H_

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>

#include "protobuf_api/corvida_kv_api.h"
#include "protobuf_api/protobuf_util.h"
#include "store/scratch.h"
#include "store/status.h"
#include "store/table_state.h"

namespace corvida {
namespace store {

// An index of the table, or its shard listing: the entries that map the
// values of some fields (a field key) to primary keys.
struct Secondary {
    char space;               // keys::kIndex or keys::kShard
    std::string name;         // the index's name; empty for the shard listing
    std::vector<int> fields;  // field numbers, in the order of the key

    bool Covers(int number) const;
    // "table T: index N" or "table T: sharding key", for messages.
    std::string What(const std::string& table) const;
};

// One requested dotted path, resolved against the client type.
struct ResolvedPath {
    std::string dotted;
    std::string tag_path;
    std::vector<int> numbers;
    const google::protobuf::FieldDescriptor* top = nullptr;   // the top-level field
    const google::protobuf::FieldDescriptor* last = nullptr;  // the field the path names
};

// The first number of a tag path, or -1.
int FirstNumber(std::string_view tag_path);

class TableSchema {
public:
    // Binds the stored schema of the table of state to the client type of
    // prototype, with kv's cipher suites. Results as TableStore::OpenTable
    // describes.
    Status Bind(const TableState& state, const google::protobuf::Message& prototype, CORVIDA_KV::CorvidaKVApi* kv,
                ScratchPool* scratch, LPPLOGCATEGORYINST log);

    const std::string& name() const { return m_name; }
    uint32_t number() const { return m_number; }
    const google::protobuf::Message& prototype() const { return *m_prototype; }
    const google::protobuf::Descriptor* descriptor() const { return m_desc; }
    CORVIDA_KV::CorvidaKVApi* kv() const { return m_kv; }

    const std::set<std::string>& key_names() const { return m_key_names; }
    const std::vector<const google::protobuf::FieldDescriptor*>& key_fields() const { return m_key_fields; }
    // The top-level singular fields outside the key, by name: what a put cuts.
    const std::set<std::string>& put_paths() const { return m_put_paths; }
    // The top-level repeated fields and maps: stored whole.
    const std::vector<const google::protobuf::FieldDescriptor*>& repeated_fields() const { return m_repeated; }

    // Every index (by name), then the shard listing.
    const std::vector<Secondary>& secondaries() const { return m_secondaries; }
    const Secondary* shard() const { return m_shard; }
    const Secondary* FindIndex(std::string_view name) const;
    std::vector<std::string> IndexNames() const;
    // True when the stored field at tag_path lies under a field of an index or
    // of the sharding key.
    bool IsSecondaryField(std::string_view tag_path) const;

    // True when the stored field at tag_path lies under a key field. Key
    // fields live in the primary key, never in a row: such a field is damage.
    bool UnderKeyField(std::string_view tag_path) const;

    // kInvalidArgument unless msg is of the client type; what names it.
    Status CheckType(const google::protobuf::Message& msg, const char* what) const;

    // Resolves dotted paths against the client type. for_write refuses key
    // fields.
    Status ResolvePaths(const std::vector<std::string>& paths, bool for_write, std::vector<ResolvedPath>* out) const;

    // The primary key of msg (its cached sizes current).
    Status PrimaryKey(const google::protobuf::Message& msg, Scratch* scratch, std::string* pk) const;

    // The field key of secondary's fields of msg (its cached sizes current).
    // *present is false, with nothing logged, when one of the fields adds no
    // bytes (an unset proto2 field, an empty repeated field): the record has
    // no entry then.
    Status SecondaryKey(const google::protobuf::Message& msg, const Secondary& secondary, Scratch* scratch,
                        std::string* key, bool* present) const;

    // Copies the key fields of from into to (same type; cached sizes of from
    // current for repeated ones).
    void CopyKeyFields(const google::protobuf::Message& from, google::protobuf::Message* to) const;

    LPPLOGCATEGORYINST log() const { return m_log; }

    // --- Schema evolution -------------------------------------------------
    // The schema stamp the binding was made with; empty when the table has
    // none.
    const std::string& stamp() const { return m_stamp; }
    // True while the index's back-fill has not finished.
    bool IsBuilding(std::string_view index) const;
    // The table's type in the stored schema.
    const google::protobuf::Descriptor* stored_descriptor() const { return m_group.m_desc; }
    // True when the stored field at tag_path is one that the table holds but
    // the client's type lacks: it names a field of the stored type (or a
    // retired top-level number) and no field of the client's. Such a field is
    // neither merged by reads nor deleted by writes.
    bool HeldOnlyByTable(std::string_view tag_path) const;

private:
    Status LoadSecondaries();

    std::string m_name;
    uint32_t m_number = 0;
    const google::protobuf::Message* m_prototype = nullptr;
    const google::protobuf::Descriptor* m_desc = nullptr;
    CORVIDA_KV::CorvidaKVApi* m_kv = nullptr;
    LPPLOGCATEGORYINST m_log = nullptr;
    PROTOBUF_UTIL::MsgDescGroup m_group;

    std::set<std::string> m_key_names;
    std::vector<const google::protobuf::FieldDescriptor*> m_key_fields;
    std::set<std::string> m_put_paths;
    std::vector<const google::protobuf::FieldDescriptor*> m_repeated;
    std::vector<Secondary> m_secondaries;
    const Secondary* m_shard = nullptr;
    std::vector<int> m_secondary_numbers;

    std::string m_stamp;
    std::vector<std::string> m_building;
    std::vector<uint32_t> m_retired;
    bool m_client_lacks = false;  // HeldOnlyByTable can be true
};

// The indexes that type declares (corvida_index), by name, each with its
// field names in the order the declaration names them: the order of the
// field key. Entries of one name add up, as FillMessageGroup reads them.
std::map<std::string, std::vector<std::string>> DeclaredIndexes(const google::protobuf::Descriptor* type);

// The field names of a list option's text (corvida_primary_key,
// corvida_sharding_key); empty for an empty text.
std::vector<std::string> OptionFieldNames(const std::string& text);

// Copies the listed fields of from into to (the same type): singular ones
// with reflection's setters, repeated ones through their serialization
// (cached sizes of from must then be current).
void CopyFields(const google::protobuf::Message& from,
                const std::vector<const google::protobuf::FieldDescriptor*>& fields, google::protobuf::Message* to);

}  // namespace store
}  // namespace corvida

#endif  // CORVIDA_STORE_TABLE_SCHEMA_H_
