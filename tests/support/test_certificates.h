// Certificates for TLS tests, made with the openssl command line: a CA, a
// server certificate for the loopback address (and "localhost") signed by
// it, a client certificate signed by it, and a second CA that signed nothing
// here, for a client that trusts the wrong authority. Keys are unencrypted
// P-256 keys; everything is valid for two days.
#ifndef CORVIDA_TEST_SUPPORT_TEST_CERTIFICATES_H_
#define CORVIDA_TEST_SUPPORT_TEST_CERTIFICATES_H_

#include <string>

namespace corvida_test {

struct TestCertificates {
    std::string ca_cert;
    std::string server_cert;
    std::string server_key;
    std::string client_cert;  // common name "corvida-client"
    std::string client_key;
    std::string other_ca_cert;
};

// Writes the files into dir (which exists) and their paths into *out; false,
// with openssl's complaint in *error, when a step fails.
bool MakeTestCertificates(const std::string& dir, TestCertificates* out, std::string* error);

}  // namespace corvida_test

#endif  // CORVIDA_TEST_SUPPORT_TEST_CERTIFICATES_H_
