// Where a test's store lives, on each engine the build has: a new temporary
// directory (RocksDB), or a new namespace on the one etcd cluster that a test
// program shares (etcd). The store's engine-neutral suites are parameterized
// over EngineKind and open their stores at StorePlace::where():
//
//   class MyTest : public ::testing::TestWithParam<EngineKind> {
//       StorePlace m_place{GetParam()};
//   };
//   INSTANTIATE_TEST_SUITE_P(Engines, MyTest, ::testing::ValuesIn(StoreEngines()), EngineName);
//
// Test names end in "/RocksDB" or "/Etcd", so that CTest runs the cases of
// each engine as a test of their own (tests/store/CMakeLists.txt).
//
// The shared cluster (3 members on loopback ports chosen free at run time,
// in a temporary directory) is started by the first place that needs it and
// stopped after the last test of the program: a program that runs RocksDB
// cases only starts none.
#ifndef CORVIDA_TESTS_STORE_STORE_PLACE_H_
#define CORVIDA_TESTS_STORE_STORE_PLACE_H_

#include <map>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "store_test_support.h"

namespace corvida_test {
class EtcdCluster;
}

namespace corvida_store_test {

enum class EngineKind { kRocksDB, kEtcd };

// The engines of this build, RocksDB first.
std::vector<EngineKind> StoreEngines();

// "RocksDB" or "Etcd", for test names.
std::string EngineName(const ::testing::TestParamInfo<EngineKind>& info);

// The program's shared etcd cluster (builds with the etcd engine), started
// at the first call; null, with a failure added to the running test, when it
// cannot be started. Call it from the test's main thread only.
corvida_test::EtcdCluster* SharedEtcdCluster();

class StorePlace {
public:
    // A new empty place on kind. When the shared cluster cannot be started
    // the test has failed and where() is empty.
    explicit StorePlace(EngineKind kind);
    ~StorePlace();
    StorePlace(const StorePlace&) = delete;
    StorePlace& operator=(const StorePlace&) = delete;

    EngineKind kind() const { return m_kind; }

    // The directory, or the etcd:// locator, for TableStore::Open.
    const std::string& where() const { return m_where; }

    // Every key and value of the engine under the place, as the store wrote
    // them (without the namespace's prefix). On RocksDB no store may hold the
    // place.
    std::map<std::string, std::string> Contents() const;

    // Writes the pairs of puts and removes the keys of deletes, bypassing the
    // store, in one commit: damage for the tests of Verify. On RocksDB no
    // store may hold the place.
    void RawWrite(const std::map<std::string, std::string>& puts, const std::vector<std::string>& deletes) const;

private:
    EngineKind m_kind;
    std::unique_ptr<TempDir> m_dir;
    std::string m_where;
};

}  // namespace corvida_store_test

#endif  // CORVIDA_TESTS_STORE_STORE_PLACE_H_
