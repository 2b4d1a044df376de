// Table: the records of one table of a TableStore, read and written as one
// client type (the prototype given to TableStore::OpenTable).
//
// The record model:
//   - A record is addressed by its primary key, ExtractMsgKey of the message
//     with the cipher suites of the table's CorvidaKVApi: encrypted key
//     fields are stored as ciphertext only. Messages given to Get and Delete
//     need their key fields set; other fields are ignored.
//   - Put replaces the whole record: afterwards every field reads as the
//     put's message holds it, absent fields included.
//   - Update writes only the named dotted paths ("level", "profile.stats");
//     nothing else of the record is rewritten. A path may name a sub-message
//     whole, which replaces everything written under it before, or a field
//     inside one. A top-level repeated field or map can be named only whole.
//     Key fields cannot be named. Updating a record that does not exist
//     creates it with just those fields (the rest read as absent).
//   - Get returns the fields that the latest writes say, field by field. The
//     tag paths of fields that did not merge (an encrypted string or bytes
//     field, which the bridge never decrypts; damaged stored bytes) are
//     returned in failed_paths, never dropped.
//   - Each index "name(fields)" of the table maps ExtractFieldKey of its
//     fields (in declared order) to the primary keys of the records that
//     hold those values. A record whose index fields cannot form a key (an
//     unset proto2 field, a repeated field without elements) has no entry
//     in that index. Writes move entries.
//   - Records are grouped by their sharding-key fields (ExtractFieldKey of
//     them): Scan with a shard lists the records of one shard.
//   - A write of a record and of its index and shard entries is one atomic
//     commit of the store's engine, made only if the record has not changed
//     since the write read it; otherwise the write reads again (writers of
//     one record, in any thread or process, are serialized this way).
//
// Records read by FindByIndex and Scan are created with prototype.New(), and
// their key fields are parsed back from the stored primary key, encrypted
// fields decrypted with the table's suite.
//
// Reads in pages: Scan, FindByIndex and their streaming forms take a Page
// (at most `limit` records, after the cursor `after`) and hand back the
// cursor of the last record returned when the limit cut the read short. A
// cursor is opaque text, valid in any process for the same table and the
// same read (the same shard or index value); a read resumed from it returns
// the records after that record in primary-key byte order, as the store
// holds them when the page is read.
//
// Every method may be called from many threads at once. Messages passed in
// are not changed, but their cached sizes are recomputed: do not pass one
// message to two calls running at the same time.
#ifndef CORVIDA_STORE_TABLE_H_
#define CORVIDA_STORE_TABLE_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include <google/protobuf/message.h>

#include "store/status.h"

namespace corvida {
namespace store {

// One record read by FindByIndex or Scan.
struct Record {
    std::unique_ptr<google::protobuf::Message> message;  // of the table's client type
    std::set<std::string> failed_paths;                  // tag paths that did not merge
};

// Which part of a read to return.
struct Page {
    size_t limit = 0;   // at most this many records; 0: all
    std::string after;  // a cursor handed back by an earlier read: start after its record; empty: from the start
};

// Called with each record of a streaming read, in order; the record may be
// moved from. Returning false stops the read (no cursor is handed back then).
using RecordVisitor = std::function<bool(Record& record)>;

// One write of a Write call: a Put, an Update or a Delete.
struct WriteOp {
    enum class Kind { kPut, kUpdate, kDelete };

    Kind kind = Kind::kPut;
    const google::protobuf::Message* message = nullptr;  // the record (put, update) or its key fields (delete)
    std::vector<std::string> paths;                      // update: the fields to write
};

// What Verify went through and found.
struct VerifyCounts {
    uint64_t records = 0;
    uint64_t entries = 0;  // index and shard entries
    uint64_t missing = 0;  // entries a record should have and has not
    uint64_t orphans = 0;  // entries without their record (or with another value than the record's)
};

// Called now and then during a long read with the number of records it has
// gone through so far.
using ProgressCallback = std::function<void(uint64_t records)>;

// What a Write call did.
struct WriteReport {
    size_t written = 0;               // writes[0, written) are stored; nothing of the others
    std::vector<size_t> not_found;    // the deletes among them that found no record (and did nothing)
    size_t commits = 0;               // the engine commits they took
};

class Table {
public:
    virtual ~Table() = default;

    Table(const Table&) = delete;
    Table& operator=(const Table&) = delete;

    // The table's name (the full name of its type in the stored schema) and
    // the client type.
    virtual const std::string& name() const = 0;
    virtual const google::protobuf::Message& prototype() const = 0;

    // The index names of the table, in name order, and whether it has a
    // sharding key.
    virtual std::vector<std::string> IndexNames() const = 0;
    virtual bool HasShardingKey() const = 0;

    // Writes the whole record. kInvalidArgument when record is not of the
    // table's type, its key cannot be built (bridge_code() is ExtractMsgKey's
    // result: -9 for a key field unset in proto2, -10 for a key over 1022
    // bytes), an index key is over 1022 bytes, a string field of a proto3
    // type holds bytes that are not valid UTF-8 (protobuf would not parse
    // the record back; the message names the field), or the record is larger
    // than 8 MiB (or than one commit of the engine holds). kBusy when other
    // writers kept changing the record. Nothing is stored on any failure.
    virtual Status Put(const google::protobuf::Message& record) = 0;

    // Writes the fields of record named by paths (dotted field names). Also
    // kInvalidArgument for an empty list, an unknown name, a key field, a
    // path into a repeated field, and paths that overlap ("a" and "a.b").
    // Only the strings it writes (and the key fields) must be valid UTF-8.
    virtual Status Update(const google::protobuf::Message& record, const std::vector<std::string>& paths) = 0;

    // Reads the record whose key fields key holds into *out (of the table's
    // type), which is cleared first and given key's key fields. paths empty:
    // every field; else only the named fields. kNotFound when there is no
    // such record. failed_paths (may be null) receives the tag paths of
    // fields that did not merge; it is not cleared first.
    virtual Status Get(const google::protobuf::Message& key, const std::vector<std::string>& paths,
                       google::protobuf::Message* out, std::set<std::string>* failed_paths) = 0;

    // Removes the record and its index entries. kNotFound when there is none.
    virtual Status Delete(const google::protobuf::Message& key) = 0;

    // Many writes in one call, each as Put, Update or Delete would make it,
    // in order: a write of a record that an earlier write of the call
    // changed sees that change. Many records go into each commit of the
    // engine (as many as its limits allow); each record's change, with its
    // index and shard entries, is whole in one commit. A delete of a record
    // that is not there does nothing and is listed in report->not_found.
    //
    // The writes are made in order and stop at the first that fails: then
    // report->written is its index, the writes before it are stored and
    // nothing of it or after it is. kInvalidArgument means that write is
    // refused for what the single call would refuse it for (the caller may
    // go on after it); any other error is the store's (kBusy, kIOError...).
    // A crash in the middle leaves the writes of the commits made: a prefix
    // of writes, cut between two records, never part of a record.
    // report may not be null.
    virtual Status Write(const std::vector<WriteOp>& writes, WriteReport* report) = 0;

    // Appends to *records every record whose fields of index `index` equal
    // those of index_fields (other fields ignored), in primary-key byte
    // order; at most limit records when limit > 0. kInvalidArgument for an
    // unknown index or index fields that cannot form a key.
    virtual Status FindByIndex(std::string_view index, const google::protobuf::Message& index_fields,
                               std::vector<Record>* records, size_t limit = 0) = 0;

    // Appends to *records the records of the shard whose sharding-key fields
    // shard holds, or of the whole table when shard is null; at most limit
    // records when limit > 0. Within a shard and in the whole table, records
    // come in primary-key byte order. kInvalidArgument for a shard of a table
    // without a sharding key.
    virtual Status Scan(const google::protobuf::Message* shard, size_t limit, std::vector<Record>* records) = 0;

    // The streaming forms: each record of the page is handed to visit as it
    // is read, one at a time, so that no result is held in memory. *next
    // (may be null) receives the cursor to resume from when page.limit cut
    // the read short, and is cleared when the read reached the end.
    // kInvalidArgument for a cursor of another table or read, or one that is
    // not a cursor.
    virtual Status ScanEach(const google::protobuf::Message* shard, const Page& page, const RecordVisitor& visit,
                            std::string* next) = 0;
    virtual Status FindEach(std::string_view index, const google::protobuf::Message& index_fields,
                            const Page& page, const RecordVisitor& visit, std::string* next) = 0;

    // Counts records without reading them: of the shard (or of the whole
    // table when shard is null), or those whose index fields equal
    // index_fields.
    virtual Status Count(const google::protobuf::Message* shard, uint64_t* count) = 0;
    virtual Status CountIndex(std::string_view index, const google::protobuf::Message& index_fields,
                              uint64_t* count) = 0;

    // Checks that every record has its index and shard entries and every
    // entry its record, reading the whole table at one state. kCorruption,
    // with the counts of what is missing or left over, when not.
    virtual Status Verify() = 0;
    // The same, with *counts (may be null) receiving what was checked and
    // found, also with kCorruption for what is wrong (all zero when the table
    // could not be read through); progress (may be empty) is called every
    // thousand records.
    virtual Status Verify(VerifyCounts* counts, const ProgressCallback& progress) = 0;

protected:
    Table() = default;
};

}  // namespace store
}  // namespace corvida

#endif  // CORVIDA_STORE_TABLE_H_
