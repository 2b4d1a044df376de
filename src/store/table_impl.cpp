#include "store/table_impl.h"

#include <algorithm>

#include "store/key_format.h"
#include "store/verify.h"

namespace corvida {
namespace store {

namespace {

using google::protobuf::Message;

// How many times one write binds the table again before it gives up: the
// schema changed under it that often while it was being made.
constexpr int kMaxRebinds = 8;

// Collects the records of a streaming read.
RecordVisitor AppendTo(std::vector<Record>* records) {
    return [records](Record& record) {
        records->push_back(std::move(record));
        return true;
    };
}

}  // namespace

TableImpl::TableImpl(std::shared_ptr<StoreContext> context, const Message& prototype, CORVIDA_KV::CorvidaKVApi* kv,
                     std::string name)
    : m_context(std::move(context)), m_prototype(prototype), m_kv(kv), m_name(std::move(name)) {}

Status TableImpl::Open(std::shared_ptr<StoreContext> context, const CatalogTable& table, const Message& prototype,
                       CORVIDA_KV::CorvidaKVApi* kv, std::unique_ptr<Table>* out) {
    std::unique_ptr<TableImpl> opened(new TableImpl(std::move(context), prototype, kv, table.name));
    Status status = opened->Rebind(nullptr);
    if (status.ok()) *out = std::move(opened);
    return status;
}

std::shared_ptr<const TableImpl::Binding> TableImpl::Bound() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_binding;
}

Status TableImpl::Rebind(const std::shared_ptr<const Binding>& stale) {
    std::unique_ptr<ReadView> view;
    TableState state;
    Status status = ReadTableStateAtNewView(m_context->engine(), m_name, &view, &state);
    if (status.IsNotFound()) return Status::NotFound("table " + m_name + " is no longer in the store: it was dropped");
    if (!status.ok()) return status;
    if (state.table.dropped) return TableBeingDropped(m_name);
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_binding != stale && m_binding->schema.stamp() == state.stamp) return Status::OK();
    }
    auto binding = std::make_shared<Binding>(m_context.get());
    status = binding->schema.Bind(state, m_prototype, m_kv, &m_context->scratch(), m_context->log());
    if (!status.ok()) return status;
    std::lock_guard<std::mutex> lock(m_mutex);
    m_binding = std::move(binding);
    return Status::OK();
}

template <typename WriteCall>
Status TableImpl::WriteBound(WriteCall write) {
    for (int rebinds = 0;; ++rebinds) {
        const std::shared_ptr<const Binding> bound = Bound();
        bool moved = false;
        Status status = write(*bound, &moved);
        if (!moved || rebinds == kMaxRebinds) return status;
        status = Rebind(bound);
        if (!status.ok()) return status;
    }
}

Status TableImpl::Current(std::unique_ptr<ReadView>* view, std::shared_ptr<const Binding>* bound) {
    Engine* engine = m_context->engine();
    *bound = Bound();
    Status status = view != nullptr ? engine->NewLazyView(view) : Status::OK();
    if (!status.ok()) return status;
    const ReadView* const at = view != nullptr ? view->get() : nullptr;
    const std::string stamp_key = keys::SchemaStampKey((*bound)->schema.number());
    const uint64_t read_at = (*bound)->stamp_read_at.load(std::memory_order_acquire);
    if (at != nullptr && read_at != 0 && engine->KeyUnchanged(stamp_key, read_at, at)) return status;
    std::string stamp;
    bool found = false;
    status = engine->Get(at, stamp_key, &stamp, &found);
    if (!status.ok()) return status;
    if (stamp == (*bound)->schema.stamp()) {
        uint64_t position = 0;
        if (at != nullptr && engine->ViewPosition(at, &position)) {
            (*bound)->stamp_read_at.store(position, std::memory_order_release);
        }
        return status;
    }
    status = Rebind(*bound);
    if (status.ok()) *bound = Bound();
    if (status.ok() && view != nullptr) status = engine->NewLazyView(view);
    return status;
}

Status TableImpl::BoundForLookup(std::string_view index, std::unique_ptr<ReadView>* view,
                                 std::shared_ptr<const Binding>* bound) {
    Status status = Current(view, bound);
    if (!status.ok() || !(*bound)->schema.IsBuilding(index)) return status;
    TableState state;
    status = ReadTableState(m_context->engine(), nullptr, m_name, &state);
    if (!status.ok()) return status;
    const std::vector<BatchWork>& building = state.table.building;
    const auto work = std::find_if(building.begin(), building.end(),
                                   [index](const BatchWork& work) { return work.name == index; });
    if (work == building.end()) {
        // It became ready since the stamp was read: bind that.
        status = Rebind(*bound);
        if (status.ok()) *bound = Bound();
        return status;
    }
    return Status::Busy("table " + m_name + ": index " + std::string(index) + " is being built, " +
                        std::to_string(work->done) + " of " + std::to_string(std::max(work->done, work->total)) +
                        " records; lookups on it are refused until it is ready");
}

Status TableImpl::Put(const Message& record) {
    return NoThrow([&] {
        return WriteBound([&](const Binding& bound, bool* moved) { return bound.writer.Put(record, moved); });
    });
}

Status TableImpl::Update(const Message& record, const std::vector<std::string>& paths) {
    return NoThrow([&] {
        return WriteBound(
            [&](const Binding& bound, bool* moved) { return bound.writer.Update(record, paths, moved); });
    });
}

Status TableImpl::Get(const Message& key, const std::vector<std::string>& paths, Message* out,
                      std::set<std::string>* failed_paths) {
    return NoThrow([&] { return Bound()->reader.Get(key, paths, out, failed_paths); });
}

Status TableImpl::Delete(const Message& key) {
    return NoThrow([&] {
        return WriteBound([&](const Binding& bound, bool* moved) { return bound.writer.Delete(key, moved); });
    });
}

Status TableImpl::Write(const std::vector<WriteOp>& writes, WriteReport* report) {
    return NoThrow([&] {
        if (report == nullptr) return Status::InvalidArgument("table " + name() + ": Write without a report");
        *report = WriteReport();
        // A schema that moves in the middle of the call binds the table again
        // and goes on from the first write not committed.
        for (int rebinds = 0;; ++rebinds) {
            const std::shared_ptr<const Binding> bound = Bound();
            bool moved = false;
            Status status = bound->bulk.Write(writes, report, &moved);
            if (!moved || rebinds == kMaxRebinds) return status;
            status = Rebind(bound);
            if (!status.ok()) return status;
        }
    });
}

Status TableImpl::FindByIndex(std::string_view index, const Message& index_fields, std::vector<Record>* records,
                              size_t limit) {
    return NoThrow([&] {
        if (records == nullptr) return Status::InvalidArgument("table " + name() + ": FindByIndex without an output");
        std::unique_ptr<ReadView> view;
        std::shared_ptr<const Binding> bound;
        Status status = BoundForLookup(index, &view, &bound);
        if (!status.ok()) return status;
        Page page;
        page.limit = limit;
        return bound->reader.Find(index, index_fields, page, AppendTo(records), nullptr, view.get());
    });
}

Status TableImpl::Scan(const Message* shard, size_t limit, std::vector<Record>* records) {
    return NoThrow([&] {
        if (records == nullptr) return Status::InvalidArgument("table " + name() + ": Scan without an output");
        Page page;
        page.limit = limit;
        return Bound()->reader.Scan(shard, page, AppendTo(records), nullptr);
    });
}

Status TableImpl::ScanEach(const Message* shard, const Page& page, const RecordVisitor& visit, std::string* next) {
    return NoThrow([&] {
        if (!visit) return Status::InvalidArgument("table " + name() + ": ScanEach without a visitor");
        return Bound()->reader.Scan(shard, page, visit, next);
    });
}

Status TableImpl::FindEach(std::string_view index, const Message& index_fields, const Page& page,
                           const RecordVisitor& visit, std::string* next) {
    return NoThrow([&] {
        if (!visit) return Status::InvalidArgument("table " + name() + ": FindEach without a visitor");
        std::unique_ptr<ReadView> view;
        std::shared_ptr<const Binding> bound;
        Status status = BoundForLookup(index, &view, &bound);
        if (!status.ok()) return status;
        return bound->reader.Find(index, index_fields, page, visit, next, view.get());
    });
}

Status TableImpl::Count(const Message* shard, uint64_t* count) {
    return NoThrow([&] { return Bound()->reader.Count(shard, count); });
}

Status TableImpl::CountIndex(std::string_view index, const Message& index_fields, uint64_t* count) {
    return NoThrow([&] {
        std::shared_ptr<const Binding> bound;
        Status status = BoundForLookup(index, nullptr, &bound);
        if (!status.ok()) return status;
        return bound->reader.CountIndex(index, index_fields, count);
    });
}

Status TableImpl::Verify() { return Verify(nullptr, ProgressCallback()); }

Status TableImpl::Verify(VerifyCounts* counts, const ProgressCallback& progress) {
    return NoThrow([&] {
        std::shared_ptr<const Binding> bound;
        Status status = Current(nullptr, &bound);
        if (!status.ok()) return status;
        VerifyCounts found;
        status = VerifyTable(m_context.get(), bound->schema, bound->reader, &found, progress);
        if (counts != nullptr) *counts = status.ok() ? found : VerifyCounts();
        if (!status.ok() || (found.missing == 0 && found.orphans == 0)) return status;
        return Status::Corruption("table " + name() + ": " + std::to_string(found.missing) +
                                  " index or shard entries missing, " + std::to_string(found.orphans) +
                                  " entries without their record, in " + std::to_string(found.records) + " records");
    });
}

}  // namespace store
}  // namespace corvida
