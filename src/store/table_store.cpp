#include "store/table_store.h"

#include "protobuf_api/protobuf_util.h"
#include "store/catalog.h"
#include "store/describe.h"
#include "store/evolution.h"
#include "store/index_build.h"
#include "store/key_format.h"
#include "store/rocksdb_engine.h"
#include "store/store_context.h"
#include "store/table_impl.h"
#include "store/store_open.h"
#include "store/upgrade.h"
#include "store/etcd_locator.h"
#if CORVIDA_STORE_HAS_ETCD
#include "store/etcd_module.h"
#endif

namespace corvida {
namespace store {

namespace {

RocksEngineOptions RocksOptions(const StoreOptions& options) {
    RocksEngineOptions rocks;
    rocks.create_if_missing = options.create_if_missing;
    rocks.read_only = options.read_only;
    rocks.sync = options.sync;
    rocks.wait_seconds = options.wait_seconds;
    rocks.log = options.log;
    return rocks;
}

Status OpenEngine(const std::string& where, const StoreOptions& options, std::unique_ptr<Engine>* engine,
                  NewStore* made) {
    if (IsEtcdLocator(where)) {
#if CORVIDA_STORE_HAS_ETCD
        return OpenEtcdEngineModule(where, options, engine);
#else
        return Status::NotSupported(where + ": this build of the table store has no etcd engine");
#endif
    }
    return OpenRocksEngine(where, RocksOptions(options), engine, made);
}

class TableStoreImpl : public TableStore {
public:
    explicit TableStoreImpl(std::shared_ptr<StoreContext> context)
        : m_context(std::move(context)), m_catalog(m_context->engine()) {}

    Status CreateTable(std::string_view schema_blob, std::string_view type_name) override;
    Status ListTables(std::vector<TableInfo>* tables) const override;
    Status OpenTable(const google::protobuf::Message& prototype, CORVIDA_KV::CorvidaKVApi* kv,
                     std::unique_ptr<Table>* table) override;
    Status Compact() override {
        return NoThrow([&] { return m_context->engine()->Compact(); });
    }
    Status AlterTable(std::string_view schema_blob, std::string_view type_name, const AlterOptions& options,
                      AlterPlan* plan) override {
        return NoThrow([&] { return AlterStoredTable(m_context.get(), schema_blob, type_name, options, plan); });
    }
    Status BuildIndex(std::string_view table, std::string_view index, CORVIDA_KV::CorvidaKVApi* kv,
                      const WorkProgress& progress) override {
        return NoThrow([&] { return RunIndexWork(m_context.get(), table, index, kv, progress); });
    }
    Status DescribeTable(std::string_view table, TableDescription* description) override {
        return NoThrow([&] { return DescribeStoredTable(m_context.get(), table, description); });
    }
    Status DropTable(std::string_view table, const WorkProgress& progress) override {
        return NoThrow([&] { return DropStoredTable(m_context.get(), table, progress); });
    }
    const std::string& dir() const override { return m_context->engine()->locator(); }

private:
    std::shared_ptr<StoreContext> m_context;
    Catalog m_catalog;
};

Status TableStoreImpl::CreateTable(std::string_view schema_blob, std::string_view type_name) {
    return NoThrow([&] {
        if (type_name.empty()) return Status::InvalidArgument("CreateTable: empty table name");
        const std::string short_name(ShortName(type_name));
        // The blob must load now, as every OpenTable will load it.
        ErrorLines errors;
        PROTOBUF_UTIL::MsgDescGroup group;
        if (PROTOBUF_UTIL::FillMessageGroup(short_name, std::string(schema_blob), &group, errors.category()) ==
            nullptr) {
            std::string why = errors.text().empty() ? "the blob has no top-level message " + short_name : errors.text();
            return Status::InvalidArgument("table " + std::string(type_name) + ": the schema blob does not load: " +
                                           why);
        }
        const std::string& full_name = group.m_desc->full_name();
        if (type_name != short_name && type_name != full_name) {
            return Status::InvalidArgument("table " + std::string(type_name) + ": the schema blob holds " + full_name +
                                           " under that short name");
        }
        for (const auto& index : group.m_mapIndex) {
            if (index.first.size() > keys::kMaxIndexNameBytes) {
                return Status::InvalidArgument("table " + full_name + ": an index name is longer than 255 bytes");
            }
        }
        return m_catalog.Add(full_name, schema_blob);
    });
}

Status TableStoreImpl::ListTables(std::vector<TableInfo>* tables) const {
    return NoThrow([&] {
        if (tables == nullptr) return Status::InvalidArgument("ListTables: null output");
        std::vector<CatalogTable> entries;
        Status status = m_catalog.List(&entries);
        if (!status.ok()) return status;
        for (CatalogTable& entry : entries) {
            tables->push_back(TableInfo{std::move(entry.name), std::move(entry.schema_blob)});
        }
        return Status::OK();
    });
}

Status TableStoreImpl::OpenTable(const google::protobuf::Message& prototype, CORVIDA_KV::CorvidaKVApi* kv,
                                 std::unique_ptr<Table>* table) {
    return NoThrow([&] {
        if (table == nullptr) return Status::InvalidArgument("OpenTable: null output");
        table->reset();
        const google::protobuf::Descriptor* desc = prototype.GetDescriptor();
        CatalogTable entry;
        Status status = m_catalog.Find(desc->full_name(), &entry);
        if (status.IsNotFound()) status = m_catalog.Find(desc->name(), &entry);
        if (status.IsNotFound()) {
            return Status::NotFound("no table " + desc->full_name() + " in the store (" + m_catalog.Held() + ")");
        }
        if (!status.ok()) return status;
        if (entry.dropped) return TableBeingDropped(entry.name);
        return TableImpl::Open(m_context, entry, prototype, kv, table);
    });
}

}  // namespace

// Writes the layout of a new store, or checks the layout of an old one.
Status PrepareLayout(Engine* engine, const StoreOptions& options) {
    LayoutState layout;
    Status status = CheckLayout(engine, &layout);
    if (!status.ok() || !layout.empty) return status;
    if (!options.create_if_missing || engine->read_only()) {
        return Status::NotFound("no table store in " + engine->locator());
    }
    EngineBatch batch;
    batch.ExpectAbsent(keys::kLayoutKey);
    batch.Put(keys::kLayoutKey, std::to_string(keys::kLayoutVersion));
    bool committed = false;
    status = engine->Commit(batch, &committed);
    if (!status.ok()) return status;
    // Another process created the store at the same moment: check its layout.
    return committed ? Status::OK() : CheckLayout(engine, &layout);
}

Status OpenStoreOnEngine(std::unique_ptr<Engine> engine, const StoreOptions& options,
                         std::unique_ptr<TableStore>* store) {
    Status status = PrepareLayout(engine.get(), options);
    if (status.ok()) store->reset(new TableStoreImpl(std::make_shared<StoreContext>(std::move(engine), options.log)));
    return status;
}

Status TableStore::Open(std::string_view where, const StoreOptions& options, std::unique_ptr<TableStore>* store) {
    return NoThrow([&] {
        if (store == nullptr) return Status::InvalidArgument("TableStore::Open: null output");
        store->reset();
        const std::string path(where);
        if (path.empty()) return Status::InvalidArgument("TableStore::Open: empty directory name");
        std::unique_ptr<Engine> engine;
        NewStore made;
        Status status = OpenEngine(path, options, &engine, &made);
        if (!status.ok()) return status;
        status = OpenStoreOnEngine(std::move(engine), options, store);
        if (!status.ok() && made.database) DiscardNewStore(path, made);
        return status;
    });
}

Status UpgradeStore(std::string_view dir, const StoreOptions& options, bool* upgraded) {
    return NoThrow([&] {
        if (upgraded == nullptr) return Status::InvalidArgument("UpgradeStore: null output");
        *upgraded = false;
        const std::string path(dir);
        if (IsEtcdLocator(path)) return Status::NotSupported(path + ": stores on etcd are never of an older layout");
        RocksEngineOptions rocks = RocksOptions(options);
        rocks.create_if_missing = false;
        rocks.read_only = false;
        rocks.sync = true;
        std::unique_ptr<Engine> engine;
        NewStore made;
        Status status = OpenRocksEngine(path, rocks, &engine, &made);
        if (!status.ok()) return status;
        return UpgradeLayout(engine.get(), upgraded);
    });
}

#if !CORVIDA_STORE_HAS_ETCD
// No engine of this build has a runtime that writes lines of its own.
void SetRuntimeLog(RuntimeLogFunction) {}
#endif

Status RepairStore(std::string_view dir, std::vector<std::string>* report) {
    return NoThrow([&] {
        if (report == nullptr) return Status::InvalidArgument("RepairStore: null output");
        const std::string path(dir);
        if (IsEtcdLocator(path)) return Status::NotSupported(path + ": an etcd cluster repairs itself");
        return RepairRocksDatabase(path, report);
    });
}

}  // namespace store
}  // namespace corvida
