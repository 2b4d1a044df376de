// What the table store's tests share: temporary directories, schema blobs of
// compiled types, a KV API with the tests' cipher suite, raw access to the
// RocksDB database under a store.
#ifndef CORVIDA_TESTS_STORE_STORE_TEST_SUPPORT_H_
#define CORVIDA_TESTS_STORE_STORE_TEST_SUPPORT_H_

#include <map>
#include <memory>
#include <string>
#include <vector>

#include <google/protobuf/descriptor.h>

#include "protobuf_api/corvida_kv_api.h"
#include "store/table_store.h"

namespace corvida_store_test {

// The key of the suite "aes128" of the test tables, and another key.
constexpr char kAesKeyHex[] = "000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f";
constexpr char kOtherAesKeyHex[] = "ffeeddccbbaa99887766554433221100f0debc9a78563412efcdab8967452301";

// A new empty directory under the system's temporary directory, removed with
// everything in it when the object goes.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return m_path; }
    // A path inside the directory (not created).
    std::string Sub(const std::string& name) const { return m_path + "/" + name; }

private:
    std::string m_path;
};

// The positive integer in environment variable name, else fallback.
int EnvInt(const char* name, int fallback);

// The schema blob of desc's file: the files it imports (recursively) first,
// then the file itself.
std::string SchemaBlob(const google::protobuf::Descriptor* desc);

// A KV API holding the suite "aes128" with the key given in hex.
std::unique_ptr<CORVIDA_KV::CorvidaKVApi> AesKv(const char* key_hex = kAesKeyHex);

// Opens the store in dir, creating it, with options otherwise default.
corvida::store::Status OpenStore(const std::string& dir, std::unique_ptr<corvida::store::TableStore>* store,
                                 bool sync = false);

// Every key and value of the RocksDB database in dir (which no store holds).
std::map<std::string, std::string> RawContents(const std::string& dir);

// Writes key = value into the RocksDB database in dir (which no store holds),
// creating the database if there is none.
void RawPut(const std::string& dir, const std::string& key, const std::string& value);

// Writes the pairs of puts and deletes the keys of deletes in one write batch
// of the RocksDB database in dir (which no store holds).
void RawWrite(const std::string& dir, const std::map<std::string, std::string>& puts,
              const std::vector<std::string>& deletes);

// Rewrites the store in dir (which no store holds) in key layout 1, as the
// first version of the store wrote it: tables under their short names,
// lengths before keys, empty row markers. For the tests of the upgrade.
void RewriteInLayout1(const std::string& dir);

// A process started with posix_spawn, its standard output on a pipe.
struct Child {
    int pid = -1;
    int out = -1;  // read end of the child's standard output
};

// Starts program with args (argv[0] is program); false when it cannot.
bool Spawn(const std::string& program, const std::vector<std::string>& args, Child* child);

// Everything the child wrote to its standard output until it closed it.
std::string ReadAll(Child* child);

// Appends what the child writes to *out until a whole line is there; false
// when none came within timeout_ms.
bool ReadLine(Child* child, std::string* out, int timeout_ms);

// Waits at most timeout_ms for the child to exit. Returns its exit status, or
// -1 when it did not exit in time (it is then killed).
int WaitExit(const Child& child, int timeout_ms);

}  // namespace corvida_store_test

#endif  // CORVIDA_TESTS_STORE_STORE_TEST_SUPPORT_H_
