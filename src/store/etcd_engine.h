// The etcd engine: a table store's keys in an etcd cluster, through etcd's
// v3 API. Private to the store.
//
// Keys: every key lives under the namespace prefix of the locator
// (store/etcd_locator.h); the engine adds it on the way in and takes it off
// on the way out, so the model sees its own keys only.
//
// Reads are linearizable: a read sees every commit acknowledged before it
// began, whichever process made it. A view is an etcd revision; Get and
// every page of Scan at a view read at that revision. A Scan without a view
// reads its first page at the cluster's revision of the moment and its
// other pages at the same one, so commits made during the scan are not seen.
// NewView asks the cluster for its revision; a view of NewLazyView takes the
// revision of its first read. Only a read of the moment makes the members
// agree on how far the cluster has committed (a round among them); a read at
// a revision already known is served by one member from its own copy, since
// what a revision holds never changes (one that has not applied the revision
// yet is asked again in the first way, which waits until it has).
// Pages hold up to 1000 keys. A view whose revision has since been
// compacted away (by Compact, or by the cluster's --auto-compaction) reads
// kIOError saying so; the reader takes a new view.
//
// Commit: one etcd transaction. Its compares are the batch's conditions (a
// present key: its value equals the one read; an absent key: its version is
// 0) and its success operations are the batch's puts and deletes; when a
// compare fails nothing is applied and *committed is false. A transaction
// may change each key once: a batch that puts or deletes a key twice is
// refused (kInvalidArgument), nothing sent.
//
// Limits: etcd holds each list of a transaction (its compares, its
// operations) to --max-txn-ops (128 unless the cluster says otherwise) and
// a request to --max-request-bytes (1.5 MiB unless set). Opening asks the
// cluster for the first with transactions that only read (nothing written);
// limits() reports it, and a number of bytes that leaves room for the
// prefixes and framing of as many compares and operations. A cluster started
// with a smaller --max-request-bytes than the default refuses a request
// above it: the commit fails with kInvalidArgument naming the setting,
// nothing written, and later commits of that size are refused before they
// are sent. Every refusal by a limit leaves the cluster unchanged.
//
// Failures: store/etcd_client.h (deadline, members, failover) and
// store/etcd_errors.h (which failure gives which status).
//
// Compact: compacts the cluster's history up to its current revision (so
// deleted keys and old values leave it) and defragments each member of the
// locator in turn, which gives the space back to the file system. Both act on
// the whole cluster, not one namespace: every store's views taken before
// fail afterwards as compacted, and each member pauses while it
// defragments.
#ifndef CORVIDA_STORE_ETCD_ENGINE_H_
#define CORVIDA_STORE_ETCD_ENGINE_H_

#include <memory>
#include <string_view>

#include "store/engine.h"
#include "store/status.h"
#include "store/table_store.h"

namespace corvida {
namespace store {

// Opens the cluster of locator (etcd://HOST:PORT[,HOST:PORT...][/NAMESPACE])
// with the deadline, TLS files, read_only and log of options, and learns the
// cluster's limits. kInvalidArgument for a locator or options that cannot be
// used; kIOError when the cluster cannot be asked (the message says why).
Status OpenEtcdEngine(std::string_view locator, const StoreOptions& options, std::unique_ptr<Engine>* engine);

}  // namespace store
}  // namespace corvida

#endif  // CORVIDA_STORE_ETCD_ENGINE_H_
