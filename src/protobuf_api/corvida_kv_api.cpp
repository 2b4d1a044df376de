#include "protobuf_api/corvida_kv_api.h"

#include <cstring>
#include <utility>

namespace CORVIDA_KV {

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
    // Names come from C strings: they hold no NUL of their own.
    for (const Entry& entry : m_suites) {
        if (std::strcmp(entry.name.c_str(), name) == 0) return &entry;
    }
    return nullptr;
}

}  // namespace CORVIDA_KV
