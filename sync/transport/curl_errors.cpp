#include "sync/transport/curl_errors.hpp"

#include <string>

namespace brackenfen::sync {

namespace error_class {
namespace {
constexpr const ErrorClass* TRUST_STORE_PARENTS[] = {&SSLError};
}  // namespace
constinit const ErrorClass TrustStoreError("TrustStoreError", TRUST_STORE_PARENTS);
}  // namespace error_class

Error network_error(CURLcode code, int system_error, std::string_view detail) {
  const std::string summary = curl_easy_strerror(code);
  const std::string detailed = detail.empty() ? summary : std::string(detail);
  switch (code) {
    case CURLE_OPERATION_TIMEDOUT:
      return TimeoutError("timed out");
    case CURLE_COULDNT_CONNECT:
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
      return system_error != 0 ? os_error(system_error) : Error(error_class::URLError, summary);
    case CURLE_GOT_NOTHING:
      return Error(error_class::ConnectionResetError, "remote end closed the connection without a response");
    case CURLE_COULDNT_RESOLVE_HOST:
      return Error(error_class::URLError, detailed);
    case CURLE_PEER_FAILED_VERIFICATION:
      return Error(error_class::SSLCertVerificationError, detailed);
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_SSL_ENGINE_NOTFOUND:
    case CURLE_SSL_ENGINE_SETFAILED:
    case CURLE_SSL_ENGINE_INITFAILED:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CIPHER:
    case CURLE_SSL_SHUTDOWN_FAILED:
    case CURLE_SSL_CRL_BADFILE:
    case CURLE_SSL_ISSUER_ERROR:
    case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
    case CURLE_SSL_INVALIDCERTSTATUS:
    case CURLE_USE_SSL_FAILED:
      return Error(error_class::SSLError, detailed);
    case CURLE_SSL_CACERT_BADFILE:
      return Error(error_class::TrustStoreError, detailed);
    case CURLE_OUT_OF_MEMORY:
      return Error(error_class::MemoryError, summary);
    default:
      return Error(error_class::URLError, summary);
  }
}

}  // namespace brackenfen::sync
