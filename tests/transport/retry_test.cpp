// The loop that waits outages out, on a clock that passes at once and a client that does as it is told.
#include "sync/transport/retry.hpp"

#include <gmock/gmock.h>

#include <cerrno>
#include <deque>
#include <map>

#include "sync/base/log.hpp"
#include "sync/base/text/secrets.hpp"
#include "sync/base/values/convert.hpp"
#include "sync/transport/curl_errors.hpp"
#include "sync/transport/event_counts.hpp"
#include "tests/support/failures.hpp"
#include "tests/support/fake_clock.hpp"
#include "tests/support/fault_files.hpp"
#include "tests/support/recording_log.hpp"
#include "tests/support/temporary_directory.hpp"

namespace brackenfen::sync {
namespace {

using namespace testing;

/// What one attempt meets.
struct Step {
  int status = 200;
  std::string body = {};
  const ErrorClass* error = nullptr;  ///< instead of an answer
  bool in_the_body = false;           ///< only after some of the body
};
Step fails(const ErrorClass& error) { return {.error = &error}; }

class ScriptedResponse final : public HttpResponse {
 public:
  explicit ScriptedResponse(Step step) : step_(std::move(step)) {}
  int status() const override { return step_.status; }
  const Headers& headers() const override { return headers_; }
  void read_body(BodySink& sink, std::optional<double>, std::uint64_t) override {
    sink.accept(step_.body);
    if (step_.in_the_body) throw Error(*step_.error, "in the body");
  }

 private:
  Step step_;
  Headers headers_{{"Retry-After", "86400"}};
};

/// The steps one after the other; the last one stays.
class ScriptedClient final : public HttpClient {
 public:
  std::deque<Step> steps;
  std::size_t attempts = 0;

  std::unique_ptr<HttpResponse> open(const HttpRequest&, double, const TransportSecurity&) override {
    ++attempts;
    const Step step = steps.front();
    if (steps.size() > 1) steps.pop_front();
    if (step.error != nullptr && !step.in_the_body) throw Error(*step.error, "why it failed");
    return std::make_unique<ScriptedResponse>(step);
  }
};

class RetryTest : public testing::Test {
 protected:
  RetryTest() {
    seams_.http = &client_;
    seams_.clock = &clock_;
    seams_.files = &files_;
  }
  HttpResult get(std::deque<Step> steps) {
    client_.steps = std::move(steps);
    client_.attempts = 0;
    return _request_with_sync_retries(seams_, *neighbours_, {"https://host/data/files/a/b.arrow?secret", {}}, 30);
  }

  ScriptedClient client_;
  FakeClock clock_;
  FaultFiles files_;
  Seams seams_ = Seams::real();
  std::shared_ptr<NeighbourSet> neighbours_ = seams_.neighbours->bind();
  RecordingLog log_;
};

TEST_F(RetryTest, endsAsTheServerDecidesAndTellsAboutIt) {
  const Step down{.status = 503}, refusal{.status = 503, .body = R"({"retryable": false})"};
  const std::string unavailable = "SyncUnavailableError: BrackenFen data sync unavailable after ";
  struct Row {
    const char* name;
    std::deque<Step> steps;
    std::string ends;  ///< the status handed back, or the failure
    std::size_t waits;
    std::size_t recovered;
  };
  const Row rows[] = {
      {"two outages, then an answer", {down, {.status = 429}, {.body = "x"}}, "200 x", 2, 1},
      {"an outage, then a definite no", {down, {.status = 404, .body = R"({"retryable": true})"}}, "404 {\"retryable\": true}", 1, 0},
      {"no word of the server's", {{.status = 503, .body = R"({"retryable": 0})"}, {.status = 204}}, "204 ", 1, 1},
      {"the server's own last word", {refusal}, unavailable + "1 attempt(s). endpoint=/data/files/a/b.arrow", 0, 0},
      {"the same after an outage", {down, fails(error_class::TimeoutError), refusal}, unavailable + "3 attempt(s).", 2, 0},
      {"what is none of the network's", {down, fails(error_class::ValueError)}, "ValueError: why it failed", 1, 0},
      {"nor is this", {fails(error_class::SyncError)}, "SyncError: why it failed", 0, 0},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    const RecordingLog log;
    std::string ended;
    const std::string failure = failure_of([&] {
      const HttpResult result = get(row.steps);
      ended = std::to_string(result.status) + " " + result.body;
      return 0;
    });
    EXPECT_THAT(ended + failure, StartsWith(row.ends));
    EXPECT_THAT(log.events("sync_unavailable_status"), SizeIs(row.waits > 0 ? 1 : 0));
    EXPECT_THAT(log.events("http_retry"), SizeIs(row.waits));
    EXPECT_THAT(log.events("sync_backoff_wait"), SizeIs(row.waits));
    EXPECT_THAT(log.events("sync_recovered_status"), SizeIs(row.recovered));
  }
}

TEST_F(RetryTest, aNetworkFailureNeverHidesWhatTheServerSaid) {
  const std::string words = R"({"error": "DB_DOWN", "dependency": "db", "reason": 7, "other": 1})";
  static_cast<void>(get({fails(error_class::TimeoutError), {.status = 503, .body = words}, fails(error_class::ConnectionResetError), {}}));
  const Document gone = log_.events("sync_unavailable_status").at(0);
  EXPECT_EQ(gone.get("last_server_error_code"), Value("TimeoutError"));
  EXPECT_EQ(gone.get("dependency"), Value("network"));
  const Document back = log_.events("sync_recovered_status").at(0);
  EXPECT_EQ(back.get("last_server_error_code"), Value("DB_DOWN"));
  EXPECT_EQ(back.get("reason"), Value("7"));
  EXPECT_EQ(back.get("status_sequence"), Value(List{503}));
  EXPECT_EQ(back.get("exception_sequence"), Value(List{"TimeoutError", "ConnectionResetError"}));
  const std::vector<Document> retries = log_.events("http_retry");
  EXPECT_EQ(retries.at(0), (Document{{"event_type", "http_retry"}, {"file", "a/b.arrow"}, {"count", 1}, {"reason", "TimeoutError"}}));
  EXPECT_EQ(retries.at(1), (Document{{"event_type", "http_retry"},
                                     {"file", "a/b.arrow"},
                                     {"count", 2},
                                     {"reason", "http_503"},
                                     {"status", 503},
                                     {"dependency", "db"}}));

  const Step reset = fails(error_class::ConnectionResetError);
  const std::vector<std::pair<std::deque<Step>, std::string>> rows{
      {{fails(error_class::TimeoutError), {.status = 502, .body = "[]"}, {}}, ""},  // an answer without words forgets them
      {{{.status = 502, .body = "[]"}, reset, fails(error_class::TimeoutError), {}}, "ConnectionResetError"},
      {{{.status = 502, .body = R"({"message": "words of its own"})"}, reset, {}}, ""},
  };
  for (const auto& [steps, code] : rows) {
    static_cast<void>(get(steps));
    EXPECT_EQ(log_.events("sync_recovered_status").back().get("last_server_error_code"), Value(code));
  }
}

TEST_F(RetryTest, tenMinutesOfOutageStaySmall) {
  std::deque<Step> outage;
  for (int minute = 0; minute < 10; ++minute) {
    for (const int status : {503, 500}) outage.push_back({.status = status});
    outage.push_back(fails(error_class::ConnectionRefusedError));
  }
  outage.push_back({.body = "back"});
  constexpr double UP_SECONDS = 1e9;
  clock_.advance(UP_SECONDS);
  EXPECT_EQ(get(outage).body, "back");
  const double waited = clock_.monotonic_seconds() - UP_SECONDS;
  EXPECT_GT(waited, 600);
  const Document back = log_.events("sync_recovered_status").at(0);
  EXPECT_THAT(*back.get("status_sequence").if_list(), SizeIs(20));
  EXPECT_THAT(*back.get("exception_sequence").if_list(), SizeIs(10));
  EXPECT_NEAR(*back.get("elapsed_seconds").if_real(), waited, 1e-3) << "however long the machine has been up";
  std::map<std::string, int> lines;
  for (const char* type : {"http_retry", "sync_backoff_wait", "sync_unavailable_status"}) {
    for (const Document& event : log_.events(type)) ++lines[type + to_text(event.get("reason"))];
  }
  for (const auto& [key, count] : lines) EXPECT_LE(count, SYNC_EVENT_COALESCE_LIMIT) << key;
  EXPECT_THAT(event_counts().all(), SizeIs(7)) << "one outage, and a retry and a wait for each of three causes";
}

TEST_F(RetryTest, cutsTheWordsOfAServerBetweenTwoCharacters) {
  std::string umlauts;
  for (int count = 0; count < 30'000; ++count) umlauts += "\u00fc";
  static_cast<void>(get({{.status = 503, .body = R"({"error_code": [[1]], "reason": ")" + umlauts + "\"}"}, {}}));
  const Document back = log_.events("sync_recovered_status").at(0);
  EXPECT_THAT(std::string(*back.get("reason").if_text()), AllOf(SizeIs(1024 + 3), HasSubstr("\u00fc...")));
}

TEST_F(RetryTest, noLineAndNoErrorShowsAToken) {
  remember_secret("canary/5f+d9c");
  const std::string forms =
      "canary/5f+d9c canary%2F5f%2Bd9c canary%2f5f%2bd9c canary/5f%2Bd9c canary\\/5f+d9c %63anary/5f+d9c Y2FuYXJ5LzVmK2Q5Y "
      "NhbmFyeS81ZitkOW jYW5hcnkvNWYrZDlj";
  log_warning("%s %r", forms, Value(List{forms}));
  for (const std::string& told : {log_.messages(LogLevel::Warning).at(0), Error(error_class::EraError, forms).text()})
    EXPECT_THAT(told, Not(ContainsRegex("[[:alnum:]%]")));
}

TEST_F(RetryTest, asksForAttentionOnceWhereWaitingAloneCuresNothing) {
  const std::pair<const ErrorClass*, std::string> rows[] = {
      {&error_class::RedirectRefusedError, "the server or its certificate changes: RedirectRefusedError: why it failed"},
      {&error_class::SSLCertVerificationError, "the server or its certificate changes: SSLCertVerificationError: why it failed"},
      {&error_class::TrustStoreError, "this machine's certificate authorities can be read: TrustStoreError: why it failed"},
  };
  for (const auto& [error, expected] : rows) {
    log_.clear();
    static_cast<void>(get({fails(*error), fails(*error), fails(error_class::URLError), {}}));
    EXPECT_THAT(log_.messages(LogLevel::Warning), ElementsAre("GET /data/files/a/b.arrow will fail until " + expected));
    EXPECT_THAT(log_.messages(LogLevel::Debug), AllOf(SizeIs(2), Each(StartsWith("GET /data/files/a/b.arrow failed: "))));
  }
}

TEST_F(RetryTest, takesAFullDiskForNoOutage) {
  struct FullDisk final : ResponseSink {
    std::uint64_t begin(int) override { return 1000; }
    void accept(std::string_view) override { throw os_error(ENOSPC, "/data/file.tmp"); }
    void roll_back() override { ADD_FAILURE() << "what the sink threw is its own affair"; }
  } sink;
  client_.steps = {{.body = "x"}, fails(error_class::ValueError)};  // where it waits nevertheless
  EXPECT_EQ(failure_of([&] {
              return _request_with_sync_retries(seams_, *neighbours_, {"https://host/x", {}}, 30, &sink);
            }),
            "OSError: [Errno 28] No space left on device: '/data/file.tmp'");
}

TEST_F(RetryTest, leavesAWaitAtOnceWhenAskedToOrWhenItCannotBeShown) {
  {
    int asked = 0;
    const auto scope = SyncBackoff::builtin().enter_context(
        {.data_dir = {}, .surface = {}, .stop_requested = [&] { return ++asked > 3; }, .host_fields = {}});
    EXPECT_THAT(failure_of([&] { return get({{.status = 503}}); }), StartsWith("SyncBackoffCancelled"));
    EXPECT_EQ(client_.attempts, 1U);
  }
  const TemporaryDirectory directory;
  const auto scope =
      SyncBackoff::builtin().enter_context({.data_dir = directory.path(), .surface = {}, .stop_requested = {}, .host_fields = {}});
  files_.fail(FaultFiles::Call::WriteNew, 2, ENOSPC);
  EXPECT_THAT(failure_of([&] { return get({{.status = 503}}); }), StartsWith("OSError: [Errno 28]"));
  EXPECT_EQ(client_.attempts, 2U);

  log_.on_write = [](const LogRecord&) { throw Error(error_class::OSError, "no log"); };
  for (const std::deque<Step>& steps : {std::deque<Step>{{.status = 503}}, std::deque<Step>{fails(error_class::ConnectionResetError)}}) {
    EXPECT_EQ(failure_of([&] { return get(steps); }), "OSError: no log");
    EXPECT_EQ(client_.attempts, 1U);
  }
}

}  // namespace
}  // namespace brackenfen::sync
