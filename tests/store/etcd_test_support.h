// What the etcd engine's tests share: clusters started once per suite,
// engines opened on them, and short ways to read and write through an
// engine.
#ifndef CORVIDA_TESTS_STORE_ETCD_TEST_SUPPORT_H_
#define CORVIDA_TESTS_STORE_ETCD_TEST_SUPPORT_H_

#include <map>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "store/engine.h"
#include "store/etcd_engine.h"
#include "store/status.h"
#include "support/etcd_cluster.h"

namespace corvida_etcd_test {

using corvida::store::Engine;
using corvida::store::EngineBatch;
using corvida::store::ReadView;
using corvida::store::Status;
using corvida::store::StoreOptions;
using corvida_test::EtcdCluster;
using corvida_test::EtcdClusterOptions;

// Success, or the status as a failure's message.
inline ::testing::AssertionResult IsOk(const Status& s) {
    if (s.ok()) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << s.ToString();
}

// Starts a cluster for a suite; a failed start fails the test that asks for
// it (null then).
std::unique_ptr<EtcdCluster> StartCluster(const EtcdClusterOptions& options = {});

// A suite whose tests share one cluster: started before the first test
// with Suite::ClusterOptions(), stopped after the last. A test of a suite
// whose cluster did not start fails at once.
template <typename Suite>
class ClusterTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { s_cluster = StartCluster(Suite::ClusterOptions()).release(); }
    static void TearDownTestSuite() {
        delete s_cluster;
        s_cluster = nullptr;
    }
    void SetUp() override { ASSERT_NE(s_cluster, nullptr); }

    static inline EtcdCluster* s_cluster = nullptr;
};

// Opens an engine on every member of cluster under name_space.
Status OpenOn(const EtcdCluster& cluster, const std::string& name_space, std::unique_ptr<Engine>* engine,
              const StoreOptions& options = {});

// Every key and value in engine at view (null: now).
std::map<std::string, std::string> Contents(Engine* engine, const ReadView* view = nullptr);

// Puts every pair of pairs in one unconditional commit.
Status PutAll(Engine* engine, const std::map<std::string, std::string>& pairs);

// The value of key now, "<absent>" when there is none, "<error: ...>" when
// the read fails.
std::string ValueOf(Engine* engine, const std::string& key);

}  // namespace corvida_etcd_test

#endif  // CORVIDA_TESTS_STORE_ETCD_TEST_SUPPORT_H_
