#include "sync/transport/retry.hpp"

#include <cstdint>
#include <exception>
#include <memory>
#include <string>
#include <string_view>

#include "sync/base/log.hpp"
#include "sync/base/text/secrets.hpp"
#include "sync/base/values/json.hpp"
#include "sync/transport/activity.hpp"
#include "sync/transport/backoff.hpp"
#include "sync/transport/curl_errors.hpp"
#include "sync/transport/events.hpp"
#include "sync/transport/outage_status.hpp"
#include "sync/transport/request_environment.hpp"
#include "sync/transport/unavailable.hpp"

namespace brackenfen::sync {
namespace {

/// Of each of the server's words. They stay in the log, and in the record of an outage, for as long as it lasts.
constexpr std::size_t LONGEST_DETAIL_BYTES = 1024;

bool is_success(int status) { return status >= 200 && status < 300; }

/// Passes a body on to the caller's sink and remembers whether it was the sink that failed.
class WatchedSink final : public BodySink {
 public:
  explicit WatchedSink(ResponseSink& sink) : sink_(sink) {}

  [[nodiscard]] std::uint64_t begin(int status) {
    inside_ = begun_ = true;
    const std::uint64_t limit = sink_.begin(status);
    inside_ = false;
    return limit;
  }
  void accept(std::string_view bytes) override {
    inside_ = true;
    sink_.accept(bytes);
    inside_ = false;
  }
  /// An error left the sink.
  [[nodiscard]] bool failed() const noexcept { return inside_; }
  /// The attempt has failed: what it brought is forgotten.
  void roll_back() {
    if (begun_) sink_.roll_back();
  }

 private:
  ResponseSink& sink_;
  bool begun_ = false;
  bool inside_ = false;
};

/// One of the server's words, cut where it is too long to be one.
Value bounded_detail(const Value& word) {
  std::string text(word.if_text().value_or(""));
  if (!word.is_text()) text = write_json(word, JsonForm::SortedKeys);
  if (text.size() <= LONGEST_DETAIL_BYTES) return word;
  std::size_t end = LONGEST_DETAIL_BYTES;
  while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0U) == 0x80U) --end;  // between two characters
  return text.substr(0, end) + "...";
}

/// What the library reads of a server's parsed error body.
Document server_details(const Document& parsed) {
  std::vector<Member> details;
  for (const char* key : {"error_code", "error", "dependency", "retryable", "recovery", "reason"}) {
    if (const Value* const word = parsed.find(key)) details.push_back({key, bounded_detail(mask_secrets(*word))});  // none is cut in two
  }
  return Document(std::move(details));
}

/// Stands in for the server's own words where there are none.
Document network_failure_details(const std::string& reason) {
  return {{"error_code", reason}, {"dependency", "network"}, {"retryable", true}, {"recovery", "retry_with_backoff"}, {"reason", reason}};
}

/// What an attempt came to: a response, or an error instead of one.
struct AttemptEnd {
  int status = 0;                     ///< of the response
  Value retryable = {};               ///< what its body says, null where it says nothing
  const ErrorClass* error = nullptr;  ///< null for a response
  bool of_the_caller = false;         ///< the error is the sink's or the host's: a full disk is no outage
};

enum class NextStep {
  HandBack,  ///< a success or a definite answer: the caller's to judge
  Wait,      ///< and then ask again, without limit
  GiveUp,    ///< the server says that asking again cannot help
  Rethrow,   ///< the error is none of the network's
};

NextStep next_step(const AttemptEnd& end) {
  if (end.error != nullptr) return end.error->derives_from(error_class::OSError) && !end.of_the_caller ? NextStep::Wait : NextStep::Rethrow;
  if (!_should_retry_http_status(end.status)) return NextStep::HandBack;
  return end.retryable.is_exactly(false) ? NextStep::GiveUp : NextStep::Wait;
}

/// One call of _request_with_sync_retries.
class RetryLoop {
 public:
  RetryLoop(const Seams& seams, NeighbourSet& neighbours, HttpRequest request, float timeout_seconds, ResponseSink* sink)
      : seams_(seams), neighbours_(neighbours), request_(std::move(request)), timeout_seconds_(timeout_seconds), sink_(sink) {}

  HttpResult run();

 private:
  struct Attempt {
    HttpResult response;
    Document details;        ///< the server's words on a transient status
    bool described = false;  ///< it sent a document, also where no word of it is known
    std::optional<Error> error;
    std::exception_ptr thrown;   ///< the same, as it came
    bool of_the_caller = false;  ///< it came out of the caller's sink or the host's code

    [[nodiscard]] AttemptEnd end() const {
      return {response.status, details.get("retryable"), error ? &error->error_class() : nullptr, of_the_caller};
    }
  };

  [[nodiscard]] Attempt attempt();
  [[nodiscard]] HttpResult exchange(std::optional<WatchedSink>& watched);

  void note_status(const Attempt& failed);
  void note_network_failure(const Error& error);
  void wait(const std::string& reason, const Document& event_fields);
  void emit_status(std::string_view event_type);

  const Seams& seams_;
  NeighbourSet& neighbours_;
  HttpRequest request_;
  const float timeout_seconds_;
  ResponseSink* const sink_;

  const double started_at_ = seams_.clock->monotonic_seconds();
  std::vector<Value> statuses_;
  std::vector<Value> failures_;
  Document last_details_;   ///< the server's latest words; a network failure never hides them
  bool described_ = false;  ///< last_details_ stands, even where it is empty
  int attempt_index_ = 0;   ///< counts failed attempts
  bool outage_status_emitted_ = false;
  bool attention_asked_for_ = false;
  ServerWaitShown wait_shown_;
};

HttpResult RetryLoop::run() {
  for (;; ++attempt_index_) {
    if (attempt_index_ > 0) request_.environment = request_environment(*seams_.environment);
    Attempt made = attempt();
    switch (next_step(made.end())) {
      case NextStep::HandBack:
        if (outage_status_emitted_ && is_success(made.response.status)) emit_status("sync_recovered_status");
        return std::move(made.response);
      case NextStep::Rethrow:
        std::rethrow_exception(made.thrown);
      case NextStep::GiveUp:
        note_status(made);
        throw _sync_unavailable_from(request_.url, attempt_index_ + 1, List(statuses_), List(failures_), made.details);
      case NextStep::Wait:
        break;
    }
    if (made.error) {
      note_network_failure(*made.error);
      wait(std::string(made.error->error_class().name()), {});
    } else {
      note_status(made);
      wait("http_" + std::to_string(made.response.status), {{"status", made.response.status},
                                                            {"error_code", made.details.get("error_code")},
                                                            {"dependency", made.details.get("dependency")},
                                                            {"retryable", made.details.get("retryable")}});
    }
  }
}

RetryLoop::Attempt RetryLoop::attempt() {
  Attempt made;
  std::optional<WatchedSink> watched;
  if (sink_ != nullptr) watched.emplace(*sink_);
  try {
    made.response = exchange(watched);
    if (_should_retry_http_status(made.response.status)) {
      const Document parsed = _parse_sync_error_body(made.response.body);
      made.described = !parsed.empty();
      made.details = server_details(parsed);
    }
  } catch (const Error& error) {
    made.error = error;
    made.thrown = std::current_exception();
    made.of_the_caller = error.origin() != nullptr || (watched && watched->failed());
  }
  if (made.error && watched && !made.of_the_caller) watched->roll_back();
  return made;
}

/// One request and its answer, read whole.
HttpResult RetryLoop::exchange(std::optional<WatchedSink>& watched) {
  const auto timeout = static_cast<double>(timeout_seconds_);
  const std::unique_ptr<HttpResponse> response = _open_request(seams_, neighbours_, request_, timeout_seconds_);
  HttpResult result{response->status(), _response_headers(*response), {}};
  if (watched && (result.status == 200 || result.status == 206)) {
    const std::uint64_t limit = watched->begin(result.status);
    response->read_body(*watched, timeout, limit);
  } else if (!watched && is_success(result.status)) {
    result.body = _read_response_body(*response, timeout);
  } else {
    result.body = _read_http_error_body(*response, timeout);
  }
  return result;
}

void RetryLoop::note_status(const Attempt& failed) {
  _append_limited(statuses_, Value(failed.response.status));
  last_details_ = failed.details;
  described_ = failed.described;
}

void RetryLoop::note_network_failure(const Error& error) {
  const std::string reason(error.error_class().name());
  if (!std::exchange(described_, true)) last_details_ = network_failure_details(reason);
  _append_limited(failures_, Value(reason));

  // The events carry class names alone. Where waiting cures nothing by itself, people need the whole of it, once.
  const std::string endpoint = _sync_endpoint_from_url(request_.url);
  const bool is_local = error.is(error_class::TrustStoreError);
  const bool needs_attention = is_local || error.is(error_class::RedirectRefusedError) || error.is(error_class::SSLCertVerificationError);
  if (needs_attention && !std::exchange(attention_asked_for_, true)) {
    const char* const cure = is_local ? "this machine's certificate authorities can be read" : "the server or its certificate changes";
    log_warning("GET %s will fail until %s: %s: %s", endpoint, cure, reason, error.text());
  } else {
    log_debug("GET %s failed: %s: %s", endpoint, reason, error.text());
  }
}

void RetryLoop::wait(const std::string& reason, const Document& event_fields) {
  const auto wait_seconds = static_cast<float>(_backoff_delay_seconds(seams_, attempt_index_));
  const std::string event_file = _sync_event_file_from_url(request_.url);
  if (!outage_status_emitted_) {
    emit_status("sync_unavailable_status");
    outage_status_emitted_ = true;
  }
  wait_shown_.failed(request_.url, attempt_index_ + 1, reason, static_cast<double>(wait_seconds));
  _log_sync_event("http_retry", event_file, attempt_index_ + 1, reason, event_fields);
  _emit_sync_backoff_wait(seams_, "http_request", attempt_index_, reason, event_file, wait_seconds);
  _sleep_for_sync_backoff(seams_, wait_seconds);
}

void RetryLoop::emit_status(std::string_view event_type) {
  _emit_sync_unavailable_status(seams_, neighbours_, event_type, request_.url, List(statuses_), List(failures_), last_details_,
                                started_at_);
}

}  // namespace

HttpResult _request_with_sync_retries(const Seams& seams, NeighbourSet& neighbours, HttpRequest request, float timeout_seconds,
                                      ResponseSink* sink) {
  return RetryLoop(seams, neighbours, std::move(request), timeout_seconds, sink).run();
}

}  // namespace brackenfen::sync
