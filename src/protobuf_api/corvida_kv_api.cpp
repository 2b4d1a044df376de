#include "protobuf_api/corvida_kv_api.h"

#include <utility>

namespace CORVIDA_KV {

namespace {

// Whether the NUL-terminated texts a and b are equal; names are a few
// characters long, so they are compared in place rather than measured first.
bool SameName(const char* a, const char* b) {
    while (*a == *b && *a != '\0') {
        ++a;
        ++b;
    }
    return *a == *b;
}

}  // namespace

CorvidaKVApi::CorvidaKVApi() = default;

CorvidaKVApi::~CorvidaKVApi() = default;

int CorvidaKVApi::AddCipherSuite(std::unique_ptr<CipherSuite> suite) {
    if (suite == nullptr) return -1;
    const char* name = suite->GetName();
    if (name == nullptr) return -1;
    if (Find(name) != nullptr) return -2;
    m_suites.push_back(Entry{name, std::move(suite)});
    return 0;
}

CipherSuite* CorvidaKVApi::GetCipherSuite(const char* name) {
    if (name == nullptr) return nullptr;
    const Entry* entry = Find(name);
    return entry == nullptr ? nullptr : entry->suite.get();
}

const CorvidaKVApi::Entry* CorvidaKVApi::Find(const char* name) const {
    for (const Entry& entry : m_suites) {
        if (SameName(entry.name.c_str(), name)) return &entry;
    }
    return nullptr;
}

}  // namespace CORVIDA_KV
