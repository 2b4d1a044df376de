// RecordReader: the reads of one table (Get, scans, lookups, counts), over
// its schema and the store's engine. Private to the store.
//
// Every read takes one view of the engine: a record and, for a lookup, the
// entries that led to it come from one state of the data. Records are built
// one at a time and handed to the caller's visitor, so a read holds one row
// in memory, whatever the size of the table.
#ifndef CORVIDA_STORE_READ_PATH_H_
#define CORVIDA_STORE_READ_PATH_H_

#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include <google/protobuf/message.h>

#include "store/record_codec.h"
#include "store/store_context.h"
#include "store/table.h"
#include "store/table_schema.h"

namespace corvida {
namespace store {

class RecordReader {
public:
    RecordReader(StoreContext* context, const TableSchema* schema) : m_context(context), m_schema(schema) {}

    Status Get(const google::protobuf::Message& key, const std::vector<std::string>& paths,
               google::protobuf::Message* out, std::set<std::string>* failed_paths) const;

    // Whole table (shard null) or one shard.
    Status Scan(const google::protobuf::Message* shard, const Page& page, const RecordVisitor& visit,
                std::string* next) const;
    // Reads at view when given (the view the caller checked its binding
    // at), else at a view of its own.
    Status Find(std::string_view index, const google::protobuf::Message& fields, const Page& page,
                const RecordVisitor& visit, std::string* next, const ReadView* view = nullptr) const;
    Status Count(const google::protobuf::Message* shard, uint64_t* count) const;
    Status CountIndex(std::string_view index, const google::protobuf::Message& fields, uint64_t* count) const;

    // The record of primary key pk with the stored fields of its row: key
    // fields parsed back from pk, fields merged in order. A message of the
    // client type already in *record is cleared and reused.
    Status MakeRecord(std::string_view pk, const std::vector<StoredField>& fields, Record* record) const;

    // A message of the client type holding base's key fields and fields
    // merged over them; *failed (may be null) receives the tag paths that did
    // not merge. Its cached sizes are current.
    std::unique_ptr<google::protobuf::Message> View(const google::protobuf::Message& base,
                                                    const std::vector<StoredField>& fields,
                                                    std::set<std::string>* failed) const;

private:
    // Merges fields into msg, but for those that the table holds and the
    // client's type lacks (TableSchema::HeldOnlyByTable), which are left
    // out without a word.
    void Merge(const std::vector<StoredField>& fields, google::protobuf::Message* msg,
               std::set<std::string>* failed) const;

    // The secondary a lookup reads: the index (or the shard listing, index
    // null) and the field key of fields.
    Status LookupValue(const Secondary& secondary, const google::protobuf::Message& fields, std::string* value) const;
    Status ReadEntries(const Secondary& secondary, const std::string& value, const Page& page,
                       const RecordVisitor& visit, std::string* next, const ReadView* view) const;
    Status ScanTable(const Page& page, const RecordVisitor& visit, std::string* next) const;
    Status CountPrefix(const std::string& prefix, uint64_t* count) const;
    Status FindSecondary(std::string_view index, const Secondary** secondary) const;

    StoreContext* m_context;
    const TableSchema* m_schema;
};

}  // namespace store
}  // namespace corvida

#endif  // CORVIDA_STORE_READ_PATH_H_
