// What the server says of eras and versions, and the bodies of its errors, lead to a verdict or a named error, and show no
// token. Input: a status, the header X-Era-Id, and the body on the lines after them.
#include "sync/base/values/convert.hpp"
#include "sync/era/era_current.hpp"
#include "sync/era/watcher_decision.hpp"
#include "sync/transport/header_rules.hpp"
#include "sync/transport/unavailable.hpp"
#include "tests/fuzz/managers.hpp"

namespace {

/// Gives every request the same answer.
struct FakeClient final : HttpClient {
  struct Response final : HttpResponse {
    explicit Response(const HttpResult& given) : answer(given) {}
    int status() const override { return answer.status; }
    const Headers& headers() const override { return answer.headers; }
    void read_body(BodySink& sink, std::optional<double>, std::uint64_t limit) override { sink.accept(answer.body.substr(0, limit)); }
    const HttpResult& answer;
  };
  std::unique_ptr<HttpResponse> open(const HttpRequest&, double, const TransportSecurity&) override {
    ++requests;
    return std::make_unique<Response>(answer);
  }
  HttpResult answer;
  int requests = 0;
};

FakeClient CLIENT;

void check_era(const Document& answer) {
  require(answer.contains("era") || _normalize_era_current_response(answer).same_as(answer), "a flat answer is passed through");
  const EraReport report = read_era_report(answer);
  require(!announces_close(report) || report.state == Value("active"), "what is active has its end announced");
  const auto is_later = [](const Value& left, const Value& right) {
    return unless_refused([&] { return era_is_later(left, right); }, error_class::TypeError, error_class::OverflowError);
  };
  for (const Value& known : {Value(7), Value("7"), Value(), report.state}) {
    const EraAction in_closing = decide_era_action(report, true, known);
    require(in_closing != EraAction::TransitToClosing && (in_closing != EraAction::Cancel || report.state == Value("active")),
            "an end comes once");
    const bool is_new = decide_era_action(report, false, known) == EraAction::TransitToNewEra;
    require(!is_new || report.era_number != known, "a new era is another one");
    require(is_later(report.era_number, known) != true || is_later(known, report.era_number) == false, "of two eras one is later");
  }
}

template <typename Operation, typename... Classes>
void check_request(const Operation& operation, const Classes&... classes) {
  CLIENT.requests = 0;
  static_cast<void>(ends_well(
      operation, [] { return CLIENT.requests > 2; }, classes...));
  require(CLIENT.requests <= 4, "requests come to an end");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static SyncManager& manager = []() -> SyncManager& {
    directory().write("manifest.json", R"({"era_number": 7, "version": 3, "files": {}})");
    static const auto made = open_manager(directory().path(), "https://server.example", CLIENT);
    return *made;
  }();
  event_counts().clear();
  Input input(data, size);
  CLIENT.answer.status = static_cast<int>(to_integer_or_absent(input.line()).value_or(200).if_integer().value_or(200) % 1000);
  CLIENT.answer.headers = {{"X-Era-Id", text_from_latin1(input.line())}};
  CLIENT.answer.body = input.rest();
  const Document words = _parse_sync_error_body(CLIENT.answer.body);
  const auto is_typed = [](const Error& error) { return error.fields().get("typed_details").truthy(); };
  const SyncUnavailableError same(
      {.dependency = words.get("dependency"), .retryable = words.get("retryable"), .recovery = words.get("recovery")});
  require(is_typed(_sync_unavailable_from("https://server.example/a", 1, {}, {}, words)) || !is_typed(same),
          "an error is typed by its details");
  const auto parse = [&] { return parse_era_current(CLIENT.answer.body); };
  if (const auto answer = unless_refused(parse, error_class::JSONDecodeError, error_class::UnicodeDecodeError)) check_era(*answer);

  const Document stamped{{"_manifest_version", 3}, {"_manifest_era_id", 7}};
  const ErrorClass& auth_error = neighbours().auth().auth_error_class();
  check_request([&] { return manager._http_get(neighbours(), "https://server.example/a").status; });
  check_request([&] { return manager._confirm_active_era(neighbours(), 7, true); }, error_class::EraError);
  check_request([&] { return manager._check_transition_superseded(neighbours(), 7); }, error_class::EraError);
  check_request([&] { return manager._download_manifest_superseded(neighbours(), stamped); }, auth_error);
  check_request([&] { return manager.needs_sync(); }, error_class::JSONDecodeError, error_class::UnicodeDecodeError,
                error_class::AttributeError);
  check_request([&] { return manager._download_shuffle_seed(neighbours(), *manager.get_manifest()); }, error_class::SyncError, auth_error);
  return 0;
}
