// Ranges, error bodies and what one request ends with, against the scripted server.

#include "sync/transport/http.hpp"

#include <gmock/gmock.h>

#include <chrono>
#include <optional>

#include "sync/transport/retry.hpp"
#include "sync/transport/unavailable.hpp"
#include "tests/support/failures.hpp"
#include "tests/support/fake_clock.hpp"
#include "tests/support/fake_environment.hpp"
#include "tests/support/recording_log.hpp"
#include "tests/support/scripted_server.hpp"

namespace brackenfen::sync {
namespace {

using namespace std::chrono_literals;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::Pair;

class HttpTest : public testing::Test {
 protected:
  HttpTest() {
    seams_.environment = &environment_;
    seams_.clock = &clock_;
  }

  HttpResult get(const std::string& path, std::int64_t range_start = 0, std::int64_t range_end = -1) {
    return _http_get(seams_, *neighbours_, server_.url(path), "canary", range_start, range_end);
  }
  /// The error that a GET of `path` ends with, as its class and fields.
  std::optional<Error> failure_of_get(const std::string& path) {
    return error_of([&] { return get(path); });
  }

  ScriptedServer server_;
  FakeEnvironment environment_;
  FakeClock clock_;
  RecordingLog log_;
  Seams seams_ = Seams::real();
  std::shared_ptr<NeighbourSet> neighbours_ = seams_.neighbours->bind();
};

TEST_F(HttpTest, sendsItsOwnHeadersAndNoOthers) {
  server_.script("/file", {{.body = "x"}});
  static_cast<void>(get("/file", 3, 2));
  static_cast<void>(_http_get_public(seams_, *neighbours_, server_.url("/file")));
  const auto host = Pair("Host", server_.url().substr(7));
  const auto agent = Pair("User-Agent", "brackenfen-sync/0.0.3");
  EXPECT_THAT(server_.requests().at(0).headers,
              ElementsAre(host, Pair("Authorization", "Bearer canary"), agent, Pair("Range", "bytes=3-")));
  EXPECT_THAT(server_.requests().at(1).headers, ElementsAre(host, agent));
  static_cast<void>(get("/file", 0, 0));
  EXPECT_EQ(server_.requests().back().header("Range"), "bytes=0-0");
  static_cast<void>(_http_get_public(seams_, *neighbours_, server_.url("/file"), 4, 6));
  EXPECT_EQ(server_.requests().back().header("Range"), "bytes=4-6");
}

TEST_F(HttpTest, pollsTheVersionUnderItsOwnTimeoutUnlessARangeIsAsked) {
  environment_.set("BRACKENFEN_SYNC_MANIFEST_VERSION_HTTP_TIMEOUT_SECONDS", "0.05");
  const char* const paths[] = {"/data/manifest/version", "/data/manifest/version//", "/data/manifest/version/x"};
  for (const char* path : paths) server_.script(path, {{.body = "late", .delay = 200ms}, {.body = "soon"}});
  EXPECT_EQ(get("/data/manifest/version").body, "soon");
  EXPECT_EQ(get("/data/manifest/version//").body, "soon");
  EXPECT_EQ(get("/data/manifest/version/x").body, "late");
  server_.script("/data/manifest/version", {{.body = "late", .delay = 200ms}});
  EXPECT_EQ(get("/data/manifest/version", 0, 0).body, "late");
}

TEST_F(HttpTest, handsBackDefiniteAnswersWithTheirBodies) {
  for (const int status : {200, 204, 302, 304, 400, 401, 404, 501}) {
    const bool has_body = status != 204 && status != 304;
    server_.script(
        "/", {{.status = status, .headers = {{"X-Era-Id", "1"}, {"X-Era-Id", "2"}}, .body = has_body ? R"({"retryable": true})" : ""}});
    const HttpResult result = get("/");
    EXPECT_EQ(result.status, status);
    EXPECT_EQ(result.body.empty(), !has_body) << status;
    EXPECT_THAT(result.headers, testing::Contains(Pair("X-Era-Id", "2")));
    EXPECT_THAT(result.headers, Not(testing::Contains(Pair("X-Era-Id", "1"))));
  }
}

TEST_F(HttpTest, reportsTransientStatusesInTheServersWords) {
  for (const int status : TRANSIENT_HTTP_STATUSES) {
    server_.script(
        "/era/current",
        {{.status = status, .body = R"({"error_code": "", "error": "BUSY", "dependency": "db", "retryable": false, "reason": "r"})"}});
    const std::optional<Error> failure = failure_of_get("/era/current");
    ASSERT_TRUE(failure && failure->is(error_class::SyncUnavailableError)) << status;
    EXPECT_EQ(failure->text(),
              "BrackenFen data sync unavailable after 1 attempt(s). endpoint=/era/current url=" + server_.url("/era/current") +
                  " statuses=[" + std::to_string(status) + "] server_error=BUSY dependency=db retryable=False reason=r");
    EXPECT_TRUE(failure->fields().get("retryable").is_exactly(false));
    EXPECT_TRUE(failure->fields().get("typed_details").is_exactly(true));
  }
}

TEST_F(HttpTest, waitsNetworkFailuresOutAndNamesThem) {
  environment_.set("BRACKENFEN_SYNC_HTTP_TIMEOUT_SECONDS", "0.1");
  const std::vector<std::pair<Reply, std::string>> rows{
      {{.reset = true, .raw = ""}, "ConnectionResetError"},
      {{.delay = 1h}, "TimeoutError"},
      {{.headers = {{"Content-Length", "9"}}, .body = "x", .stall = true}, "TimeoutError"},
      {{.headers = {{"Content-Length", "9000"}}, .body = std::string(9000, 'x'), .drip = 1ms}, "TimeoutError"},
      {{.status = 302, .headers = {{"Location", "http://data.example.com/"}}}, "RedirectRefusedError"},
      {{.raw = "no HTTP"}, "URLError"},
  };
  for (const auto& [reply, name] : rows) {
    const RecordingLog log;
    server_.script("/file", {reply, {.body = "back"}});
    EXPECT_EQ(get("/file").body, "back") << name;
    ASSERT_EQ(log.events("http_retry").size(), 1U) << name;
    EXPECT_EQ(log.events("http_retry").at(0).get("reason"), Value(name));
    for (const RecordingLog::Entry& entry : log.entries()) EXPECT_THAT(entry.message, Not(HasSubstr("canary")));
  }
}

TEST_F(HttpTest, boundsErrorBodiesAndTakesTheirFailureForSilence) {
  environment_.set("BRACKENFEN_SYNC_HTTP_TIMEOUT_SECONDS", "0.2");
  server_.script("/endless", {{.status = 404, .body = std::string(100'000, 'e'), .endless = true}});
  server_.script("/stall", {{.status = 404, .headers = {{"Content-Length", "9"}}, .body = "x", .stall = true}});
  EXPECT_EQ(get("/endless").body.size(), MAX_ERROR_BODY_BYTES);
  EXPECT_EQ(get("/stall").body, "");
  server_.script("/reset", {{.status = 503, .headers = {{"Content-Length", "9"}}, .body = "x", .reset = true}, {.body = "back"}});
  EXPECT_EQ(get("/reset").body, "back");
  EXPECT_EQ(log_.events("http_retry").at(0).get("reason"), Value("http_503")) << "the status counts, not the broken body";
}

TEST_F(HttpTest, refusesTokensWithoutShowingThem) {
  for (const char* token : {"canary\n", "canary canary", "canary\tx", "canary\u20ac", "canary\x7f", "canary\xff"}) {
    EXPECT_EQ(failure_of([&] { return _http_get(seams_, *neighbours_, server_.url("/"), token); }),
              "ValueError: the token holds a character that HTTP forbids");
  }
  EXPECT_THAT(failure_of([&] { return _http_get(seams_, *neighbours_, "http://data.example.com/", "canary"); }),
              AllOf(HasSubstr("ValueError: "), Not(HasSubstr("canary"))));
  EXPECT_TRUE(server_.requests().empty());
}

TEST(ErrorBodies, areDocumentsOrNothing) {
  EXPECT_EQ(_parse_sync_error_body(R"({"error": "x"})"), (Document{{"error", "x"}}));
  for (const char* body : {"", "\xff{}", "{", "[1]", "null", "\xef\xbb\xbf{}"}) EXPECT_EQ(_parse_sync_error_body(body), Document()) << body;
}

TEST(DownloadStatuses, becomeTheErrorThatTheyMean) {
  struct Row {
    Value status;
    const ErrorClass& expected;
    std::string text;
    Value field;
  };
  const std::vector<Row> rows{{401, error_class::AuthError, "Authentication failed while downloading a: HTTP 401", {}},
                              {"503", error_class::SyncError, "Download failed for a: HTTP 503", {}},
                              {403, error_class::PermanentDownloadError, "Download failed for a: HTTP 403", 403},
                              {nullptr, error_class::PermanentDownloadError, "Download failed for a: HTTP None", nullptr}};
  for (const Row& row : rows) {
    const std::optional<Error> error = error_of([&] { _raise_download_http_status(Auth::builtin(), "a", row.status); });
    ASSERT_TRUE(error && error->is(row.expected)) << row.text;
    EXPECT_EQ(error->text(), row.text);
    EXPECT_EQ(error->fields().get("status"), row.field);
  }
}

}  // namespace
}  // namespace brackenfen::sync
