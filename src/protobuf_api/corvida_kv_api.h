// The KV API object as the protobuf bridge needs it: the owner of the
// configured cipher suites, handed out by name.
//
// Suites are added once at start-up; afterwards GetCipherSuite() only reads
// and may be called from several threads at once. Suites themselves must then
// be safe to use concurrently (AesSivCipherSuite is).
#ifndef CORVIDA_PROTOBUF_API_CORVIDA_KV_API_H_
#define CORVIDA_PROTOBUF_API_CORVIDA_KV_API_H_

#include <memory>
#include <string>
#include <vector>

#include "protobuf_api/cipher_suite_base.h"

namespace CORVIDA_KV {

class CorvidaKVApi {
public:
    CorvidaKVApi();
    ~CorvidaKVApi();

    CorvidaKVApi(const CorvidaKVApi&) = delete;
    CorvidaKVApi& operator=(const CorvidaKVApi&) = delete;

    // Takes ownership of suite under suite->GetName(). Returns 0; -1 when the
    // suite or its name is null; -2 when a suite of that name is present
    // (the new suite is then destroyed and the present one kept).
    int AddCipherSuite(std::unique_ptr<CipherSuite> suite);

    // The suite of that name, or null for a null or unknown name. The suite
    // stays owned by this object. Allocates nothing.
    CipherSuite* GetCipherSuite(const char* name);

private:
    struct Entry {
        std::string name;
        std::unique_ptr<CipherSuite> suite;
    };

    // The entry named name, or null.
    const Entry* Find(const char* name) const;

    // A client configures a few suites: a search of them one by one costs
    // less than a tree's string comparisons on every key.
    std::vector<Entry> m_suites;
};

}  // namespace CORVIDA_KV

#endif  // CORVIDA_PROTOBUF_API_CORVIDA_KV_API_H_
