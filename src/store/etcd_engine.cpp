#include "store/etcd_engine.h"

#include <algorithm>
#include <atomic>
#include <string>
#include <vector>

#include "store/etcd_client.h"
#include "store/etcd_errors.h"
#include "store/etcd_locator.h"
#include "store/scratch.h"

namespace corvida {
namespace store {

namespace {

// Keys a page of a scan asks for.
constexpr int64_t kPageKeys = 1000;

// etcd's defaults for the limits of one request.
constexpr size_t kDefaultMaxTxnOps = 128;
constexpr size_t kDefaultMaxRequestBytes = 1536 * 1024;
// The most operations the engine asks a cluster to take: more than any
// write of the store needs, and few enough that the framing of that many
// stays a small part of a request.
constexpr size_t kMostTxnOps = 1024;

// Bytes of a request beyond the keys and values of its batch: the framing of
// one compare or operation (tags and lengths), and of the request as the
// member logs it through Raft (its header).
constexpr size_t kEntryFramingBytes = 16;
constexpr size_t kRequestFramingBytes = 256;

// A revision to read at; 0 until the first read of a lazy view fixes it.
// A view is used by one thread at a time, so fixing it needs no lock.
class EtcdView : public ReadView {
public:
    explicit EtcdView(int64_t revision) : m_revision(revision) {}
    int64_t revision() const { return m_revision; }
    void Fix(int64_t revision) const {
        if (m_revision == 0) m_revision = revision;
    }

private:
    mutable int64_t m_revision;
};

// Refuses a batch that changes a key twice: an etcd transaction may not.
Status CheckOneChangePerKey(const EngineBatch& batch) {
    std::vector<std::string_view> keys;
    keys.reserve(batch.ops().size());
    for (const EngineBatch::Op& op : batch.ops()) keys.push_back(op.key);
    std::sort(keys.begin(), keys.end());
    if (std::adjacent_find(keys.begin(), keys.end()) == keys.end()) return Status::OK();
    return Status::InvalidArgument(
        "etcd: committing: the batch changes one key twice, which an etcd transaction may not; nothing was written");
}

class EtcdEngine : public Engine {
public:
    EtcdEngine(std::string locator, std::string prefix, bool read_only, std::unique_ptr<EtcdClient> client)
        : m_locator(std::move(locator)),
          m_prefix(std::move(prefix)),
          m_read_only(read_only),
          m_client(std::move(client)) {}

    // Asks the cluster for its --max-txn-ops and sets limits() from it.
    Status LearnLimits();

    const std::string& locator() const override { return m_locator; }
    const char* kind() const override { return "etcd namespace"; }
    bool read_only() const override { return m_read_only; }
    const EngineLimits& limits() const override { return m_limits; }

    Status NewView(std::unique_ptr<ReadView>* view) override {
        return NoThrow([&] {
            int64_t revision = 0;
            Status s = CurrentRevision("taking a view", &revision);
            if (s.ok()) view->reset(new EtcdView(revision));
            return s;
        });
    }

    Status NewLazyView(std::unique_ptr<ReadView>* view) override {
        view->reset(new EtcdView(0));
        return Status::OK();
    }

    Status Get(const ReadView* view, std::string_view key, std::string* value, bool* found) override {
        return NoThrow([&] {
            etcdserverpb::RangeRequest request;
            request.set_key(m_prefix + std::string(key));
            etcdserverpb::RangeResponse response;
            Status s = Read(static_cast<const EtcdView*>(view), &request, &response, "reading");
            if (!s.ok()) return s;
            *found = response.kvs_size() > 0;
            if (*found) *value = response.kvs(0).value();
            return Status::OK();
        });
    }

    Status Scan(const ReadView* view, std::string_view begin, std::string_view end, const Visitor& visit) override {
        return NoThrow([&] {
            etcdserverpb::RangeRequest request;
            request.set_key(m_prefix + std::string(begin));
            request.set_range_end(end.empty() ? PrefixEnd(m_prefix) : m_prefix + std::string(end));
            request.set_limit(kPageKeys);
            // Left unsorted: etcd returns a range in key order, and a sort
            // order would make it read the whole range for every page.
            // Without a view, the first page fixes the revision of the others.
            const EtcdView own(0);
            const EtcdView* at = view != nullptr ? static_cast<const EtcdView*>(view) : &own;
            etcdserverpb::RangeResponse response;
            while (true) {
                Status s = Read(at, &request, &response, "scanning");
                if (!s.ok()) return s;
                for (const mvccpb::KeyValue& kv : response.kvs()) {
                    if (!visit(std::string_view(kv.key()).substr(m_prefix.size()), kv.value())) return Status::OK();
                }
                if (!response.more() || response.kvs().empty()) return Status::OK();
                // The next page begins just after the last key of this one.
                std::string next = response.kvs(response.kvs_size() - 1).key();
                next.push_back('\0');
                request.set_key(std::move(next));
            }
        });
    }

    Status Commit(const EngineBatch& batch, bool* committed) override {
        return NoThrow([&] { return CommitBatch(batch, committed); });
    }

    Status Compact() override {
        return NoThrow([&] {
            if (m_read_only) return Status::NotSupported("etcd: compacting: the store was opened for reading only");
            etcdserverpb::CompactionRequest request;
            int64_t revision = 0;
            Status s = CurrentRevision("compacting", &revision);
            if (!s.ok()) return s;
            request.set_revision(revision);
            // Returns once the history is gone from the members' files, so
            // that defragmenting gives its space back.
            request.set_physical(true);
            EtcdFailure failure;
            s = m_client->Compact(request, "compacting", &failure);
            // Compacted that far already (by another process): as wanted.
            if (!s.ok() && failure.refusal != EtcdFailure::Refusal::kCompacted) return s;
            return m_client->DefragmentEach("defragmenting");
        });
    }

private:
    // Reads request at view's revision (null: now). A read of now is
    // linearizable: the member first learns from the leader how far the
    // cluster has committed, a round among the members. A read at a known
    // revision needs no such round, since what a revision holds never
    // changes: it is served by the member from its own copy (serializable).
    // A member that has not applied that revision yet says so, and is then
    // asked linearizably, which waits until it has. A lazy view's first read
    // is of now, and fixes the view's revision.
    Status Read(const EtcdView* view, etcdserverpb::RangeRequest* request, etcdserverpb::RangeResponse* response,
                const char* what) {
        const int64_t revision = view != nullptr ? view->revision() : 0;
        request->set_revision(revision);
        request->set_serializable(revision != 0);
        EtcdFailure failure;
        Status s = m_client->Range(*request, response, what, &failure);
        if (!s.ok() && failure.refusal == EtcdFailure::Refusal::kFutureRevision && revision != 0) {
            request->set_serializable(false);
            s = m_client->Range(*request, response, what);
        }
        if (s.ok() && view != nullptr) view->Fix(response->header().revision());
        return s;
    }

    Status CurrentRevision(const char* what, int64_t* revision) {
        // Any read tells the revision of the moment; the prefix itself is
        // never a key of the store, so this one carries nothing back.
        etcdserverpb::RangeRequest request;
        request.set_key(m_prefix);
        etcdserverpb::RangeResponse response;
        Status s = m_client->Range(request, &response, what);
        if (s.ok()) *revision = response.header().revision();
        return s;
    }

    // Whether the cluster takes a transaction of n operations: n
    // serializable reads of one key, which no member sends through Raft and
    // which its checks count like any operation.
    Status TakesOperations(size_t n, bool* takes);

    Status CommitBatch(const EngineBatch& batch, bool* committed);

    const std::string m_locator;
    const std::string m_prefix;
    const bool m_read_only;
    const std::unique_ptr<EtcdClient> m_client;
    EngineLimits m_limits;
    // The largest request the cluster takes, lowered when it refuses one.
    std::atomic<size_t> m_max_request_bytes{kDefaultMaxRequestBytes};
};

Status EtcdEngine::TakesOperations(size_t n, bool* takes) {
    etcdserverpb::TxnRequest request;
    for (size_t i = 0; i < n; ++i) {
        etcdserverpb::RangeRequest* read = request.add_success()->mutable_request_range();
        read->set_key(m_prefix);
        read->set_serializable(true);
        read->set_count_only(true);
    }
    etcdserverpb::TxnResponse response;
    EtcdFailure failure;
    Status s = m_client->Txn(request, &response, "opening", &failure);
    *takes = s.ok();
    return s.ok() || failure.refusal == EtcdFailure::Refusal::kTooManyOperations ? Status::OK() : s;
}

Status EtcdEngine::LearnLimits() {
    // The largest count known to be taken, and the smallest known to be
    // refused (one above the most asked for while none is known). The
    // default is settled with two calls; another count is bracketed by
    // doubling, then found by halving.
    size_t taken = 0;
    size_t refused = kMostTxnOps + 1;
    auto ask = [&](size_t n) {
        bool takes = false;
        Status s = TakesOperations(n, &takes);
        (takes ? taken : refused) = n;
        return s;
    };
    Status s = ask(kDefaultMaxTxnOps);
    if (s.ok() && taken == kDefaultMaxTxnOps) s = ask(kDefaultMaxTxnOps + 1);
    while (s.ok() && refused - taken > 1) {
        const bool unbounded = refused > kMostTxnOps && taken * 2 < refused;
        s = ask(unbounded ? taken * 2 : taken + (refused - taken) / 2);
    }
    if (!s.ok()) return s;
    if (taken == 0) {
        return Status::InvalidArgument(std::string("etcd: the cluster refuses a transaction of one operation: ") +
                                       kEtcdMaxTxnOpsSetting + " is 0");
    }
    m_limits.max_operations = taken;
    m_limits.operations_setting = kEtcdMaxTxnOpsSetting;
    // Room for the prefix and framing of a full transaction's compares and
    // operations, each list as long as the cluster takes.
    m_limits.max_bytes =
        kDefaultMaxRequestBytes - kRequestFramingBytes - 2 * taken * (kEntryFramingBytes + m_prefix.size());
    m_limits.bytes_setting = kEtcdMaxRequestBytesSetting;
    return Status::OK();
}

Status EtcdEngine::CommitBatch(const EngineBatch& batch, bool* committed) {
    if (m_read_only) return Status::NotSupported("etcd: committing: the store was opened for reading only");
    if (batch.empty() && batch.conditions().empty()) {
        *committed = true;
        return Status::OK();
    }
    Status s = CheckOneChangePerKey(batch);
    if (s.ok()) s = CheckLimits(batch, m_limits, "etcd: committing");
    if (!s.ok()) return s;

    etcdserverpb::TxnRequest request;
    for (const EngineBatch::Condition& condition : batch.conditions()) {
        etcdserverpb::Compare* compare = request.add_compare();
        compare->set_key(m_prefix + condition.key);
        compare->set_result(etcdserverpb::Compare::EQUAL);
        if (condition.present) {
            compare->set_target(etcdserverpb::Compare::VALUE);
            compare->set_value(condition.value);
        } else {
            compare->set_target(etcdserverpb::Compare::VERSION);
            compare->set_version(0);
        }
    }
    for (const EngineBatch::Op& op : batch.ops()) {
        etcdserverpb::RequestOp* change = request.add_success();
        if (op.kind == EngineBatch::Op::Kind::kPut) {
            etcdserverpb::PutRequest* put = change->mutable_request_put();
            put->set_key(m_prefix + op.key);
            put->set_value(op.value);
        } else {
            change->mutable_request_delete_range()->set_key(m_prefix + op.key);
        }
    }
    const size_t bytes = request.ByteSizeLong() + kRequestFramingBytes;
    const size_t most = m_max_request_bytes.load(std::memory_order_relaxed);
    if (bytes > most) {
        return Status::InvalidArgument("etcd: committing: the transaction takes about " + std::to_string(bytes) +
                                       " bytes, more than the " + std::to_string(most) + " that " +
                                       kEtcdMaxRequestBytesSetting + " allows; nothing was written");
    }

    etcdserverpb::TxnResponse response;
    EtcdFailure failure;
    s = m_client->Txn(request, &response, "committing", &failure);
    if (failure.refusal == EtcdFailure::Refusal::kTooLarge) {
        // Nothing of this size or more goes through: refuse it from now on
        // before sending, with the cluster's own figure when it gave one.
        const size_t learned = failure.max_request_bytes != 0 ? failure.max_request_bytes : bytes - 1;
        size_t known = most;
        while (learned < known && !m_max_request_bytes.compare_exchange_weak(known, learned)) {
        }
    }
    if (s.ok()) *committed = response.succeeded();
    return s;
}

}  // namespace

Status OpenEtcdEngine(std::string_view locator, const StoreOptions& options, std::unique_ptr<Engine>* engine) {
    return NoThrow([&] {
        EtcdLocator parsed;
        Status s = ParseEtcdLocator(locator, &parsed);
        std::unique_ptr<EtcdClient> client;
        if (s.ok()) s = EtcdClient::Open(parsed, options, &client);
        if (!s.ok()) return s;
        auto opened = std::make_unique<EtcdEngine>(std::string(locator), parsed.KeyPrefix(), options.read_only,
                                                   std::move(client));
        s = opened->LearnLimits();
        if (!s.ok()) return s;
        PLOG_WRITE_IF(options.log, PLOG_PRIORITY_INFO, "corvida/src/store/etcd_engine", plog_category_logv,
                      "etcd: %s: a transaction holds up to %zu operations and %zu bytes of keys and values",
                      opened->locator().c_str(), opened->limits().max_operations, opened->limits().max_bytes);
        *engine = std::move(opened);
        return Status::OK();
    });
}

}  // namespace store
}  // namespace corvida
