// TableImpl: the Table that TableStore::OpenTable hands out. It binds the
// table's schema to the client type and hands each call to the reader, the
// writer or the verifier, keeping exceptions inside. Private to the store.
//
// A binding is of one state of the table's catalog entry. When the entry
// changes (an alter, an index that became ready), the table binds again: a
// write refused because the schema stamp moved, and a lookup that finds the
// stamp moved, load the entry anew, check the client against the new schema
// exactly as OpenTable does, and go on with the new binding. Calls in flight
// keep the binding they started with (it is shared, and freed with its last
// user).
#ifndef CORVIDA_STORE_TABLE_IMPL_H_
#define CORVIDA_STORE_TABLE_IMPL_H_

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "store/bulk_write.h"
#include "store/catalog.h"
#include "store/read_path.h"
#include "store/store_context.h"
#include "store/table.h"
#include "store/table_schema.h"
#include "store/table_state.h"
#include "store/write_path.h"

namespace corvida {
namespace store {

class TableImpl : public Table {
public:
    // Binds the catalog's table to the client type of prototype.
    static Status Open(std::shared_ptr<StoreContext> context, const CatalogTable& table,
                       const google::protobuf::Message& prototype, CORVIDA_KV::CorvidaKVApi* kv,
                       std::unique_ptr<Table>* out);

    const std::string& name() const override { return m_name; }
    const google::protobuf::Message& prototype() const override { return m_prototype; }
    std::vector<std::string> IndexNames() const override { return Bound()->schema.IndexNames(); }
    bool HasShardingKey() const override { return Bound()->schema.shard() != nullptr; }

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
    // The schema bound to the client type, and the reader and writer over it.
    struct Binding {
        explicit Binding(StoreContext* context)
            : reader(context, &schema), writer(context, &schema, &reader), bulk(context, &schema, &writer) {}
        Binding(const Binding&) = delete;
        Binding& operator=(const Binding&) = delete;

        TableSchema schema;
        // The position of a view at which the table's schema stamp read as
        // schema.stamp(), when the engine keeps positions (0: none known).
        mutable std::atomic<uint64_t> stamp_read_at{0};
        RecordReader reader;
        RecordWriter writer;
        BulkWriter bulk;
    };

    TableImpl(std::shared_ptr<StoreContext> context, const google::protobuf::Message& prototype,
              CORVIDA_KV::CorvidaKVApi* kv, std::string name);

    std::shared_ptr<const Binding> Bound() const;

    // Binds the table's catalog entry as it is now, unless another call
    // replaced stale already.
    Status Rebind(const std::shared_ptr<const Binding>& stale);

    // Runs write(binding, &moved) on the current binding, binding again and
    // running it again while the schema moved under it.
    template <typename WriteCall>
    Status WriteBound(WriteCall write);

    // The current binding, once the stamp has been read again (and the table
    // bound again when it moved). With view, the stamp is read at a new lazy
    // view left in *view, or, when the table was bound again, at none and
    // *view is a new lazy one taken after that: the binding holds at the
    // view, so that a read made at it sees the table as bound. The stamp is
    // not read at the view when the engine tells that it is as it was at a
    // view it was read at before for this binding.
    Status Current(std::unique_ptr<ReadView>* view, std::shared_ptr<const Binding>* bound);

    // The binding a lookup on index runs on, and the view it reads at (see
    // Current): the current one, refused while the index is being built.
    Status BoundForLookup(std::string_view index, std::unique_ptr<ReadView>* view,
                          std::shared_ptr<const Binding>* bound);

    std::shared_ptr<StoreContext> m_context;
    const google::protobuf::Message& m_prototype;
    CORVIDA_KV::CorvidaKVApi* m_kv;
    const std::string m_name;

    mutable std::mutex m_mutex;  // guards m_binding
    std::shared_ptr<const Binding> m_binding;
};

}  // namespace store
}  // namespace corvida

#endif  // CORVIDA_STORE_TABLE_IMPL_H_
