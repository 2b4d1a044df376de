// Writes over damaged rows: a record of a test table (indexes and a sharding
// key) is written, fields of its row are overwritten with the input's bytes
// under the input's tag paths (damaged or crafted, as a broken disk or a
// hostile store leaves them), and then the record is put, updated or deleted
// again. Afterwards Verify must find every record with its entries and every
// entry with its record: a write never leaves an entry behind, whatever the
// stored row held.
//
// The store runs over an engine in memory (a sorted map with views and
// conditional commits), so that each input costs microseconds.
//
// Input (FuzzedDataProvider): the table, the first record's fields, up to
// eight damaged fields (tag path, bytes), the write (put, update of chosen
// paths, delete) and the second record's fields.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include <google/protobuf/descriptor.pb.h>

#include "fuzz_support.h"
#include "protobuf_api/protobuf_util.h"
#include "store/engine.h"
#include "store/key_format.h"
#include "store/store_open.h"
#include "store/table_store.h"

namespace {

using corvida::store::Engine;
using corvida::store::EngineBatch;
using corvida::store::EngineLimits;
using corvida::store::ReadView;
using corvida::store::Status;

// A sorted map: each view is a copy of it.
class MemoryEngine : public Engine {
public:
    const std::string& locator() const override { return m_locator; }
    const char* kind() const override { return "memory map"; }
    bool read_only() const override { return false; }
    const EngineLimits& limits() const override { return m_limits; }

    Status NewView(std::unique_ptr<ReadView>* view) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        view->reset(new View(m_data));
        return Status::OK();
    }

    Status Get(const ReadView* view, std::string_view key, std::string* value, bool* found) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        const std::map<std::string, std::string>& data = Data(view);
        const auto it = data.find(std::string(key));
        *found = it != data.end();
        if (*found) *value = it->second;
        return Status::OK();
    }

    Status Scan(const ReadView* view, std::string_view begin, std::string_view end, const Visitor& visit) override {
        std::map<std::string, std::string> copy;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            copy = Data(view);
        }
        for (auto it = copy.lower_bound(std::string(begin)); it != copy.end(); ++it) {
            if (!end.empty() && it->first >= end) break;
            if (!visit(it->first, it->second)) break;
        }
        return Status::OK();
    }

    Status Commit(const EngineBatch& batch, bool* committed) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        *committed = false;
        for (const EngineBatch::Condition& condition : batch.conditions()) {
            const auto it = m_data.find(condition.key);
            const bool present = it != m_data.end();
            if (present != condition.present || (present && it->second != condition.value)) return Status::OK();
        }
        for (const EngineBatch::Op& op : batch.ops()) {
            if (op.kind == EngineBatch::Op::Kind::kPut) {
                m_data[op.key] = op.value;
            } else {
                m_data.erase(op.key);
            }
        }
        *committed = true;
        return Status::OK();
    }

    Status Compact() override { return Status::NotSupported("a map"); }

    // Writes key outside any commit, as damage does.
    void Damage(const std::string& key, const std::string& value) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_data[key] = value;
    }

private:
    class View : public ReadView {
    public:
        explicit View(std::map<std::string, std::string> data) : data(std::move(data)) {}
        std::map<std::string, std::string> data;
    };

    const std::map<std::string, std::string>& Data(const ReadView* view) const {
        return view != nullptr ? static_cast<const View*>(view)->data : m_data;
    }

    std::string m_locator = "memory";
    EngineLimits m_limits;
    std::mutex m_mutex;
    std::map<std::string, std::string> m_data;
};

// The schema blob of file: the files it imports first, then the file.
void AddFile(const google::protobuf::FileDescriptor* file, google::protobuf::FileDescriptorSet* set) {
    for (const auto& added : set->file()) {
        if (added.name() == file->name()) return;
    }
    for (int i = 0; i < file->dependency_count(); ++i) AddFile(file->dependency(i), set);
    file->CopyTo(set->add_file());
}

// prototype's key fields copied from `from` into to.
void CopyKeyFields(const google::protobuf::Message& from, google::protobuf::Message* to) {
    std::set<std::string> names;
    PROTOBUF_UTIL::ProtobufUtil::GetMsgKeyNames(from, names);
    const google::protobuf::Descriptor* desc = from.GetDescriptor();
    for (const std::string& name : names) {
        const google::protobuf::FieldDescriptor* field = desc->FindFieldByName(name);
        if (field == nullptr) continue;
        to->GetReflection()->ClearField(to, field);
        std::unique_ptr<google::protobuf::Message> one(from.New());
        one->CopyFrom(from);
        std::vector<const google::protobuf::FieldDescriptor*> fields;
        one->GetReflection()->ListFields(*one, &fields);
        for (const google::protobuf::FieldDescriptor* other : fields) {
            if (other != field) one->GetReflection()->ClearField(one.get(), other);
        }
        to->MergeFrom(*one);
    }
}

// The fields of a record of the table from the input: its serialization
// parsed, with key fields set so that a key can be built.
std::unique_ptr<google::protobuf::Message> RecordFrom(FuzzedDataProvider& in, const google::protobuf::Message& prototype) {
    std::unique_ptr<google::protobuf::Message> record(prototype.New());
    record->ParsePartialFromString(in.ConsumeRandomLengthString(256));
    return record;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider in(data, size);
    LPPLOGCATEGORYINST log = corvida_fuzz::QuietLog();
    const auto& tables = corvida_fuzz::TestTables();
    const google::protobuf::Message& prototype = *tables[in.ConsumeIntegralInRange<size_t>(0, tables.size() - 1)];

    auto engine = std::make_unique<MemoryEngine>();
    MemoryEngine* memory = engine.get();
    corvida::store::StoreOptions options;
    options.create_if_missing = true;
    options.log = log;
    std::unique_ptr<corvida::store::TableStore> store;
    FUZZ_CHECK(corvida::store::OpenStoreOnEngine(std::move(engine), options, &store).ok());
    google::protobuf::FileDescriptorSet files;
    AddFile(prototype.GetDescriptor()->file(), &files);
    if (!store->CreateTable(files.SerializeAsString(), prototype.GetDescriptor()->full_name()).ok()) return 0;
    std::unique_ptr<corvida::store::Table> table;
    if (!store->OpenTable(prototype, nullptr, &table).ok()) return 0;  // a table with an encrypted key

    std::unique_ptr<google::protobuf::Message> first = RecordFrom(in, prototype);
    if (!table->Put(*first).ok()) return 0;
    FUZZ_CHECK(table->Verify().ok());

    // Damage the row of the first record.
    std::vector<corvida::store::Record> all;
    FUZZ_CHECK(table->Scan(nullptr, 1, &all).ok() && all.size() == 1);
    std::string row_key;
    {
        std::vector<std::string> keys;
        memory->Scan(nullptr, "R", "S", [&keys](std::string_view key, std::string_view) {
            keys.emplace_back(key);
            return true;
        });
        for (const std::string& key : keys) {
            std::string split_pk;
            std::string_view tag;
            if (corvida::store::keys::SplitRowKey(std::string_view(key).substr(5), &split_pk, &tag) && tag.empty()) {
                row_key = key;
            }
        }
    }
    FUZZ_CHECK(!row_key.empty());
    const int damaged = in.ConsumeIntegralInRange<int>(0, 8);
    std::vector<std::string> damaged_paths;
    for (int i = 0; i < damaged; ++i) {
        std::string tag_path = in.ConsumeBool() ? corvida_fuzz::PickTagPath(in, prototype.GetDescriptor())
                                                : in.ConsumeRandomLengthString(16);
        // A key that continues the row's key with FF is one of another row.
        if (!tag_path.empty() && static_cast<uint8_t>(tag_path[0]) == 0xff) tag_path[0] = '9';
        memory->Damage(row_key + tag_path, in.ConsumeRandomLengthString(64));
        damaged_paths.push_back(tag_path);
    }

    // Write over it: the same key, other fields. A put and a delete replace
    // every stored field; an update writes every field outside the key, so
    // that it replaces every stored field under them.
    std::unique_ptr<google::protobuf::Message> keyed = RecordFrom(in, prototype);
    CopyKeyFields(*all[0].message, keyed.get());
    std::set<std::string> key_names;
    PROTOBUF_UTIL::ProtobufUtil::GetMsgKeyNames(prototype, key_names);
    const google::protobuf::Descriptor* desc = prototype.GetDescriptor();
    bool replaces_every_field = true;
    switch (in.ConsumeIntegralInRange<int>(0, 2)) {
        case 0: table->Put(*keyed); break;
        case 1: {
            std::vector<std::string> paths;
            std::set<int> numbers;
            for (int i = 0; i < desc->field_count(); ++i) {
                if (key_names.count(desc->field(i)->name()) != 0) continue;
                paths.push_back(desc->field(i)->name());
                numbers.insert(desc->field(i)->number());
            }
            for (const std::string& path : damaged_paths) {
                size_t digits = 0;
                while (digits < path.size() && digits < 9 && path[digits] >= '0' && path[digits] <= '9') ++digits;
                const bool numbered = digits > 0 && (digits == path.size() || path[digits] == '.');
                if (!numbered || numbers.count(std::stoi(path.substr(0, digits))) == 0) replaces_every_field = false;
            }
            table->Update(*keyed, paths);
            break;
        }
        default: table->Delete(*all[0].message); break;
    }
    if (!replaces_every_field) return 0;  // damage the write does not touch stays damage
    const Status verified = table->Verify();
    if (!verified.ok()) std::fprintf(stderr, "verify: %s\n", verified.ToString().c_str());
    FUZZ_CHECK(verified.ok());
    return 0;
}
