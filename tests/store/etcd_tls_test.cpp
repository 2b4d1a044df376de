// TLS between the etcd engine and a cluster that asks for client
// certificates, with certificates made by the test; and the checks of the TLS
// files before any connection.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "cli/subprocess.h"
#include "etcd_test_support.h"
#include "store/etcd_tls.h"
#include "store_test_support.h"
#include "support/test_certificates.h"

namespace corvida_etcd_test {
namespace {

using corvida::store::EtcdTlsOptions;
using corvida_store_test::TempDir;
using corvida_test::TestCertificates;

// One member serving TLS to clients with a certificate of the test's CA.
class EtcdTlsTest : public ClusterTest<EtcdTlsTest> {
public:
    static EtcdClusterOptions ClusterOptions() {
        s_dir = new TempDir();
        std::string error;
        EtcdClusterOptions options;
        options.members = 1;
        if (!corvida_test::MakeTestCertificates(s_dir->path(), &s_certs, &error)) {
            ADD_FAILURE() << error;
            return options;
        }
        options.tls = &s_certs;
        options.client_cert_auth = true;
        return options;
    }

protected:
    static void TearDownTestSuite() {
        ClusterTest::TearDownTestSuite();
        delete s_dir;
        s_dir = nullptr;
    }

    // Opening with tls; the status.
    static Status OpenWith(const EtcdTlsOptions& tls, std::unique_ptr<Engine>* engine) {
        StoreOptions options;
        options.etcd_tls = tls;
        return OpenOn(*s_cluster, "tls", engine, options);
    }

    static inline TempDir* s_dir = nullptr;
    static inline TestCertificates s_certs;
};

TEST_F(EtcdTlsTest, TheRightCaAndCertificateAreAccepted) {
    std::unique_ptr<Engine> engine;
    ASSERT_TRUE(IsOk(OpenWith({s_certs.ca_cert, s_certs.client_cert, s_certs.client_key}, &engine)));
    ASSERT_TRUE(IsOk(PutAll(engine.get(), {{"k", "v"}})));
    EXPECT_EQ(ValueOf(engine.get(), "k"), "v");
}

TEST_F(EtcdTlsTest, AClientWithoutCertificateIsRefused) {
    std::unique_ptr<Engine> engine;
    const Status s = OpenWith({s_certs.ca_cert, "", ""}, &engine);
    EXPECT_TRUE(s.IsIOError()) << s.ToString();
    EXPECT_NE(s.message().find("no member of the cluster is reachable"), std::string::npos) << s.message();
    EXPECT_NE(s.message().find("during the TLS handshake: if it is up, does it accept the client's certificate"),
              std::string::npos)
        << s.message();
}

TEST_F(EtcdTlsTest, AClientWithoutTlsIsToldToUseIt) {
    std::unique_ptr<Engine> engine;
    const Status s = OpenWith({}, &engine);
    EXPECT_TRUE(s.IsIOError()) << s.ToString();
    EXPECT_NE(s.message().find("does it serve TLS only?"), std::string::npos) << s.message();
}

TEST_F(EtcdTlsTest, AMemberSignedByAnotherCaIsRefused) {
    std::unique_ptr<Engine> engine;
    const Status s = OpenWith({s_certs.other_ca_cert, s_certs.client_cert, s_certs.client_key}, &engine);
    EXPECT_TRUE(s.IsIOError()) << s.ToString();
    EXPECT_NE(s.message().find("TLS handshake failed"), std::string::npos) << s.message();
    EXPECT_NE(s.message().find("certificate verify failed"), std::string::npos) << s.message();
}

TEST_F(EtcdTlsTest, FilesThatCannotServeAreNamedBeforeAnyConnection) {
    const std::string missing = s_dir->Sub("missing.crt");
    const std::string not_pem = s_dir->Sub("server.ext");  // written by MakeTestCertificates
    const std::vector<std::pair<EtcdTlsOptions, std::string>> cases = {
        {{missing, "", ""}, "the CA file \"" + missing + "\" cannot be read: No such file or directory"},
        {{not_pem, "", ""}, "the CA file \"" + not_pem + "\" holds no PEM certificate"},
        {{s_certs.ca_cert, s_certs.client_cert, ""}, "give both files or neither"},
        {{"", "", s_certs.client_key}, "give both files or neither"},
        {{s_certs.ca_cert, s_certs.client_key, s_certs.client_key}, "holds no PEM certificate"},
        {{s_certs.ca_cert, s_certs.client_cert, s_certs.client_cert}, "holds no PEM private key"},
        {{s_certs.ca_cert, s_certs.client_cert, s_certs.server_key},
         "\"" + s_certs.server_key + "\" holds a key that does not belong to the certificate of \"" +
             s_certs.client_cert + "\""},
    };
    for (const auto& c : cases) {
        grpc::SslCredentialsOptions credentials;
        const Status s = corvida::store::LoadEtcdTls(c.first, &credentials);
        EXPECT_TRUE(s.IsInvalidArgument()) << s.ToString();
        EXPECT_NE(s.message().find(c.second), std::string::npos) << s.message();
        EXPECT_EQ(s.message().find("PRIVATE KEY"), std::string::npos) << s.message();
        // The engine refuses them the same way, before it connects.
        std::unique_ptr<Engine> engine;
        StoreOptions options;
        options.etcd_tls = c.first;
        EXPECT_TRUE(corvida::store::OpenEtcdEngine("etcd://127.0.0.1:1", options, &engine).IsInvalidArgument());
    }

    // An encrypted key is refused, never a prompt for its passphrase.
    const std::string encrypted = s_dir->Sub("encrypted.key");
    const corvida_test::ProcessResult result =
        corvida_test::RunProcess({CORVIDA_TEST_OPENSSL, "pkey", "-in", s_certs.client_key, "-out", encrypted,
                                  "-aes-128-cbc", "-passout", "pass:secret"});
    ASSERT_EQ(result.status, 0) << result.err;
    grpc::SslCredentialsOptions credentials;
    const Status s = corvida::store::LoadEtcdTls({s_certs.ca_cert, s_certs.client_cert, encrypted}, &credentials);
    EXPECT_TRUE(s.IsInvalidArgument()) << s.ToString();
    EXPECT_NE(s.message().find("encrypted keys are not supported"), std::string::npos) << s.message();
}

}  // namespace
}  // namespace corvida_etcd_test
