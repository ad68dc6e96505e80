// Ranges, error bodies and what one request ends with, against the scripted server.

#include "sync/transport/http.hpp"

#include <gmock/gmock.h>

#include <chrono>

#include "tests/support/failures.hpp"
#include "tests/support/fake_clock.hpp"
#include "tests/support/fake_environment.hpp"
#include "tests/support/recording_log.hpp"
#include "tests/support/scripted_server.hpp"

namespace brackenfen::sync {
namespace {

using namespace std::chrono_literals;
using namespace testing;

/// Notes the timeouts that requests are sent under.
struct NotingClient final : HttpClient {
  std::vector<double> timeouts;
  std::unique_ptr<HttpResponse> open(const HttpRequest& request, double timeout_seconds, const TransportSecurity& security) override {
    timeouts.push_back(timeout_seconds);
    return real().open(request, timeout_seconds, security);
  }
};

class HttpTest : public testing::Test {
 protected:
  HttpTest() {
    seams_.http = &client_;
    seams_.environment = &environment_;
    seams_.clock = &clock_;
  }

  HttpResult get(const std::string& path, std::int64_t range_start = 0, std::int64_t range_end = -1) {
    return _http_get(seams_, *neighbours_, server_.url(path), {"canary"}, range_start, range_end);
  }

  NotingClient client_;
  ScriptedServer server_;
  FakeEnvironment environment_;
  FakeClock clock_;
  RecordingLog log_;
  Seams seams_ = Seams::real();
  std::shared_ptr<NeighbourSet> neighbours_ = seams_.neighbours->bind();
};

TEST_F(HttpTest, sendsEachRequestUnderItsTimeoutAndWaitsOutWhatThatEnds) {
  environment_.set("BRACKENFEN_SYNC_MANIFEST_VERSION_HTTP_TIMEOUT_SECONDS", "0.5");
  environment_.set("BRACKENFEN_SYNC_HTTP_TIMEOUT_SECONDS", "0.125");
  for (const char* path : {"", "//", "/x"}) static_cast<void>(get(std::string("/data/manifest/version") + path));
  static_cast<void>(get("/data/manifest/version", 0, 0));
  static_cast<void>(_http_get_public(seams_, *neighbours_, server_.url("/file")));
  EXPECT_THAT(client_.timeouts, ElementsAre(0.5, 0.5, 0.125, 0.125, 0.125));

  server_.script("/file", {{.delay = 1h}, {.headers = {{"Content-Length", "9"}}, .body = "x", .stall = true}, {.body = "back"}});
  EXPECT_EQ(get("/file").body, "back");
  std::vector<Value> reasons;
  for (const Document& retry : log_.events("http_retry")) reasons.push_back(retry.get("reason"));
  EXPECT_THAT(reasons, ElementsAre(Value("TimeoutError"), Value("TimeoutError")));
}

TEST_F(HttpTest, takesTheFailureOfAnErrorsBodyForSilence) {
  environment_.set("BRACKENFEN_SYNC_HTTP_TIMEOUT_SECONDS", "0.2");
  server_.script("/stall", {{.status = 404, .headers = {{"Content-Length", "9"}}, .body = "x", .stall = true}});
  EXPECT_EQ(get("/stall").body, "");
  server_.script("/cut", {{.status = 404, .headers = {{"Content-Length", "9"}}, .body = "{}", .cut_after = 2}});
  EXPECT_EQ(get("/cut").body, "");
  server_.script("/reset", {{.status = 503, .headers = {{"Content-Length", "9"}}, .body = "x", .reset = true}, {.body = "back"}});
  EXPECT_EQ(get("/reset").body, "back");
  EXPECT_EQ(log_.events("http_retry").at(0).get("reason"), Value("http_503")) << "the status counts, not the broken body";
}

TEST_F(HttpTest, refusesTokensWithoutShowingThem) {
  for (const char* token : {"canary\n", "canary canary", "canary\tx", "canary\u20ac", "canary\x7f", "canary\xff"}) {
    EXPECT_EQ(failure_of([&] { return _http_get(seams_, *neighbours_, server_.url("/"), {token}); }),
              "ValueError: the token holds a character that HTTP forbids");
  }
  EXPECT_THAT(failure_of([&] { return _http_get(seams_, *neighbours_, "http://data.example.com/", {"canary"}); }),
              AllOf(HasSubstr("ValueError: "), Not(HasSubstr("canary"))));
  EXPECT_TRUE(server_.requests().empty());
}

}  // namespace
}  // namespace brackenfen::sync
