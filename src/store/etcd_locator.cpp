#include "store/etcd_locator.h"

namespace corvida {
namespace store {

namespace {

constexpr std::string_view kScheme = "etcd://";

bool IsAlnum(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9'); }

bool IsHostChar(char c) { return IsAlnum(c) || c == '-' || c == '.'; }

bool IsNamespaceChar(char c) { return IsAlnum(c) || c == '-' || c == '.' || c == '_'; }

bool IsIpv6Char(char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F') || c == ':' || c == '.';
}

template <typename Predicate>
bool AllOf(std::string_view text, Predicate predicate) {
    for (char c : text) {
        if (!predicate(c)) return false;
    }
    return true;
}

Status Invalid(std::string_view locator, const std::string& why) {
    return Status::InvalidArgument("etcd locator \"" + std::string(locator) + "\": " + why +
                                   " (the form is etcd://HOST:PORT[,HOST:PORT...][/NAMESPACE])");
}

// Checks one "HOST:PORT" of the member list; an empty string when it is
// well formed, else what is wrong with it.
std::string EndpointError(std::string_view endpoint) {
    const std::string quoted = "member \"" + std::string(endpoint) + "\"";
    std::string_view host;
    std::string_view rest;
    if (!endpoint.empty() && endpoint.front() == '[') {
        const size_t close = endpoint.find(']');
        if (close == std::string_view::npos) return quoted + " opens an IPv6 address with '[' but never closes it";
        host = endpoint.substr(1, close - 1);
        if (host.empty() || !AllOf(host, IsIpv6Char)) return quoted + " has no IPv6 address between its brackets";
        rest = endpoint.substr(close + 1);
    } else {
        const size_t colon = endpoint.find(':');
        if (colon == std::string_view::npos) return quoted + " has no port (HOST:PORT)";
        host = endpoint.substr(0, colon);
        rest = endpoint.substr(colon);
        if (rest.find(':', 1) != std::string_view::npos) {
            return quoted + " has more than one ':' (write an IPv6 address in brackets: [::1]:2379)";
        }
        if (host.empty()) return quoted + " has no host";
        if (!AllOf(host, IsHostChar)) return quoted + " has a host that is neither a host name nor an address";
    }
    if (rest.size() < 2 || rest.front() != ':') return quoted + " has no port (HOST:PORT)";
    const std::string_view port = rest.substr(1);
    if (port.size() > 5 || !AllOf(port, [](char c) { return c >= '0' && c <= '9'; })) {
        return quoted + " has a port that is not a number";
    }
    long value = 0;
    for (char c : port) value = value * 10 + (c - '0');
    if (value < 1 || value > 65535) return quoted + " has a port outside 1..65535";
    return std::string();
}

}  // namespace

bool IsEtcdLocator(std::string_view locator) { return locator.substr(0, kScheme.size()) == kScheme; }

Status ParseEtcdLocator(std::string_view locator, EtcdLocator* parsed) {
    if (!IsEtcdLocator(locator)) return Invalid(locator, "it does not begin with etcd://");
    std::string_view rest = locator.substr(kScheme.size());
    const size_t slash = rest.find('/');
    const std::string_view members = rest.substr(0, slash);
    const std::string_view name_space = slash == std::string_view::npos ? std::string_view() : rest.substr(slash + 1);
    if (!AllOf(name_space, IsNamespaceChar)) {
        return Invalid(locator, "the namespace \"" + std::string(name_space) +
                                    "\" holds a character other than letters, digits, '.', '_' and '-'");
    }
    if (name_space.size() > kMaxEtcdNamespace) {
        return Invalid(locator, "the namespace is longer than " + std::to_string(kMaxEtcdNamespace) + " characters");
    }
    if (members.empty()) return Invalid(locator, "it names no member");

    EtcdLocator result;
    size_t start = 0;
    while (true) {
        const size_t comma = members.find(',', start);
        const std::string_view endpoint = members.substr(start, comma - start);
        if (endpoint.empty()) return Invalid(locator, "its member list has an empty entry");
        const std::string error = EndpointError(endpoint);
        if (!error.empty()) return Invalid(locator, error);
        result.endpoints.emplace_back(endpoint);
        if (comma == std::string_view::npos) break;
        start = comma + 1;
    }
    result.name_space = std::string(name_space);
    *parsed = std::move(result);
    return Status::OK();
}

}  // namespace store
}  // namespace corvida
