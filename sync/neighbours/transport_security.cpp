#include "sync/neighbours/transport_security.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstring>
#include <optional>
#include <string>

#include "sync/base/error.hpp"
#include "sync/base/text/url.hpp"

namespace brackenfen::sync {
namespace {

bool is_ipv6(const std::string& host) { return host.find(':') != std::string::npos; }

/// A host that every reader of URLs understands alike. Escapes and odd punctuation are where they differ.
bool is_plain_host(const std::string& host) {
  if (is_ipv6(host)) {
    in6_addr ipv6{};
    return inet_pton(AF_INET6, host.c_str(), &ipv6) == 1;
  }
  for (const char character : host) {
    const bool letter = character >= 'a' && character <= 'z';
    const bool digit = character >= '0' && character <= '9';
    if (!letter && !digit && character != '-' && character != '.' && character != '_') return false;
  }
  return true;
}

bool has_usable_port(const UrlParts& parts) {
  try {
    const std::optional<int> port = parts.port();
    return !port || *port != 0;
  } catch (const ValueError&) {
    return false;
  }
}

/// What a message may tell of a URL: neither user information nor path and query, which can hold secrets.
std::string origin_without_secrets(const UrlParts& parts) {
  const std::string host = parts.host();
  return parts.scheme + "://" + (is_ipv6(host) ? "[" + host + "]" : host);
}

class BuiltinTransportSecurity final : public TransportSecurity {
 public:
  void validate_bearer_transport_url(std::string_view url) const override {
    require_printable_url(url);
    const UrlParts parts = split_url(url);
    const std::string host = parts.host();
    if (parts.scheme != "https" && parts.scheme != "http") {
      // The scheme stays unnamed: of "user:password@host" it is the user.
      throw ValueError("URL must begin with https://, or with http:// for this machine only");
    }
    if (host.empty()) throw ValueError("URL must name a host, such as https://data.example.com");
    if (parts.has_user_information()) {
      throw ValueError("URL must not hold a user name or password; give the address alone: " + origin_without_secrets(parts));
    }
    if (!is_plain_host(host)) throw ValueError("URL must name its host by letters, digits, '-', '_' and '.', or by an address");
    if (!has_usable_port(parts)) throw ValueError("URL must have a port from 1 to 65535, or none: " + origin_without_secrets(parts));
    if (parts.scheme == "http" && !names_this_machine(host)) {
      throw ValueError("URL must use https, or http on this machine only: " + origin_without_secrets(parts));
    }
  }
};

}  // namespace

// Only full dotted or colon forms count: resolvers read "127.1" and "0177.0.0.1" in ways of their own.
bool names_this_machine(const std::string& host) {
  if (host == "localhost") return true;
  in_addr ipv4{};
  if (inet_pton(AF_INET, host.c_str(), &ipv4) == 1) return (ntohl(ipv4.s_addr) >> 24) == 127;
  in6_addr ipv6{};
  return inet_pton(AF_INET6, host.c_str(), &ipv6) == 1 && std::memcmp(&ipv6, &in6addr_loopback, sizeof ipv6) == 0;
}

const TransportSecurity& TransportSecurity::builtin() {
  static const TransportSecurity& security = *new BuiltinTransportSecurity;
  return security;
}

}  // namespace brackenfen::sync
