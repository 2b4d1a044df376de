// TableImpl: the Table that TableStore::OpenTable hands out. It binds the
// table's schema to the client type and hands each call to the reader, the
// writer or the verifier, keeping exceptions inside. Private to the store.
#ifndef CORVIDA_STORE_TABLE_IMPL_H_
#define CORVIDA_STORE_TABLE_IMPL_H_

#include <memory>
#include <string>

#include "store/bulk_write.h"
#include "store/catalog.h"
#include "store/read_path.h"
#include "store/store_context.h"
#include "store/table.h"
#include "store/table_schema.h"
#include "store/write_path.h"

namespace corvida {
namespace store {

class TableImpl : public Table {
public:
    // Binds the catalog's table to the client type of prototype.
    static Status Open(std::shared_ptr<StoreContext> context, const CatalogTable& table,
                       const google::protobuf::Message& prototype, CORVIDA_KV::CorvidaKVApi* kv,
                       std::unique_ptr<Table>* out);

    const std::string& name() const override { return m_schema.name(); }
    const google::protobuf::Message& prototype() const override { return m_schema.prototype(); }
    std::vector<std::string> IndexNames() const override { return m_schema.IndexNames(); }
    bool HasShardingKey() const override { return m_schema.shard() != nullptr; }

    Status Put(const google::protobuf::Message& record) override;
    Status Update(const google::protobuf::Message& record, const std::vector<std::string>& paths) override;
    Status Get(const google::protobuf::Message& key, const std::vector<std::string>& paths,
               google::protobuf::Message* out, std::set<std::string>* failed_paths) override;
    Status Delete(const google::protobuf::Message& key) override;
    Status Write(const std::vector<WriteOp>& writes, WriteReport* report) override;
    Status FindByIndex(std::string_view index, const google::protobuf::Message& index_fields,
                       std::vector<Record>* records, size_t limit) override;
    Status Scan(const google::protobuf::Message* shard, size_t limit, std::vector<Record>* records) override;
    Status ScanEach(const google::protobuf::Message* shard, const Page& page, const RecordVisitor& visit,
                    std::string* next) override;
    Status FindEach(std::string_view index, const google::protobuf::Message& index_fields, const Page& page,
                    const RecordVisitor& visit, std::string* next) override;
    Status Count(const google::protobuf::Message* shard, uint64_t* count) override;
    Status CountIndex(std::string_view index, const google::protobuf::Message& index_fields,
                      uint64_t* count) override;
    Status Verify() override;
    Status Verify(VerifyCounts* counts, const ProgressCallback& progress) override;

private:
    explicit TableImpl(std::shared_ptr<StoreContext> context);

    std::shared_ptr<StoreContext> m_context;
    TableSchema m_schema;
    RecordReader m_reader;
    RecordWriter m_writer;
    BulkWriter m_bulk;
};

}  // namespace store
}  // namespace corvida

#endif  // CORVIDA_STORE_TABLE_IMPL_H_
