#include "store/etcd_tls.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

namespace corvida {
namespace store {

namespace {

struct FileCloser {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
struct BioFree {
    void operator()(BIO* bio) const { BIO_free(bio); }
};
struct X509Free {
    void operator()(X509* cert) const { X509_free(cert); }
};
struct KeyFree {
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};

Status Unusable(const char* what, const std::string& path, const std::string& why) {
    return Status::InvalidArgument(std::string("etcd TLS: the ") + what + " \"" + path + "\" " + why);
}

Status ReadPem(const char* what, const std::string& path, std::string* contents) {
    std::unique_ptr<std::FILE, FileCloser> file(std::fopen(path.c_str(), "rb"));
    if (!file) return Unusable(what, path, std::string("cannot be read: ") + std::strerror(errno));
    std::string data;
    char buffer[4096];
    size_t n;
    while ((n = std::fread(buffer, 1, sizeof buffer, file.get())) > 0) data.append(buffer, n);
    if (std::ferror(file.get())) return Unusable(what, path, std::string("cannot be read: ") + std::strerror(errno));
    *contents = std::move(data);
    return Status::OK();
}

std::unique_ptr<BIO, BioFree> MemoryBio(const std::string& data) {
    return std::unique_ptr<BIO, BioFree>(BIO_new_mem_buf(data.data(), static_cast<int>(data.size())));
}

// Refuses to ask for a passphrase: an encrypted key is not read, rather than
// a prompt on the terminal of whatever program links the store.
int NoPassphrase(char*, int, int, void*) { return -1; }

// The first certificate of pem, or null; OpenSSL's error queue is left empty.
std::unique_ptr<X509, X509Free> FirstCertificate(const std::string& pem) {
    auto bio = MemoryBio(pem);
    std::unique_ptr<X509, X509Free> cert(bio ? PEM_read_bio_X509(bio.get(), nullptr, NoPassphrase, nullptr) : nullptr);
    ERR_clear_error();
    return cert;
}

}  // namespace

bool EtcdTlsWanted(const EtcdTlsOptions& tls) {
    return !tls.ca_file.empty() || !tls.cert_file.empty() || !tls.key_file.empty();
}

Status LoadEtcdTls(const EtcdTlsOptions& tls, grpc::SslCredentialsOptions* credentials) {
    if (tls.cert_file.empty() != tls.key_file.empty()) {
        return Status::InvalidArgument(
            "etcd TLS: a client certificate and its key go together: give both files or neither");
    }
    grpc::SslCredentialsOptions result;
    if (!tls.ca_file.empty()) {
        Status s = ReadPem("CA file", tls.ca_file, &result.pem_root_certs);
        if (!s.ok()) return s;
        if (!FirstCertificate(result.pem_root_certs)) {
            return Unusable("CA file", tls.ca_file, "holds no PEM certificate");
        }
    }
    if (!tls.cert_file.empty()) {
        Status s = ReadPem("client certificate file", tls.cert_file, &result.pem_cert_chain);
        if (s.ok()) s = ReadPem("client key file", tls.key_file, &result.pem_private_key);
        if (!s.ok()) return s;
        auto cert = FirstCertificate(result.pem_cert_chain);
        if (!cert) return Unusable("client certificate file", tls.cert_file, "holds no PEM certificate");
        auto bio = MemoryBio(result.pem_private_key);
        std::unique_ptr<EVP_PKEY, KeyFree> key(bio ? PEM_read_bio_PrivateKey(bio.get(), nullptr, NoPassphrase, nullptr)
                                                   : nullptr);
        const bool matches = key && X509_check_private_key(cert.get(), key.get()) == 1;
        ERR_clear_error();
        if (!key) {
            return Unusable("client key file", tls.key_file,
                            "holds no PEM private key that reads without a passphrase (encrypted keys are not "
                            "supported)");
        }
        if (!matches) {
            return Unusable("client key file", tls.key_file,
                            "holds a key that does not belong to the certificate of \"" + tls.cert_file + "\"");
        }
    }
    *credentials = std::move(result);
    return Status::OK();
}

}  // namespace store
}  // namespace corvida
