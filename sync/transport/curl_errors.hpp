// What a failure of libcurl is called here.
#pragma once

#include <curl/curl.h>

#include <string_view>

#include "sync/base/error.hpp"

namespace brackenfen::sync {

namespace error_class {
/// An SSLError of this machine's own making: its certificate authorities cannot be read.
extern const ErrorClass TrustStoreError;
}  // namespace error_class

/// The network failure behind `code`. `system_error` is the errno of the failed call, 0 where there is none.
/// `detail` is libcurl's own wording; it is shown for TLS and name look-ups only, since elsewhere it may
/// repeat what a peer or a setting holds.
[[nodiscard]] Error network_error(CURLcode code, int system_error, std::string_view detail);

}  // namespace brackenfen::sync
