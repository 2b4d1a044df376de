#include "store/table_impl.h"

#include "store/verify.h"

namespace corvida {
namespace store {

namespace {

using google::protobuf::Message;

// Collects the records of a streaming read.
RecordVisitor AppendTo(std::vector<Record>* records) {
    return [records](Record& record) {
        records->push_back(std::move(record));
        return true;
    };
}

}  // namespace

TableImpl::TableImpl(std::shared_ptr<StoreContext> context)
    : m_context(std::move(context)),
      m_reader(m_context.get(), &m_schema),
      m_writer(m_context.get(), &m_schema, &m_reader),
      m_bulk(m_context.get(), &m_schema, &m_writer) {}

Status TableImpl::Open(std::shared_ptr<StoreContext> context, const CatalogTable& table, const Message& prototype,
                       CORVIDA_KV::CorvidaKVApi* kv, std::unique_ptr<Table>* out) {
    std::unique_ptr<TableImpl> opened(new TableImpl(std::move(context)));
    Status status = opened->m_schema.Bind(table.name, table.number, table.schema_blob, prototype, kv,
                                          &opened->m_context->scratch(), opened->m_context->log());
    if (status.ok()) *out = std::move(opened);
    return status;
}

Status TableImpl::Put(const Message& record) {
    return NoThrow([&] { return m_writer.Put(record); });
}

Status TableImpl::Update(const Message& record, const std::vector<std::string>& paths) {
    return NoThrow([&] { return m_writer.Update(record, paths); });
}

Status TableImpl::Get(const Message& key, const std::vector<std::string>& paths, Message* out,
                      std::set<std::string>* failed_paths) {
    return NoThrow([&] { return m_reader.Get(key, paths, out, failed_paths); });
}

Status TableImpl::Delete(const Message& key) {
    return NoThrow([&] { return m_writer.Delete(key); });
}

Status TableImpl::Write(const std::vector<WriteOp>& writes, WriteReport* report) {
    return NoThrow([&] { return m_bulk.Write(writes, report); });
}

Status TableImpl::FindByIndex(std::string_view index, const Message& index_fields, std::vector<Record>* records,
                              size_t limit) {
    return NoThrow([&] {
        if (records == nullptr) return Status::InvalidArgument("table " + name() + ": FindByIndex without an output");
        Page page;
        page.limit = limit;
        return m_reader.Find(index, index_fields, page, AppendTo(records), nullptr);
    });
}

Status TableImpl::Scan(const Message* shard, size_t limit, std::vector<Record>* records) {
    return NoThrow([&] {
        if (records == nullptr) return Status::InvalidArgument("table " + name() + ": Scan without an output");
        Page page;
        page.limit = limit;
        return m_reader.Scan(shard, page, AppendTo(records), nullptr);
    });
}

Status TableImpl::ScanEach(const Message* shard, const Page& page, const RecordVisitor& visit, std::string* next) {
    return NoThrow([&] {
        if (!visit) return Status::InvalidArgument("table " + name() + ": ScanEach without a visitor");
        return m_reader.Scan(shard, page, visit, next);
    });
}

Status TableImpl::FindEach(std::string_view index, const Message& index_fields, const Page& page,
                           const RecordVisitor& visit, std::string* next) {
    return NoThrow([&] {
        if (!visit) return Status::InvalidArgument("table " + name() + ": FindEach without a visitor");
        return m_reader.Find(index, index_fields, page, visit, next);
    });
}

Status TableImpl::Count(const Message* shard, uint64_t* count) {
    return NoThrow([&] { return m_reader.Count(shard, count); });
}

Status TableImpl::CountIndex(std::string_view index, const Message& index_fields, uint64_t* count) {
    return NoThrow([&] { return m_reader.CountIndex(index, index_fields, count); });
}

Status TableImpl::Verify() { return Verify(nullptr, ProgressCallback()); }

Status TableImpl::Verify(VerifyCounts* counts, const ProgressCallback& progress) {
    return NoThrow([&] {
        VerifyCounts found;
        Status status = VerifyTable(m_context.get(), m_schema, m_reader, &found, progress);
        if (counts != nullptr) *counts = status.ok() ? found : VerifyCounts();
        if (!status.ok() || (found.missing == 0 && found.orphans == 0)) return status;
        return Status::Corruption("table " + name() + ": " + std::to_string(found.missing) +
                                  " index or shard entries missing, " + std::to_string(found.orphans) +
                                  " entries without their record, in " + std::to_string(found.records) + " records");
    });
}

}  // namespace store
}  // namespace corvida
