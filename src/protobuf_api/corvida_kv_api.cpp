#include "protobuf_api/corvida_kv_api.h"

#include <string_view>
#include <utility>

namespace CORVIDA_KV {

CorvidaKVApi::CorvidaKVApi() = default;

CorvidaKVApi::~CorvidaKVApi() = default;

int CorvidaKVApi::AddCipherSuite(std::unique_ptr<CipherSuite> suite) {
    if (suite == nullptr) return -1;
    const char* name = suite->GetName();
    if (name == nullptr) return -1;
    if (m_suites.find(std::string_view(name)) != m_suites.end()) return -2;
    m_suites.emplace(name, std::move(suite));
    return 0;
}

CipherSuite* CorvidaKVApi::GetCipherSuite(const char* name) {
    if (name == nullptr) return nullptr;
    auto it = m_suites.find(std::string_view(name));
    return it == m_suites.end() ? nullptr : it->second.get();
}

}  // namespace CORVIDA_KV
