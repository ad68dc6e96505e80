#include "sync/transport/curl_transfer.hpp"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <utility>

#include "sync/base/environment.hpp"
#include "sync/base/error.hpp"
#include "sync/base/text/text.hpp"
#include "sync/base/threads/interrupt.hpp"
#include "sync/transport/curl_errors.hpp"
#include "sync/transport/header_rules.hpp"
#include "sync/transport/redirects.hpp"
#include "sync/transport/request_environment.hpp"
#include "sync/transport/settings.hpp"

namespace brackenfen::sync {
namespace {

using SteadyClock = std::chrono::steady_clock;

/// What curl accepts as the size of its receive buffer.
constexpr std::int64_t SMALLEST_READ_BYTES = 1024;
constexpr std::int64_t LARGEST_READ_BYTES = CURL_MAX_READ_SIZE;
/// All headers of a response together, interim responses and trailers included.
constexpr std::size_t MAX_HEADER_BYTES = 256 * 1024;
/// How long a parsed certificate store answers for its file.
constexpr long CERTIFICATE_STORE_SECONDS = 60;
/// What a look-up of a name is given at least. The system's resolver waits 5 s for a name server that is mute before it asks the next:
/// a shorter timeout would end each look-up just before its answer.
constexpr double SHORTEST_LOOK_UP_SECONDS = 30;
/// The share of the timeout after which an address that does not answer gives way to the server's next.
constexpr double SHARE_OF_AN_ADDRESS = 0.9;
/// Beyond this a timeout is none; the clock's own range ends at 292 years.
constexpr double LONGEST_TIMEOUT_SECONDS = 1e9;

/// Outside the macro of the same name, whose type checks are C.
template <typename T>
void set_option(CURL* easy, CURLoption option, T value) {
  const CURLcode outcome = (curl_easy_setopt)(easy, option, value);
  // What this libcurl was built without (a proxy scheme, another TLS library's hook) keeps its default.
  if (outcome == CURLE_OK || outcome == CURLE_UNKNOWN_OPTION || outcome == CURLE_NOT_BUILT_IN) return;
  throw network_error(outcome, 0, {});
}

/// EMFILE or ENFILE where that is why no socket could be made, or why no descriptor can be had now; else 0.
int descriptor_shortage(int socket_error) {
  int found = socket_error;
  if (found == 0) {
    const int spare = ::open("/", O_PATH | O_CLOEXEC);
    found = spare < 0 ? errno : 0;
    if (spare >= 0) ::close(spare);
  }
  return found == EMFILE || found == ENFILE ? found : 0;
}

CURLcode set_up_tls(CURL*, void* made, void* certificate_directory) {
  auto* const context = static_cast<SSL_CTX*>(made);
  // A peer that closes without TLS's farewell ends the body like any other close; lengths and digests judge what arrived.
  SSL_CTX_set_options(context, SSL_OP_IGNORE_UNEXPECTED_EOF);
  // Each record comes back to us: a peer that sends nothing but key updates would else be read without a look at the deadline.
  SSL_CTX_clear_mode(context, SSL_MODE_AUTO_RETRY);
  if (certificate_directory == nullptr) return CURLE_OK;
  const bool is_added = X509_STORE_load_path(SSL_CTX_get_cert_store(context), static_cast<const char*>(certificate_directory)) == 1;
  return is_added ? CURLE_OK : CURLE_SSL_CACERT_BADFILE;
}

/// Where the certificate authorities of this machine lie: looked up at run time, since the place is the
/// system's affair and not that of the machine this was built on.
std::string certificate_file(Environment& environment) {
  if (auto given = environment.get("SSL_CERT_FILE"); given && !given->empty()) {
    if (::access(given->c_str(), R_OK) != 0) throw Error(error_class::TrustStoreError, "SSL_CERT_FILE: " + os_error(errno, *given).text());
    return *given;
  }
  for (const char* known : {"/etc/ssl/certs/ca-certificates.crt", "/etc/pki/tls/certs/ca-bundle.crt", "/etc/ssl/ca-bundle.pem",
                            "/etc/pki/ca-trust/extracted/pem/tls-ca-bundle.pem", "/etc/ssl/cert.pem"}) {
    if (::access(known, R_OK) == 0) return known;
  }
  return {};
}

}  // namespace

std::string certificate_directory(Environment& environment) { return environment.get("SSL_CERT_DIR").value_or(""); }

Deadline::Deadline(std::optional<double> seconds) {
  if (!seconds || !(*seconds > 0.0) || *seconds > LONGEST_TIMEOUT_SECONDS) return;
  end_ = SteadyClock::now() + std::chrono::duration_cast<SteadyClock::duration>(std::chrono::duration<double>(*seconds));
}

bool Deadline::passed() const { return end_ != NEVER && SteadyClock::now() > end_; }

int Deadline::slice_milliseconds() const {
  std::chrono::milliseconds slice = INTERRUPT_SLICE;
  if (end_ != NEVER) slice = std::min(slice, std::chrono::ceil<std::chrono::milliseconds>(end_ - SteadyClock::now()));
  return static_cast<int>(std::max<std::int64_t>(slice.count(), 1));
}

// --- setting up ---------------------------------------------------------------------------------------------

CurlTransfer::CurlTransfer(const RequestRoute& route, Environment& environment, double timeout_seconds, CurlLease* kept)
    : handles_(kept != nullptr ? *kept : own_handles_.emplace(CurlLease::Connections::Close, certificate_directory(environment))),
      timeout_seconds_(timeout_seconds) {
  if (handles_.begin_transfer() == CurlLease::Handle::New) set_up_handle();
  const ProxyChoice way = proxy_for(environment, route.url(), route.is_encrypted());
  set_request(route, environment, way);
  if (route.is_encrypted() || way.is_encrypted()) set_certificates(environment);
  if (curl_multi_add_handle(handles_.multi(), handles_.easy()) != CURLM_OK) throw network_error(CURLE_OUT_OF_MEMORY, 0, {});
}

CurlTransfer::~CurlTransfer() {
  curl_multi_remove_handle(handles_.multi(), handles_.easy());
  // The handle outlives both.
  curl_easy_setopt(handles_.easy(), CURLOPT_ERRORBUFFER, nullptr);
  curl_easy_setopt(handles_.easy(), CURLOPT_HTTPHEADER, nullptr);
  if (headers_done_ && result_ == CURLE_OK) handles_.end_well();
}

void CurlTransfer::set_up_handle() {
  CURL* const easy = handles_.easy();
  set_option(easy, CURLOPT_NOSIGNAL, 1L);
  set_option(easy, CURLOPT_PATH_AS_IS, 1L);
  set_option(easy, CURLOPT_PROTOCOLS_STR, "http,https");
  set_option(easy, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
  set_option(easy, CURLOPT_FOLLOWLOCATION, 0L);
  // The deadlines are kept here; curl's own would end a longer connection attempt at 300 s.
  set_option(easy, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(INT32_MAX));
  // A name look-up cannot be called off: its thread is left behind rather than waited for.
  set_option(easy, CURLOPT_QUICK_EXIT, 1L);
  // A proxy sees what is meant for it alone.
  set_option(easy, CURLOPT_HEADEROPT, static_cast<long>(CURLHEADER_SEPARATE));
  set_option(easy, CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);

  set_option(easy, CURLOPT_SSL_VERIFYPEER, 1L);
  set_option(easy, CURLOPT_SSL_VERIFYHOST, 2L);
  set_option(easy, CURLOPT_SSL_CTX_FUNCTION, &set_up_tls);
  set_option(easy, CURLOPT_CA_CACHE_TIMEOUT, CERTIFICATE_STORE_SECONDS);

  set_option(easy, CURLOPT_OPENSOCKETFUNCTION, &CurlTransfer::open_socket);
  set_option(easy, CURLOPT_HEADERFUNCTION, &CurlTransfer::on_header);
  set_option(easy, CURLOPT_WRITEFUNCTION, &CurlTransfer::on_body);
  set_option(easy, CURLOPT_PREREQFUNCTION, &CurlTransfer::on_connected);
}

void CurlTransfer::set_request(const RequestRoute& route, Environment& environment, const ProxyChoice& way) {
  CURL* const easy = handles_.easy();
  set_option(easy, CURLOPT_ERRORBUFFER, error_text_.data());
  set_option(easy, CURLOPT_URL, route.url().c_str());
  set_option(easy, CURLOPT_FRESH_CONNECT, handles_.keeps_connections() ? 0L : 1L);
  set_option(easy, CURLOPT_FORBID_REUSE, handles_.keeps_connections() ? 0L : 1L);
  const std::int64_t read_bytes = _sync_http_response_read_bytes(environment);
  set_option(easy, CURLOPT_BUFFERSIZE, static_cast<long>(std::clamp(read_bytes, SMALLEST_READ_BYTES, LARGEST_READ_BYTES)));
  // Set even where they are empty: what is not set, curl reads from the environment itself.
  set_option(easy, CURLOPT_PROXY, way.proxy.c_str());
  set_option(easy, CURLOPT_NOPROXY, way.exempt_hosts.c_str());

  curl_slist* list = nullptr;
  const auto append = [&](const std::string& line) {
    curl_slist* const longer = curl_slist_append(list, line.c_str());
    if (longer == nullptr) throw network_error(CURLE_OUT_OF_MEMORY, 0, {});
    if (list == nullptr) request_headers_.reset(longer);
    list = longer;
  };
  for (const auto& [name, value] : route.headers()) {
    append(value.empty() ? name + ";" : name + ": " + header_value_bytes(value).value());
  }
  // Named without a value, curl's own headers stay out.
  if (!header_value(route.headers(), "Accept")) append("Accept:");
  append("Proxy-Connection:");
  set_option(easy, CURLOPT_HTTPHEADER, request_headers_.get());

  set_option(easy, CURLOPT_OPENSOCKETDATA, this);
  set_option(easy, CURLOPT_HEADERDATA, this);
  set_option(easy, CURLOPT_WRITEDATA, this);
  set_option(easy, CURLOPT_PREREQDATA, this);
}

void CurlTransfer::set_certificates(Environment& environment) {
  CURL* const easy = handles_.easy();
  const std::string file = certificate_file(environment);
  const std::string& directory = handles_.certificate_directory();
  if (file.empty() && directory.empty()) {
    throw Error(error_class::TrustStoreError, "none were found; SSL_CERT_FILE or SSL_CERT_DIR says where they are");
  }
  const char* const believed = file.empty() ? nullptr : file.c_str();
  // curl parses the file for each connection where it knows of a directory: beside a file, the directory is kept from it.
  const char* const looked_up = directory.empty() ? nullptr : directory.c_str();
  for (const CURLoption option : {CURLOPT_CAINFO, CURLOPT_PROXY_CAINFO}) set_option(easy, option, believed);
  for (const CURLoption option : {CURLOPT_CAPATH, CURLOPT_PROXY_CAPATH}) set_option(easy, option, file.empty() ? looked_up : nullptr);
  set_option(easy, CURLOPT_SSL_CTX_DATA, file.empty() ? nullptr : looked_up);
}

// --- running ------------------------------------------------------------------------------------------------

void CurlTransfer::wait_for_headers() {
  Deadline deadline(timeout_seconds_ > 0.0 ? std::max(timeout_seconds_, SHORTEST_LOOK_UP_SECONDS) : timeout_seconds_);
  for (int stage = 0; !headers_done_;) {
    step();
    if (failure_) std::rethrow_exception(failure_);
    if (headers_done_) return;
    if (result_) throw transfer_error();
    if (std::exchange(stage, stage_) != stage_) deadline = Deadline(timeout_seconds_);
    if (deadline.passed()) throw TimeoutError(stage == 0 ? "the look-up of the host's name timed out" : "timed out");
    wait_for_network(deadline);
  }
}

void CurlTransfer::read_body(BodySink& sink, std::optional<double> timeout_seconds, std::uint64_t limit) {
  const Deadline deadline(timeout_seconds);
  sink_ = &sink;
  body_room_ = limit;
  // Hands over what had arrived with the headers.
  if (!result_ && body_room_ > 0) curl_easy_pause(handles_.easy(), CURLPAUSE_CONT);
  while (body_room_ > 0) {
    if (failure_) std::rethrow_exception(failure_);
    if (result_) break;
    if (deadline.passed()) throw TimeoutError("response body read exceeded sync HTTP timeout");
    step();
    if (!result_) wait_for_network(deadline);
  }
  sink_ = nullptr;
  if (failure_) std::rethrow_exception(failure_);
  if (body_room_ == 0 || result_ == CURLE_OK) return;
  if (result_ != CURLE_PARTIAL_FILE) throw transfer_error();
  // A peer that closed early has ended the body; the caller sees how far it came. A part of an error is not its word.
  const bool is_success = status_ >= 200 && status_ < 300;
  if (!is_success || !body_begun_) throw Error(error_class::ConnectionResetError, "remote end closed the connection within the response");
}

void CurlTransfer::step() {
  moved_ = false;
  int running = 0;
  if (curl_multi_perform(handles_.multi(), &running) != CURLM_OK) throw network_error(CURLE_OUT_OF_MEMORY, 0, {});
  int queued = 0;
  while (const CURLMsg* const message = curl_multi_info_read(handles_.multi(), &queued)) {
    if (message->msg == CURLMSG_DONE) result_ = message->data.result;
  }
}

void CurlTransfer::wait_for_network(const Deadline& deadline) {
  const auto now = SteadyClock::now();
  if (now - interrupt_checked_ >= INTERRUPT_SLICE / 2) {
    interrupt_checked_ = now;
    check_interrupt();
  }
  // After bytes there are often more at once, and asking curl is cheaper than asking the system first.
  if (moved_) return;
  int ready = 0;
  curl_multi_poll(handles_.multi(), nullptr, 0, deadline.slice_milliseconds(), &ready);
}

Error CurlTransfer::transfer_error() const {
  long system_error = 0;
  curl_easy_getinfo(handles_.easy(), CURLINFO_OS_ERRNO, &system_error);
  long tunnel_status = 0;
  curl_easy_getinfo(handles_.easy(), CURLINFO_HTTP_CONNECTCODE, &tunnel_status);
  if (tunnel_status != 0 && (tunnel_status < 200 || tunnel_status >= 300))
    return Error(error_class::URLError, "the proxy refused the way to the server: HTTP " + std::to_string(tunnel_status));
  // curl tells a want of descriptors in many ways: no connection, no name, no certificates.
  if (const int shortage = system_error == 0 ? descriptor_shortage(socket_error_) : 0; shortage != 0) return os_error(shortage);
  if (*result_ == CURLE_OK) return Error(error_class::URLError, "the response ended within its headers");
  // This is how curl says that a line of the peer's is longer than it will hold.
  if (*result_ == CURLE_OUT_OF_MEMORY) return Error(error_class::URLError, "the response holds a line that is too long");
  return network_error(*result_, static_cast<int>(system_error), error_text_.data());
}

// --- called by curl -----------------------------------------------------------------------------------------

std::size_t CurlTransfer::on_header(char* bytes, std::size_t size, std::size_t count, void* self) {
  auto& transfer = *static_cast<CurlTransfer*>(self);
  try {
    transfer.moved_ = true;
    transfer.take_header_line({bytes, size * count});
    return size * count;
  } catch (...) {
    transfer.failure_ = std::current_exception();  // rethrown outside of curl
    return 0;
  }
}

std::size_t CurlTransfer::on_body(char* bytes, std::size_t size, std::size_t count, void* self) {
  auto& transfer = *static_cast<CurlTransfer*>(self);
  try {
    return transfer.take_body({bytes, size * count});
  } catch (...) {
    transfer.failure_ = std::current_exception();  // rethrown outside of curl
    return 0;
  }
}

curl_socket_t CurlTransfer::open_socket(void* self, curlsocktype, curl_sockaddr* address) {
  auto& transfer = *static_cast<CurlTransfer*>(self);
  const int made = ::socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
  if (made < 0) transfer.socket_error_ = errno;
  const double patience_ms = transfer.timeout_seconds_ * 1000.0 * SHARE_OF_AN_ADDRESS;
  if (patience_ms > 0.0 && patience_ms < INT32_MAX) {
    const auto shown = static_cast<unsigned>(patience_ms);
    ::setsockopt(made, IPPROTO_TCP, TCP_USER_TIMEOUT, &shown, sizeof shown);  // where the system has none, its own patience holds
  }
  ++transfer.stage_;
  transfer.moved_ = true;  // a server on this machine has been reached by the next step
  return made;
}

int CurlTransfer::on_connected(void* self, char*, char*, int, int) {
  ++static_cast<CurlTransfer*>(self)->stage_;
  return CURL_PREREQFUNC_OK;
}

void CurlTransfer::take_header_line(std::string_view line) {
  header_bytes_ += line.size();
  if (header_bytes_ > MAX_HEADER_BYTES) throw Error(error_class::URLError, "the response's headers are too long");
  if (headers_done_) return;  // a trailer
  while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.remove_suffix(1);
  if (line.empty()) {
    end_of_headers();
  } else if (headers_.empty() && line.starts_with("HTTP/")) {
    return;  // the status line
  } else if ((line.front() == ' ' || line.front() == '\t') && !headers_.empty()) {
    headers_.back().second += " " + text_from_latin1(strip(line));  // a folded line
  } else if (const std::size_t colon = line.find(':'); colon != std::string_view::npos) {
    headers_.emplace_back(text_from_latin1(line.substr(0, colon)), text_from_latin1(strip(line.substr(colon + 1))));
  }
}

void CurlTransfer::end_of_headers() {
  long code = 0;
  curl_easy_getinfo(handles_.easy(), CURLINFO_RESPONSE_CODE, &code);
  if (code < 100 || code > 599 || code == 101) throw Error(error_class::URLError, "the response has no valid status");
  if (code < 200) {  // an interim response; the real one follows
    headers_.clear();
    return;
  }
  require_unambiguous_length(headers_);
  status_ = static_cast<int>(code);
  headers_done_ = true;
}

std::size_t CurlTransfer::take_body(std::string_view bytes) {
  if (bytes.empty()) return 0;
  // To curl, a line that only begins as the empty one does ends the headers too.
  if (!headers_done_) throw Error(error_class::URLError, "the response's headers hold a line that is none");
  if (sink_ == nullptr) return CURL_WRITEFUNC_PAUSE;
  moved_ = true;
  body_begun_ = true;
  const auto taken = static_cast<std::size_t>(std::min<std::uint64_t>(bytes.size(), body_room_));
  if (taken > 0) sink_->accept(bytes.substr(0, taken));
  body_room_ -= taken;
  return taken;  // less than offered ends the transfer
}

}  // namespace brackenfen::sync
