#include "sync/transport/redirects.hpp"

#include <curl/curl.h>

#include <memory>
#include <optional>

#include "sync/base/error.hpp"
#include "sync/base/text/text.hpp"
#include "sync/base/text/url.hpp"
#include "sync/transport/header_rules.hpp"

namespace brackenfen::sync {
namespace {

/// A URL taken apart by the same parser that will connect to it.
class ParsedUrl {
 public:
  ParsedUrl() : handle_(curl_url()) {
    if (!handle_) throw Error(error_class::MemoryError, "the URL parser could not be set up");
  }

  /// A relative `url` is resolved against what was set before. False, with why() telling, where it is no URL. Any scheme is
  /// one: which of them this libcurl was built with must not decide what a refusal says.
  [[nodiscard]] bool set(const std::string& url, unsigned flags) {
    outcome_ = curl_url_set(handle_.get(), CURLUPART_URL, url.c_str(), flags | CURLU_NON_SUPPORT_SCHEME);
    return outcome_ == CURLUE_OK;
  }
  [[nodiscard]] std::string why() const { return curl_url_strerror(outcome_); }

  [[nodiscard]] bool has_user_information() const { return part(CURLUPART_USER, 0).has_value() || part(CURLUPART_PASSWORD, 0).has_value(); }
  void drop_user_information() {
    curl_url_set(handle_.get(), CURLUPART_USER, nullptr, 0);
    curl_url_set(handle_.get(), CURLUPART_PASSWORD, nullptr, 0);
  }

  [[nodiscard]] std::string url() const { return part(CURLUPART_URL, 0).value_or(""); }
  [[nodiscard]] std::string scheme() const { return part(CURLUPART_SCHEME, 0).value_or(""); }
  [[nodiscard]] std::string scheme_and_host() const { return scheme() + "://" + ascii_lower(part(CURLUPART_HOST, 0).value_or("")); }
  [[nodiscard]] std::string origin() const { return scheme_and_host() + ":" + part(CURLUPART_PORT, CURLU_DEFAULT_PORT).value_or(""); }

 private:
  struct Cleanup {
    void operator()(CURLU* handle) const noexcept { curl_url_cleanup(handle); }
  };

  [[nodiscard]] std::optional<std::string> part(CURLUPart which, unsigned flags) const {
    char* text = nullptr;
    if (curl_url_get(handle_.get(), which, &text, flags) != CURLUE_OK) return std::nullopt;
    const std::unique_ptr<char, decltype(&curl_free)> owned(text, &curl_free);
    return std::string(text);
  }

  std::unique_ptr<CURLU, Cleanup> handle_;
  CURLUcode outcome_ = CURLUE_OK;
};

bool is_web_scheme(std::string_view scheme) { return scheme == "https" || scheme == "http"; }

[[noreturn]] void refuse(const std::string& why) { throw Error(error_class::RedirectRefusedError, why); }

void require_acceptable_target(const ParsedUrl& target, bool from_encrypted, const TransportSecurity& may_follow) {
  const std::string refused = "redirect to " + target.scheme_and_host() + " refused: ";
  if (!is_web_scheme(target.scheme())) refuse("redirect refused: its target is neither http nor https");
  if (target.has_user_information()) refuse(refused + "its target holds user information");
  if (from_encrypted && target.scheme() != "https") refuse(refused + "it would leave https");
  try {
    require_printable_url(target.url());
    may_follow.validate_bearer_transport_url(target.url());
  } catch (const Error& error) {
    refuse(refused + error.text());
  }
}

}  // namespace

bool is_redirect_status(int status) noexcept { return status == 301 || status == 302 || status == 303 || status == 307 || status == 308; }

RequestRoute::RequestRoute(const HttpRequest& request) : headers_(request.headers) {
  require_printable_url(request.url);
  require_sendable_headers(request.headers);
  ParsedUrl parsed;
  // The path goes out as it stands: "a/../b" is the server's to judge.
  if (!parsed.set(request.url, CURLU_PATH_AS_IS)) throw ValueError("the URL is not valid: " + parsed.why());
  const std::string scheme = parsed.scheme();
  if (!is_web_scheme(scheme)) throw ValueError("the URL is neither http nor https");
  parsed.drop_user_information();
  url_ = parsed.url();
  is_encrypted_ = scheme == "https";
}

void RequestRoute::follow(std::string_view location, const TransportSecurity& may_follow) {
  if (++redirects_ > MAX_REDIRECTS) refuse("more than " + std::to_string(MAX_REDIRECTS) + " redirects");
  ParsedUrl target;
  const bool is_set = target.set(url_, CURLU_PATH_AS_IS);
  const std::string origin = target.origin();
  // A fragment alone means the same address again; curl's parser would cut the path's last segment off.
  const bool resolved =
      is_set && (location.starts_with('#') || target.set(latin1_from_text(location).value_or(std::string(location)), CURLU_URLENCODE));
  if (!resolved) refuse("redirect refused: its target is not valid: " + target.why());
  require_acceptable_target(target, is_encrypted(), may_follow);

  url_ = target.url();
  is_encrypted_ = target.scheme() == "https";
  if (target.origin() == origin) return;
  const auto erased = std::erase_if(headers_, [](const auto& header) { return ascii_lower(header.first) == "authorization"; });
  if (erased != 0) origin_without_token_ = target.origin();
}

}  // namespace brackenfen::sync
