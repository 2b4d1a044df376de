#include "store/table_store.h"

#include <charconv>
#include <filesystem>
#include <system_error>

#include <rocksdb/iterator.h>
#include <rocksdb/options.h>

#include "protobuf_api/protobuf_util.h"
#include "store/key_layout.h"
#include "store/store_core.h"

namespace corvida {
namespace store {

namespace {

namespace fs = std::filesystem;

// RocksDB's options for a store. Its own LOG files are kept few.
rocksdb::Options DatabaseOptions(bool create) {
    rocksdb::Options options;
    options.create_if_missing = create;
    options.keep_log_file_num = 4;
    return options;
}

// What the directory holds before any database is opened.
enum class DirState { kMissingOrEmpty, kDatabase, kOtherFiles, kNotADirectory };

Status InspectDir(const std::string& dir, DirState* state) {
    std::error_code ec;
    const fs::file_status st = fs::status(dir, ec);
    if (ec && ec != std::errc::no_such_file_or_directory) return Status::IOError(dir + ": " + ec.message());
    if (!fs::exists(st)) {
        *state = DirState::kMissingOrEmpty;
    } else if (!fs::is_directory(st)) {
        *state = DirState::kNotADirectory;
    } else if (fs::exists(fs::path(dir) / "CURRENT", ec)) {
        *state = DirState::kDatabase;
    } else {
        const bool empty = fs::is_empty(dir, ec);
        if (ec) return Status::IOError(dir + ": " + ec.message());
        *state = empty ? DirState::kMissingOrEmpty : DirState::kOtherFiles;
    }
    return Status::OK();
}

// Reads the layout version of the database in dir without writing to it
// (read-only: a database that turns out not to be a store is left as it
// was). *fresh is set for a database without any key, which a crash right
// after its creation leaves behind.
Status CheckLayout(const std::string& dir, bool* fresh) {
    rocksdb::DB* raw = nullptr;
    rocksdb::Status s = rocksdb::DB::OpenForReadOnly(DatabaseOptions(false), dir, &raw);
    if (!s.ok()) return FromRocks(s, "opening " + dir);
    std::unique_ptr<rocksdb::DB> db(raw);
    std::string value;
    s = db->Get(rocksdb::ReadOptions(), layout::kLayoutKey, &value);
    if (s.IsNotFound()) {
        std::unique_ptr<rocksdb::Iterator> it(db->NewIterator(rocksdb::ReadOptions()));
        it->SeekToFirst();
        if (!it->status().ok()) return FromRocks(it->status(), "reading " + dir);
        if (it->Valid()) return Status::InvalidArgument(dir + " is a RocksDB database but not a table store");
        *fresh = true;
        return Status::OK();
    }
    if (!s.ok()) return FromRocks(s, "reading the layout version of " + dir);
    int version = 0;
    const std::from_chars_result parsed = std::from_chars(value.data(), value.data() + value.size(), version);
    if (parsed.ec != std::errc() || parsed.ptr != value.data() + value.size() || version < 1) {
        return Status::Corruption(dir + ": the layout version of the store is not a number");
    }
    if (version > layout::kVersion) {
        return Status::NotSupported(dir + " is a table store of key layout " + std::to_string(version) +
                                    ", newer than this library reads (layout " + std::to_string(layout::kVersion) +
                                    "); open it with a newer version");
    }
    return Status::OK();
}

// The number after the largest table number of the catalog.
Status NextTableId(rocksdb::DB* db, uint32_t* next) {
    *next = 1;
    std::unique_ptr<rocksdb::Iterator> it(db->NewIterator(rocksdb::ReadOptions()));
    const std::string start(1, layout::kCatalog);
    for (it->Seek(start); it->Valid() && it->key().starts_with(start); it->Next()) {
        if (it->value().size() < 4) continue;  // reported when the table is opened
        const uint32_t id = layout::ReadU32(std::string_view(it->value().data(), 4));
        if (id >= *next) *next = id + 1;
    }
    return FromRocks(it->status(), "reading the catalog");
}

}  // namespace

// ---------------------------------------------------------------------------
// Shared pieces.
// ---------------------------------------------------------------------------

ScratchPool::Lease ScratchPool::Acquire() {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_free.empty()) {
            std::unique_ptr<Scratch> scratch = std::move(m_free.back());
            m_free.pop_back();
            return Lease(this, std::move(scratch));
        }
    }
    return Lease(this, std::unique_ptr<Scratch>(new Scratch));
}

void ScratchPool::Return(std::unique_ptr<Scratch> scratch) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_free.push_back(std::move(scratch));
}

ErrorLines::ErrorLines() {
    plog_category_init(&m_category, "corvida-store", PLOG_PRIORITY_ERROR);
    m_category.pfnWrite = &ErrorLines::Sink;
    m_category.pvWriteCtx = this;
}

void ErrorLines::Sink(void* ctx, const PLOGEVENT* /*event*/, const char* msg, size_t len) {
    std::string& text = static_cast<ErrorLines*>(ctx)->m_text;
    if (!text.empty()) text += "; ";
    text.append(msg, len);
}

TableStore::Core::Core(std::string dir, std::unique_ptr<rocksdb::DB> db, const StoreOptions& options,
                       uint32_t next_table_id)
    : m_dir(std::move(dir)), m_db(std::move(db)), m_next_table_id(next_table_id) {
    m_write_options.sync = options.sync;
    plog_category_init(&m_silent, "corvida-store", PLOG_PRIORITY_FATAL);
    m_log = options.log != nullptr ? options.log : &m_silent;
}

Status TableStore::Core::AddTable(std::string_view name, std::string_view blob) {
    const std::string key = layout::CatalogKey(name);
    std::lock_guard<std::mutex> lock(m_catalog_mutex);
    std::string existing;
    rocksdb::Status s = m_db->Get(rocksdb::ReadOptions(), key, &existing);
    if (s.ok()) return Status::AlreadyExists("table " + std::string(name) + " already exists");
    if (!s.IsNotFound()) return FromRocks(s, "reading the catalog");
    std::string value;
    layout::AppendU32(&value, m_next_table_id);
    value.append(blob);
    s = m_db->Put(m_write_options, key, value);
    if (!s.ok()) return FromRocks(s, "adding table " + std::string(name));
    ++m_next_table_id;
    return Status::OK();
}

Status FromRocks(const rocksdb::Status& s, const std::string& context) {
    if (s.ok()) return Status::OK();
    const std::string message = context + ": " + s.ToString();
    if (s.IsCorruption()) return Status::Corruption(message);
    if (s.IsNotFound()) return Status::NotFound(message);
    if (s.IsNotSupported()) return Status::NotSupported(message);
    if (s.IsInvalidArgument()) return Status::InvalidArgument(message);
    // RocksDB reports a LOCK file held by another process, or by this one
    // ("lock hold by current process"), as an I/O error naming the lock.
    if (s.IsIOError() && s.ToString().find("lock") != std::string::npos) {
        const bool here = s.ToString().find("current process") != std::string::npos;
        return Status::Busy(context + ": the store is " +
                            (here ? "already open in this process" : "in use by another process") + " (" +
                            s.ToString() + ")");
    }
    return Status::IOError(message);
}

// ---------------------------------------------------------------------------
// TableStore.
// ---------------------------------------------------------------------------

TableStore::TableStore(std::shared_ptr<Core> core) : m_core(std::move(core)) {}

TableStore::~TableStore() = default;

const std::string& TableStore::dir() const { return m_core->dir(); }

Status TableStore::Open(std::string_view dir, const StoreOptions& options, std::unique_ptr<TableStore>* store) {
    return NoThrow([&] {
        if (store == nullptr) return Status::InvalidArgument("TableStore::Open: null output");
        store->reset();
        const std::string path(dir);
        if (path.empty()) return Status::InvalidArgument("TableStore::Open: empty directory name");

        DirState state;
        Status status = InspectDir(path, &state);
        if (!status.ok()) return status;
        bool fresh = false;
        switch (state) {
            case DirState::kNotADirectory: return Status::InvalidArgument(path + " is not a directory");
            case DirState::kOtherFiles:
                return Status::InvalidArgument(path + " holds files but no table store; give an empty or new directory");
            case DirState::kMissingOrEmpty:
                if (!options.create_if_missing) return Status::NotFound("no table store in " + path);
                fresh = true;
                break;
            case DirState::kDatabase:
                status = CheckLayout(path, &fresh);
                if (!status.ok()) return status;
                if (fresh && !options.create_if_missing) return Status::NotFound("no table store in " + path);
                break;
        }

        rocksdb::DB* raw = nullptr;
        rocksdb::Status s = rocksdb::DB::Open(DatabaseOptions(fresh), path, &raw);
        if (!s.ok()) return FromRocks(s, "opening " + path);
        std::unique_ptr<rocksdb::DB> db(raw);
        if (fresh) {
            rocksdb::WriteOptions durable;
            durable.sync = true;
            s = db->Put(durable, layout::kLayoutKey, std::to_string(layout::kVersion));
            if (!s.ok()) return FromRocks(s, "creating the store in " + path);
        }
        uint32_t next_table_id = 0;
        status = NextTableId(db.get(), &next_table_id);
        if (!status.ok()) return status;
        store->reset(new TableStore(std::make_shared<Core>(path, std::move(db), options, next_table_id)));
        return Status::OK();
    });
}

Status TableStore::CreateTable(std::string_view schema_blob, std::string_view type_name) {
    return NoThrow([&] {
        if (type_name.empty()) return Status::InvalidArgument("CreateTable: empty table name");
        const std::string name(type_name);
        // The blob must load now, as every OpenTable will load it.
        ErrorLines errors;
        PROTOBUF_UTIL::MsgDescGroup group;
        if (PROTOBUF_UTIL::FillMessageGroup(name, std::string(schema_blob), &group, errors.category()) == nullptr) {
            std::string why = errors.text().empty() ? "the blob has no top-level message " + name : errors.text();
            return Status::InvalidArgument("table " + name + ": the schema blob does not load: " + why);
        }
        for (const auto& index : group.m_mapIndex) {
            if (index.first.size() > layout::kMaxIndexNameBytes) {
                return Status::InvalidArgument("table " + name + ": an index name is longer than 255 bytes");
            }
        }
        return m_core->AddTable(type_name, schema_blob);
    });
}

Status TableStore::ListTables(std::vector<TableInfo>* tables) const {
    return NoThrow([&] {
        if (tables == nullptr) return Status::InvalidArgument("ListTables: null output");
        std::unique_ptr<rocksdb::Iterator> it(m_core->db()->NewIterator(rocksdb::ReadOptions()));
        const std::string start(1, layout::kCatalog);
        for (it->Seek(start); it->Valid() && it->key().starts_with(start); it->Next()) {
            const std::string name = it->key().ToString().substr(1);
            if (it->value().size() < 4) return Status::Corruption("the catalog entry of table " + name + " is cut short");
            tables->push_back(TableInfo{name, it->value().ToString().substr(4)});
        }
        return FromRocks(it->status(), "reading the catalog");
    });
}

std::string TableStore::HeldTables() const {
    std::vector<TableInfo> tables;
    if (!ListTables(&tables).ok()) return "its catalog does not read";
    if (tables.empty()) return "it holds no table";
    std::string names = "it holds ";
    for (size_t i = 0; i < tables.size(); ++i) names += (i == 0 ? "" : ", ") + tables[i].name;
    return names;
}

Status TableStore::OpenTable(const google::protobuf::Message& prototype, CORVIDA_KV::CorvidaKVApi* kv,
                             std::unique_ptr<Table>* table) {
    return NoThrow([&] {
        if (table == nullptr) return Status::InvalidArgument("OpenTable: null output");
        table->reset();
        const std::string& name = prototype.GetDescriptor()->name();
        std::string value;
        rocksdb::Status s = m_core->db()->Get(rocksdb::ReadOptions(), layout::CatalogKey(name), &value);
        if (s.IsNotFound()) return Status::NotFound("no table " + name + " in the store (" + HeldTables() + ")");
        if (!s.ok()) return FromRocks(s, "reading the catalog");
        if (value.size() < 4) return Status::Corruption("the catalog entry of table " + name + " is cut short");
        const uint32_t id = layout::ReadU32(value);
        return LoadTable(m_core, name, id, value.substr(4), prototype, kv, table);
    });
}

}  // namespace store
}  // namespace corvida
