#include "support/etcd_cluster.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include <grpcpp/grpcpp.h>

#include "etcd/etcdserver/etcdserverpb/rpc.grpc.pb.h"
#include "store/grpc_call.h"

namespace corvida_test {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kStartAttempts = 4;
constexpr double kStartSeconds = 30;

// A free loopback port for each of count sockets, all bound at once so that
// no two are the same; the kernel may hand a port out again once they are
// closed, which Start notices and answers with new ports.
bool FreePorts(size_t count, std::vector<int>* ports) {
    std::vector<int> sockets;
    bool ok = true;
    for (size_t i = 0; i < count && ok; ++i) {
        const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        ok = fd >= 0 && ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
             ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0;
        if (fd >= 0) sockets.push_back(fd);
        if (ok) ports->push_back(ntohs(address.sin_port));
    }
    for (int fd : sockets) ::close(fd);
    return ok;
}

// The directory temporary clusters go in: $TMPDIR, else /tmp.
std::string TemporaryRoot() {
    const char* dir = std::getenv("TMPDIR");
    return dir != nullptr && *dir != '\0' ? dir : "/tmp";
}

std::string Tail(const std::string& path, size_t lines) {
    std::ifstream file(path);
    std::vector<std::string> kept;
    std::string line;
    while (std::getline(file, line)) {
        kept.push_back(line);
        if (kept.size() > lines) kept.erase(kept.begin());
    }
    std::string text;
    for (const std::string& l : kept) text += "    " + l + "\n";
    return text;
}

}  // namespace

struct EtcdCluster::Member {
    std::string name;
    std::string data_dir;
    std::string log_file;
    int client_port = 0;
    int peer_port = 0;
    std::vector<std::string> argv;
    pid_t pid = -1;
    std::unique_ptr<etcdserverpb::Maintenance::Stub> maintenance;

    std::string endpoint() const { return "127.0.0.1:" + std::to_string(client_port); }

    // The member's status as it reports it; false when it does not answer
    // within a moment. Asked the way the engine asks (store/grpc_call.h), so
    // that a member that starts listening is noticed at once.
    bool Status(etcdserverpb::StatusResponse* status) const {
        grpc::ClientContext context;
        context.set_deadline(std::chrono::system_clock::now() + std::chrono::milliseconds(500));
        const etcdserverpb::StatusRequest request;
        return corvida::store::AwaitCall([&](corvida::store::GrpcDone done) {
                   maintenance->async()->Status(&context, &request, status, std::move(done));
               })
            .ok();
    }

    // Ends the process with signal and reaps it.
    void End(int signal) {
        if (pid < 0) return;
        ::kill(pid, signal);
        ::waitpid(pid, nullptr, 0);
        pid = -1;
    }
};

EtcdCluster::EtcdCluster() = default;

EtcdCluster::~EtcdCluster() {
    for (auto& member : m_members) member->End(SIGKILL);
    std::error_code ignored;
    if (!m_dir.empty()) std::filesystem::remove_all(m_dir, ignored);
}

std::unique_ptr<EtcdCluster> EtcdCluster::Start(const EtcdClusterOptions& options, std::string* error) {
    for (int attempt = 1; attempt <= kStartAttempts; ++attempt) {
        std::unique_ptr<EtcdCluster> cluster(new EtcdCluster());
        std::string pattern = TemporaryRoot() + "/corvida-etcd-XXXXXX";
        if (::mkdtemp(&pattern[0]) == nullptr) {
            *error = "cannot make a temporary directory in " + TemporaryRoot();
            return nullptr;
        }
        cluster->m_dir = pattern;
        if (!cluster->Launch(options, error)) return nullptr;
        const auto deadline = Clock::now() + std::chrono::duration<double>(kStartSeconds);
        bool port_taken = false;
        while (!cluster->Exited(error, &port_taken)) {
            if (cluster->LeaderIndex(0) >= 0) return cluster;
            if (Clock::now() > deadline) {
                *error =
                    "the cluster elected no leader within " + std::to_string(kStartSeconds) + " s\n" + cluster->Logs();
                return nullptr;
            }
        }
        if (!port_taken) return nullptr;
    }
    *error = "other programs took the chosen ports " + std::to_string(kStartAttempts) + " times";
    return nullptr;
}

bool EtcdCluster::Launch(const EtcdClusterOptions& options, std::string* error) {
    const size_t count = static_cast<size_t>(options.members);
    std::vector<int> ports;
    if (!FreePorts(2 * count, &ports)) {
        *error = "cannot find free loopback ports";
        return false;
    }
    const std::string client_scheme = options.tls != nullptr ? "https://" : "http://";
    std::string initial_cluster;
    for (size_t i = 0; i < count; ++i) {
        auto member = std::make_unique<Member>();
        member->name = "member" + std::to_string(i);
        member->data_dir = m_dir + "/" + member->name;
        member->log_file = m_dir + "/" + member->name + ".log";
        member->client_port = ports[2 * i];
        member->peer_port = ports[2 * i + 1];
        if (!initial_cluster.empty()) initial_cluster += ",";
        initial_cluster += member->name + "=http://127.0.0.1:" + std::to_string(member->peer_port);
        m_members.push_back(std::move(member));
    }

    std::shared_ptr<grpc::ChannelCredentials> credentials = grpc::InsecureChannelCredentials();
    if (options.tls != nullptr) {
        auto read = [](const std::string& path) {
            std::ifstream file(path);
            std::stringstream text;
            text << file.rdbuf();
            return text.str();
        };
        grpc::SslCredentialsOptions files;
        files.pem_root_certs = read(options.tls->ca_cert);
        files.pem_cert_chain = read(options.tls->client_cert);
        files.pem_private_key = read(options.tls->client_key);
        credentials = grpc::SslCredentials(files);
    }
    for (auto& member : m_members) {
        const std::string client_url = client_scheme + member->endpoint();
        const std::string peer_url = "http://127.0.0.1:" + std::to_string(member->peer_port);
        member->argv = {CORVIDA_ETCD_PROGRAM,
                        "--name=" + member->name,
                        "--data-dir=" + member->data_dir,
                        "--listen-client-urls=" + client_url,
                        "--advertise-client-urls=" + client_url,
                        "--listen-peer-urls=" + peer_url,
                        "--initial-advertise-peer-urls=" + peer_url,
                        "--initial-cluster=" + initial_cluster,
                        "--initial-cluster-state=new",
                        "--initial-cluster-token=" + m_dir,
                        "--heartbeat-interval=50",
                        "--election-timeout=500",
                        "--logger=zap",
                        "--log-level=warn"};
        if (options.tls != nullptr) {
            member->argv.push_back("--cert-file=" + options.tls->server_cert);
            member->argv.push_back("--key-file=" + options.tls->server_key);
            if (options.client_cert_auth) {
                member->argv.push_back("--trusted-ca-file=" + options.tls->ca_cert);
                member->argv.push_back("--client-cert-auth");
            }
        }
        member->argv.insert(member->argv.end(), options.flags.begin(), options.flags.end());
        // Members that are not listening yet are asked again soon, not
        // after gRPC's default backoff of a second and more.
        grpc::ChannelArguments arguments;
        arguments.SetInt(GRPC_ARG_INITIAL_RECONNECT_BACKOFF_MS, 100);
        arguments.SetInt(GRPC_ARG_MAX_RECONNECT_BACKOFF_MS, 200);
        member->maintenance =
            etcdserverpb::Maintenance::NewStub(grpc::CreateCustomChannel(member->endpoint(), credentials, arguments));
        if (!Spawn(*member)) {
            *error = "cannot start " + std::string(CORVIDA_ETCD_PROGRAM);
            return false;
        }
    }

    return true;
}

bool EtcdCluster::Exited(std::string* error, bool* port_taken) {
    for (auto& member : m_members) {
        int status = 0;
        if (member->pid < 0 || ::waitpid(member->pid, &status, WNOHANG) != member->pid) continue;
        member->pid = -1;
        std::ifstream log(member->log_file);
        const std::string text((std::istreambuf_iterator<char>(log)), std::istreambuf_iterator<char>());
        *port_taken = text.find("address already in use") != std::string::npos;
        *error = member->name + " exited while the cluster started\n" + Logs();
        return true;
    }
    return false;
}

bool EtcdCluster::Spawn(Member& member) {
    const int log = ::open(member.log_file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (log < 0) return false;
    std::vector<char*> argv;
    for (std::string& arg : member.argv) argv.push_back(&arg[0]);
    argv.push_back(nullptr);
    const pid_t parent = ::getpid();
    const pid_t pid = ::fork();
    if (pid == 0) {
        // Only async-signal-safe calls between fork and exec.
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (::getppid() != parent) ::_exit(127);
        ::dup2(log, 1);
        ::dup2(log, 2);
        ::execv(argv[0], argv.data());
        ::_exit(127);
    }
    ::close(log);
    member.pid = pid;
    return pid > 0;
}

int EtcdCluster::size() const { return static_cast<int>(m_members.size()); }

std::vector<std::string> EtcdCluster::Endpoints() const {
    std::vector<std::string> endpoints;
    for (const auto& member : m_members) endpoints.push_back(member->endpoint());
    return endpoints;
}

std::string EtcdCluster::Locator(const std::string& name_space) const {
    std::string locator = "etcd://";
    for (const auto& member : m_members) {
        if (&member != &m_members.front()) locator += ",";
        locator += member->endpoint();
    }
    return locator + "/" + name_space;
}

void EtcdCluster::Kill(int i) { m_members[i]->End(SIGKILL); }

void EtcdCluster::Stop(int i) { m_members[i]->End(SIGTERM); }

bool EtcdCluster::Restart(int i) { return m_members[i]->pid < 0 && Spawn(*m_members[i]); }

bool EtcdCluster::Running(int i) const { return m_members[i]->pid >= 0; }

int EtcdCluster::LeaderIndex(double seconds) {
    const auto deadline =
        Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
    do {
        uint64_t leader = 0;
        int leader_index = -1;
        bool agreed = true;
        for (size_t i = 0; i < m_members.size() && agreed; ++i) {
            if (m_members[i]->pid < 0) continue;
            etcdserverpb::StatusResponse status;
            agreed =
                m_members[i]->Status(&status) && status.leader() != 0 && (leader == 0 || status.leader() == leader);
            leader = status.leader();
            if (agreed && status.header().member_id() == leader) leader_index = static_cast<int>(i);
        }
        if (agreed && leader_index >= 0) return leader_index;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    } while (Clock::now() < deadline);
    return -1;
}

bool EtcdCluster::WaitForLeader(double seconds) { return LeaderIndex(seconds) >= 0; }

std::string EtcdCluster::Logs() const {
    std::string text;
    for (const auto& member : m_members) {
        text += member->name + " (" + member->endpoint() + (member->pid < 0 ? ", not running" : "") + "):\n" +
                Tail(member->log_file, 20);
    }
    return text;
}

}  // namespace corvida_test
