// EtcdCluster: a throwaway etcd cluster for tests, on loopback.
//
// Start() runs N members (default 3) of the etcd program, each with its own
// data directory inside one temporary directory, on client and peer ports
// chosen free at run time (a port another program takes in between makes
// Start try again with new ones), tuned for loopback (heartbeat 50 ms,
// election timeout 500 ms), and returns once the members agree on a leader.
// The members' client URLs may serve TLS with certificates from
// MakeTestCertificates (tests/support/test_certificates.h), asking clients for
// theirs or not; the peers talk plain HTTP.
//
// The destructor kills every member and removes the directory. A member
// also dies with the thread that started it (PR_SET_PDEATHSIG), so a test
// program that crashes leaves no etcd behind: start, restart and destroy a
// cluster from one thread, the test's main thread.
//
// Members are numbered 0..N-1 in the order of Endpoints().
#ifndef CORVIDA_TEST_SUPPORT_ETCD_CLUSTER_H_
#define CORVIDA_TEST_SUPPORT_ETCD_CLUSTER_H_

#include <memory>
#include <string>
#include <vector>

#include "support/test_certificates.h"

namespace corvida_test {

struct EtcdClusterOptions {
    int members = 3;
    // More flags for every member ("--max-txn-ops=8").
    std::vector<std::string> flags;
    // When set, the members serve TLS on their client URLs with the server
    // certificate of these, and the harness checks health as their client.
    const TestCertificates* tls = nullptr;
    // With tls: the members take only clients that show a certificate
    // signed by the CA.
    bool client_cert_auth = false;
};

class EtcdCluster {
public:
    // Starts a cluster; null, with the reason (and the members' logs) in
    // *error, when it does not come up.
    static std::unique_ptr<EtcdCluster> Start(const EtcdClusterOptions& options, std::string* error);

    ~EtcdCluster();
    EtcdCluster(const EtcdCluster&) = delete;
    EtcdCluster& operator=(const EtcdCluster&) = delete;

    int size() const;

    // "127.0.0.1:PORT", the client URL of each member without its scheme.
    std::vector<std::string> Endpoints() const;

    // "etcd://ENDPOINT,ENDPOINT,.../NAMESPACE" of every member.
    std::string Locator(const std::string& name_space) const;

    // Ends member i with SIGKILL (a crash) or SIGTERM (a clean stop), and
    // waits for it to be gone.
    void Kill(int i);
    void Stop(int i);

    // Starts member i again on its data and ports. False when it cannot be
    // started.
    bool Restart(int i);

    bool Running(int i) const;

    // Waits up to seconds for every running member to report the same
    // leader, one of them; false when they do not.
    bool WaitForLeader(double seconds);

    // The member that leads, once every running member agrees (waiting up to
    // seconds); -1 when they do not.
    int LeaderIndex(double seconds = 10);

    // The last lines of each member's log, for a failure's message.
    std::string Logs() const;

    struct Member;

private:
    EtcdCluster();

    // Chooses ports, writes the members' flags and starts them; false with
    // *error when a member cannot be started.
    bool Launch(const EtcdClusterOptions& options, std::string* error);
    bool Spawn(Member& member);
    // True, with the reason in *error, when a member has exited; then
    // *port_taken tells whether it found its port taken.
    bool Exited(std::string* error, bool* port_taken);

    std::string m_dir;
    std::vector<std::unique_ptr<Member>> m_members;
};

}  // namespace corvida_test

#endif  // CORVIDA_TEST_SUPPORT_ETCD_CLUSTER_H_
