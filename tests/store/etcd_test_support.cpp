#include "etcd_test_support.h"

namespace corvida_etcd_test {

std::unique_ptr<EtcdCluster> StartCluster(const EtcdClusterOptions& options) {
    std::string error;
    std::unique_ptr<EtcdCluster> cluster = EtcdCluster::Start(options, &error);
    if (!cluster) ADD_FAILURE() << "the etcd cluster did not start: " << error;
    return cluster;
}

Status OpenOn(const EtcdCluster& cluster, const std::string& name_space, std::unique_ptr<Engine>* engine,
              const StoreOptions& options) {
    return corvida::store::OpenEtcdEngine(cluster.Locator(name_space), options, engine);
}

std::map<std::string, std::string> Contents(Engine* engine, const ReadView* view) {
    std::map<std::string, std::string> contents;
    const Status s = engine->Scan(view, "", "", [&](std::string_view key, std::string_view value) {
        contents.emplace(std::string(key), std::string(value));
        return true;
    });
    EXPECT_TRUE(IsOk(s));
    return contents;
}

Status PutAll(Engine* engine, const std::map<std::string, std::string>& pairs) {
    EngineBatch batch;
    for (const auto& pair : pairs) batch.Put(pair.first, pair.second);
    bool committed = false;
    Status s = engine->Commit(batch, &committed);
    if (s.ok() && !committed) return Status::IOError("an unconditional commit was not committed");
    return s;
}

std::string ValueOf(Engine* engine, const std::string& key) {
    std::string value;
    bool found = false;
    const Status s = engine->Get(nullptr, key, &value, &found);
    if (!s.ok()) return "<error: " + s.ToString() + ">";
    return found ? value : "<absent>";
}

}  // namespace corvida_etcd_test
