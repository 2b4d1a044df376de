#include "support/test_certificates.h"

#include <fstream>
#include <vector>

#include "cli/subprocess.h"

namespace corvida_test {

namespace {

// Runs openssl with args; false with its standard error in *error.
bool OpenSsl(const std::vector<std::string>& args, std::string* error) {
    std::vector<std::string> argv = {CORVIDA_OPENSSL_PROGRAM};
    argv.insert(argv.end(), args.begin(), args.end());
    const ProcessResult result = RunProcess(argv);
    if (result.status == 0) return true;
    *error = "openssl " + args.front() + " failed (" + std::to_string(result.status) + "): " + result.err;
    return false;
}

const std::vector<std::string> kNewKey = {"-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes"};

// A self-signed CA certificate and its key at base.crt and base.key.
bool MakeCa(const std::string& base, const std::string& name, std::string* error) {
    std::vector<std::string> args = {"req", "-x509"};
    args.insert(args.end(), kNewKey.begin(), kNewKey.end());
    args.insert(args.end(), {"-keyout", base + ".key", "-out", base + ".crt", "-days", "2", "-subj", "/CN=" + name});
    return OpenSsl(args, error);
}

// A key at base.key and a certificate at base.crt for name, signed by the CA
// at ca.crt/ca.key, with the X.509 extensions given.
bool MakeSigned(const std::string& base, const std::string& name, const std::string& ca, const std::string& extensions,
                std::string* error) {
    const std::string extensions_file = base + ".ext";
    std::ofstream(extensions_file) << extensions;
    std::vector<std::string> request = {"req", "-new"};
    request.insert(request.end(), kNewKey.begin(), kNewKey.end());
    request.insert(request.end(), {"-keyout", base + ".key", "-out", base + ".csr", "-subj", "/CN=" + name});
    return OpenSsl(request, error) &&
           OpenSsl({"x509", "-req", "-in", base + ".csr", "-CA", ca + ".crt", "-CAkey", ca + ".key", "-CAcreateserial",
                    "-out", base + ".crt", "-days", "2", "-extfile", extensions_file},
                   error);
}

}  // namespace

bool MakeTestCertificates(const std::string& dir, TestCertificates* out, std::string* error) {
    const std::string ca = dir + "/ca";
    const std::string server = dir + "/server";
    const std::string client = dir + "/client";
    const std::string other_ca = dir + "/other-ca";
    if (!MakeCa(ca, "corvida-test-ca", error) || !MakeCa(other_ca, "corvida-other-ca", error) ||
        !MakeSigned(server, "corvida-server", ca,
                    "subjectAltName=IP:127.0.0.1,DNS:localhost\nextendedKeyUsage=serverAuth,clientAuth\n", error) ||
        !MakeSigned(client, "corvida-client", ca, "extendedKeyUsage=clientAuth\n", error)) {
        return false;
    }
    out->ca_cert = ca + ".crt";
    out->server_cert = server + ".crt";
    out->server_key = server + ".key";
    out->client_cert = client + ".crt";
    out->client_key = client + ".key";
    out->other_ca_cert = other_ca + ".crt";
    return true;
}

}  // namespace corvida_test
