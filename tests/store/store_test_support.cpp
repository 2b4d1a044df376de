#include "store_test_support.h"

#include <cstdlib>
#include <filesystem>
#include <set>
#include <vector>

#include <google/protobuf/descriptor.pb.h>
#include <gtest/gtest.h>
#include <rocksdb/db.h>
#include <rocksdb/iterator.h>
#include <rocksdb/write_batch.h>

#include <chrono>
#include <thread>

#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "corvida_store_catalog.pb.h"
#include "protobuf_api/aes_siv_cipher_suite.h"
#include "store/key_format.h"
#include "store/catalog.h"

extern char** environ;

namespace corvida_store_test {

namespace {

void AddFile(const google::protobuf::FileDescriptor* file, std::set<std::string>* added,
             google::protobuf::FileDescriptorSet* set) {
    if (!added->insert(file->name()).second) return;
    for (int i = 0; i < file->dependency_count(); ++i) AddFile(file->dependency(i), added, set);
    file->CopyTo(set->add_file());
}

std::unique_ptr<rocksdb::DB> OpenRaw(const std::string& dir) {
    rocksdb::Options options;
    options.create_if_missing = true;
    rocksdb::DB* db = nullptr;
    rocksdb::Status s = rocksdb::DB::Open(options, dir, &db);
    EXPECT_TRUE(s.ok()) << s.ToString();
    return std::unique_ptr<rocksdb::DB>(db);
}

namespace keys = corvida::store::keys;

void AppendCounted(std::string* out, std::string_view bytes, int width) {
    for (int shift = 8 * (width - 1); shift >= 0; shift -= 8) {
        out->push_back(static_cast<char>((bytes.size() >> shift) & 0xff));
    }
    out->append(bytes.data(), bytes.size());
}

// One key of layout 2 and its value in layout 1; false for the keys layout 1
// did not have.
bool InLayout1(std::string_view key, std::string_view value, std::string* key_out, std::string* value_out) {
    const char space = key[0];
    std::string_view rest = key.substr(1);
    if (space == keys::kCatalog) {
        corvida::store::format::CatalogEntry entry;
        EXPECT_TRUE(entry.ParseFromArray(value.data(), static_cast<int>(value.size())));
        *key_out = std::string(1, keys::kCatalog) + std::string(corvida::store::ShortName(rest));
        value_out->clear();
        keys::AppendU32(value_out, entry.number());
        value_out->append(entry.schema_blob());
        return true;
    }
    if (space != keys::kRow && space != keys::kIndex && space != keys::kShard) return false;
    *key_out = std::string(key.substr(0, 5));
    rest.remove_prefix(4);
    std::string first;
    std::string second;
    if (space == keys::kRow) {
        EXPECT_TRUE(keys::ReadEscaped(&rest, &first));
        AppendCounted(key_out, first, 2);
        key_out->append(rest.data(), rest.size());
        *value_out = rest.empty() ? std::string() : std::string(value);
        return true;
    }
    if (space == keys::kIndex) {
        EXPECT_TRUE(keys::ReadEscaped(&rest, &first));
        AppendCounted(key_out, first, 1);
    }
    std::string pk;
    EXPECT_TRUE(keys::SplitSecondaryKey(rest, &second, &pk));
    AppendCounted(key_out, second, 2);
    key_out->append(pk);
    value_out->clear();
    return true;
}

}  // namespace

void RewriteInLayout1(const std::string& dir) {
    std::unique_ptr<rocksdb::DB> db = OpenRaw(dir);
    rocksdb::WriteBatch batch;
    std::unique_ptr<rocksdb::Iterator> it(db->NewIterator(rocksdb::ReadOptions()));
    for (it->SeekToFirst(); it->Valid(); it->Next()) {
        const std::string key = it->key().ToString();
        batch.Delete(key);
        std::string key_out;
        std::string value_out;
        if (InLayout1(key, it->value().ToString(), &key_out, &value_out)) batch.Put(key_out, value_out);
    }
    batch.Put(std::string(keys::kLayoutKey), "1");
    ASSERT_TRUE(db->Write(rocksdb::WriteOptions(), &batch).ok());
}

TempDir::TempDir() {
    const char* tmp = std::getenv("TMPDIR");
    std::string pattern = std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/corvida-store-XXXXXX";
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    if (mkdtemp(name.data()) == nullptr) ADD_FAILURE() << "mkdtemp failed for " << pattern;
    m_path = name.data();
}

TempDir::~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(m_path, ec);
}

int EnvInt(const char* name, int fallback) {
    const char* text = std::getenv(name);
    const int value = text != nullptr ? std::atoi(text) : 0;
    return value > 0 ? value : fallback;
}

std::string SchemaBlob(const google::protobuf::Descriptor* desc) {
    google::protobuf::FileDescriptorSet set;
    std::set<std::string> added;
    AddFile(desc->file(), &added, &set);
    return set.SerializeAsString();
}

std::unique_ptr<CORVIDA_KV::CorvidaKVApi> AesKv(const char* key_hex) {
    std::unique_ptr<CORVIDA_KV::CorvidaKVApi> kv(new CORVIDA_KV::CorvidaKVApi);
    std::unique_ptr<AesSivCipherSuite> suite(new AesSivCipherSuite("aes128"));
    EXPECT_EQ(0, suite->Init(key_hex));
    EXPECT_EQ(0, kv->AddCipherSuite(std::move(suite)));
    return kv;
}

corvida::store::Status OpenStore(const std::string& dir, std::unique_ptr<corvida::store::TableStore>* store,
                                 bool sync) {
    corvida::store::StoreOptions options;
    options.create_if_missing = true;
    options.sync = sync;
    return corvida::store::TableStore::Open(dir, options, store);
}

std::map<std::string, std::string> RawContents(const std::string& dir) {
    std::map<std::string, std::string> contents;
    std::unique_ptr<rocksdb::DB> db = OpenRaw(dir);
    if (db == nullptr) return contents;
    std::unique_ptr<rocksdb::Iterator> it(db->NewIterator(rocksdb::ReadOptions()));
    for (it->SeekToFirst(); it->Valid(); it->Next()) contents[it->key().ToString()] = it->value().ToString();
    EXPECT_TRUE(it->status().ok()) << it->status().ToString();
    return contents;
}

void RawPut(const std::string& dir, const std::string& key, const std::string& value) {
    RawWrite(dir, {{key, value}}, {});
}

void RawWrite(const std::string& dir, const std::map<std::string, std::string>& puts,
              const std::vector<std::string>& deletes) {
    std::unique_ptr<rocksdb::DB> db = OpenRaw(dir);
    if (db == nullptr) return;
    rocksdb::WriteBatch batch;
    for (const auto& pair : puts) batch.Put(pair.first, pair.second);
    for (const std::string& key : deletes) batch.Delete(key);
    rocksdb::Status s = db->Write(rocksdb::WriteOptions(), &batch);
    EXPECT_TRUE(s.ok()) << s.ToString();
}

bool Spawn(const std::string& program, const std::vector<std::string>& args, Child* child) {
    int fds[2];
    if (pipe(fds) != 0) return false;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
    posix_spawn_file_actions_addclose(&actions, fds[0]);
    posix_spawn_file_actions_addclose(&actions, fds[1]);
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(program.c_str()));
    for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);
    pid_t pid = -1;
    const int ret = posix_spawn(&pid, program.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(fds[1]);
    if (ret != 0) {
        close(fds[0]);
        return false;
    }
    child->pid = pid;
    child->out = fds[0];
    return true;
}

std::string ReadAll(Child* child) {
    std::string text;
    char buf[4096];
    ssize_t n = 0;
    while ((n = read(child->out, buf, sizeof(buf))) > 0) text.append(buf, static_cast<size_t>(n));
    close(child->out);
    child->out = -1;
    return text;
}

bool ReadLine(Child* child, std::string* out, int timeout_ms) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    char buf[256];
    while (out->find('\n') == std::string::npos) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        pollfd fd = {child->out, POLLIN, 0};
        if (left.count() <= 0 || poll(&fd, 1, static_cast<int>(left.count())) <= 0) return false;
        const ssize_t n = read(child->out, buf, sizeof(buf));
        if (n <= 0) return false;
        out->append(buf, static_cast<size_t>(n));
    }
    return true;
}

int WaitExit(const Child& child, int timeout_ms) {
    int status = 0;
    for (int waited = 0; waited <= timeout_ms; waited += 10) {
        if (waitpid(child.pid, &status, WNOHANG) == child.pid) return WIFEXITED(status) ? WEXITSTATUS(status) : 128;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    kill(child.pid, SIGKILL);
    waitpid(child.pid, &status, 0);
    return -1;
}

}  // namespace corvida_store_test
