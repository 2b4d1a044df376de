#include "store_place.h"

#include <atomic>

#if CORVIDA_STORE_TEST_ETCD
#include "etcd_test_support.h"
#include "store/etcd_engine.h"
#include "support/etcd_cluster.h"
#endif

namespace corvida_store_test {

namespace {

#if CORVIDA_STORE_TEST_ETCD

// Holds the shared cluster from its first use to the end of the program's
// tests, when GoogleTest tears its environments down on the main thread
// (the thread the members die with).
class SharedClusterEnvironment : public ::testing::Environment {
public:
    corvida_test::EtcdCluster* Get() {
        if (m_cluster == nullptr && !m_failed) {
            m_cluster = corvida_etcd_test::StartCluster();
            m_failed = m_cluster == nullptr;
        } else if (m_failed) {
            ADD_FAILURE() << "the shared etcd cluster did not start (see the first test that asked for it)";
        }
        return m_cluster.get();
    }

    void TearDown() override { m_cluster.reset(); }

private:
    std::unique_ptr<corvida_test::EtcdCluster> m_cluster;
    bool m_failed = false;  // do not wait for a start that failed once again in every test
};

// Registered before main runs, as GoogleTest asks of environments.
SharedClusterEnvironment* const g_shared_cluster =
    static_cast<SharedClusterEnvironment*>(::testing::AddGlobalTestEnvironment(new SharedClusterEnvironment));

// An engine on the place's namespace; null (the test failed) when it cannot
// be opened.
std::unique_ptr<corvida::store::Engine> OpenPlaceEngine(const std::string& locator) {
    std::unique_ptr<corvida::store::Engine> engine;
    EXPECT_TRUE(corvida_etcd_test::IsOk(corvida::store::OpenEtcdEngine(locator, {}, &engine)));
    return engine;
}

#endif  // CORVIDA_STORE_TEST_ETCD

}  // namespace

std::vector<EngineKind> StoreEngines() {
#if CORVIDA_STORE_TEST_ETCD
    return {EngineKind::kRocksDB, EngineKind::kEtcd};
#else
    return {EngineKind::kRocksDB};
#endif
}

std::string EngineName(const ::testing::TestParamInfo<EngineKind>& info) {
    return info.param == EngineKind::kRocksDB ? "RocksDB" : "Etcd";
}

#if CORVIDA_STORE_TEST_ETCD
corvida_test::EtcdCluster* SharedEtcdCluster() { return g_shared_cluster->Get(); }
#endif

StorePlace::StorePlace(EngineKind kind) : m_kind(kind) {
    if (kind == EngineKind::kRocksDB) {
        m_dir.reset(new TempDir());
        m_where = m_dir->path();
        return;
    }
#if CORVIDA_STORE_TEST_ETCD
    // Namespaces are never used twice in one program, and each program has
    // a cluster of its own: every place starts empty.
    static std::atomic<int> s_places{0};
    const corvida_test::EtcdCluster* cluster = SharedEtcdCluster();
    if (cluster != nullptr) m_where = cluster->Locator("place-" + std::to_string(++s_places));
#else
    ADD_FAILURE() << "this build has no etcd engine";
#endif
}

StorePlace::~StorePlace() = default;

std::map<std::string, std::string> StorePlace::Contents() const {
    if (m_kind == EngineKind::kRocksDB) return RawContents(m_where);
#if CORVIDA_STORE_TEST_ETCD
    std::unique_ptr<corvida::store::Engine> engine = OpenPlaceEngine(m_where);
    if (engine != nullptr) return corvida_etcd_test::Contents(engine.get());
#endif
    return {};
}

void StorePlace::RawWrite(const std::map<std::string, std::string>& puts,
                          const std::vector<std::string>& deletes) const {
    if (m_kind == EngineKind::kRocksDB) {
        corvida_store_test::RawWrite(m_where, puts, deletes);
        return;
    }
#if CORVIDA_STORE_TEST_ETCD
    std::unique_ptr<corvida::store::Engine> engine = OpenPlaceEngine(m_where);
    if (engine == nullptr) return;
    corvida::store::EngineBatch batch;
    for (const auto& pair : puts) batch.Put(pair.first, pair.second);
    for (const std::string& key : deletes) batch.Delete(key);
    bool committed = false;
    EXPECT_TRUE(corvida_etcd_test::IsOk(engine->Commit(batch, &committed)));
    EXPECT_TRUE(committed);
#endif
}

}  // namespace corvida_store_test
