// The client against a server of scripted behaviour: what is sent, what is refused, and what failures are called.

#include "sync/transport/http_client.hpp"

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <map>
#include <thread>
#include <tuple>

#include "sync/base/error.hpp"
#include "sync/base/files/descriptor.hpp"
#include "sync/base/threads/interrupt.hpp"
#include "sync/neighbours/transport_security.hpp"
#include "sync/transport/request_environment.hpp"
#include "tests/support/failures.hpp"
#include "tests/support/fake_environment.hpp"
#include "tests/support/recording_log.hpp"
#include "tests/support/scripted_server.hpp"
#include "tests/support/temporary_directory.hpp"

/// Stands before the system's: "two.test" is found after 2.1 s, at an address before the one of the scripted servers.
extern "C" [[gnu::visibility("default")]] int getaddrinfo(const char* name, const char* service, const addrinfo* hints, addrinfo** found) {
  static const auto system = reinterpret_cast<decltype(&getaddrinfo)>(::dlsym(RTLD_NEXT, "getaddrinfo"));
  if (name == nullptr || std::string_view(name) != "two.test") return system(name, service, hints, found);
  std::this_thread::sleep_for(std::chrono::milliseconds(2100));
  const int outcome = system("127.0.0.2", service, hints, found);
  return outcome != 0 ? outcome : system("127.0.0.1", service, hints, &(*found)->ai_next);
}

namespace brackenfen::sync {
namespace {

using namespace std::chrono_literals;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::Pair;
using testing::StartsWith;

constexpr double PATIENCE_SECONDS = 10.0;

class Sink final : public BodySink {
 public:
  explicit Sink(std::function<void(std::string_view)> on_bytes) : on_bytes_(std::move(on_bytes)) {}
  void accept(std::string_view bytes) override { on_bytes_(bytes); }

 private:
  std::function<void(std::string_view)> on_bytes_;
};

std::unique_ptr<HttpResponse> open(const std::string& url, const Headers& headers = {}, double timeout_seconds = PATIENCE_SECONDS) {
  return HttpClient::real().open({url, headers}, timeout_seconds, TransportSecurity::builtin());
}

std::string body_of(HttpResponse& response, std::optional<double> timeout_seconds = PATIENCE_SECONDS) {
  std::string body;
  Sink sink([&](std::string_view bytes) { body.append(bytes); });
  response.read_body(sink, timeout_seconds);
  return body;
}

std::string failure_of_get(const std::string& url) {
  return failure_of([&] { static_cast<void>(body_of(*open(url, {{"Authorization", "Bearer canary"}}))); });
}

/// A variable of the process for one test.
class Variable {
 public:
  Variable(const char* name, const std::string& value) : name_(name) { ::setenv(name, value.c_str(), 1); }
  Variable(const Variable&) = delete;
  Variable& operator=(const Variable&) = delete;
  ~Variable() { ::unsetenv(name_); }

 private:
  const char* name_;
};

TEST(HttpClient, sendsExactlyTheHeadersGiven) {
  ScriptedServer server;
  server.script("/a/../b%20c?q", {{.headers = {{"X-Name", " caf\xE9 "}, {"x-name", "second"}}, .body = "hello"}});
  const auto response = open(server.url("/a/../b%20c?q"), {{"Authorization", "Bearer caf\u00e9"}, {"User-Agent", "agent"}, {"Empty", ""}});
  EXPECT_EQ(response->status(), 200);
  EXPECT_EQ(body_of(*response), "hello");
  EXPECT_THAT(response->headers(), ElementsAre(Pair("X-Name", "caf\u00e9"), Pair("x-name", "second"), Pair("Content-Length", "5")));
  EXPECT_THAT(server.requests("/a/../b%20c?q").at(0).headers,
              ElementsAre(Pair("Host", server.url().substr(7)), Pair("Authorization", "Bearer caf\xE9"), Pair("User-Agent", "agent"),
                          Pair("Empty", "")));
}

TEST(HttpClient, refusesWhatHttpForbidsBeforeSendingAnythingAndWithoutNamingIt) {
  ScriptedServer server;
  const auto character = [](const std::string& quoted) {
    return "ValueError: URL can't contain control characters, blanks or non-ASCII characters (found " + quoted + ")";
  };
  const std::pair<HttpRequest, std::string> rows[] = {
      {{server.url("/canary b"), {}}, character("' '")},
      {{server.url("/canary\r\nX: y"), {}}, character("'\\r'")},
      {{server.url("/canary") + '\0', {}}, character("'\\x00'")},
      {{server.url("/canary\x7f"), {}}, character("'\\x7f'")},
      {{server.url("/canary\u00e9"), {}}, character("'\u00e9'")},
      {{"gopher://127.0.0.1/", {}}, "ValueError: the URL is neither http nor https"},
      {{server.url("/"), {{"Authorization", "Bearer canary\r\nX: y"}}}, "ValueError: the request header Authorization holds a character"},
      {{server.url("/"), {{"Authorization", "Bearer canary\u20ac"}}}, "ValueError: the request header Authorization holds a character"},
      {{server.url("/"), {{"Authorization", std::string("canary\0", 7)}}},
       "ValueError: the request header Authorization holds a character"},
      {{server.url("/"), {{"Bad name", "canary"}}}, "ValueError: a request header's name holds a character that HTTP forbids"},
  };
  for (const auto& [request, expected] : rows) {
    const std::string failure =
        failure_of([&forbidden = request] { return HttpClient::real().open(forbidden, 1.0, TransportSecurity::builtin()); });
    EXPECT_THAT(failure, AllOf(StartsWith(expected), Not(HasSubstr("canary")))) << request.url;
  }
  EXPECT_TRUE(server.requests().empty());
}

TEST(HttpClient, readsABodyInPiecesOfTheSizeThatIsSet) {
  ScriptedServer server;
  server.script("/", {{.body = std::string(1 << 20, 'x')}});
  const Variable setting("BRACKENFEN_SYNC_HTTP_RESPONSE_READ_BYTES", "2000");
  Sink pieces([](std::string_view bytes) { EXPECT_LE(bytes.size(), 2000U); });
  open(server.url("/"))->read_body(pieces, PATIENCE_SECONDS);
}

/// The variables are the request's own; libcurl is to look at none of the process.
TEST(HttpClient, goesByTheProxyOfItsEnvironmentAndWithATokenInClearByNoneOfAnotherMachine) {
  const Variable of_the_process("http_proxy", "http://127.0.0.1:1");
  ScriptedServer server;
  ScriptedServer proxy;
  server.script("/", {{.body = "direct"}});
  proxy.script(server.url("/"), {{.body = "by proxy"}});
  const std::string port = proxy.url().substr(proxy.url().rfind(':'));
  const std::pair<std::map<std::string, std::string>, const char*> rows[] = {
      {{}, "direct"},
      {{{"http_proxy", proxy.url()}}, "by proxy"},
      {{{"http_proxy", proxy.url()}, {"no_proxy", ""}, {"NO_PROXY", "x.invalid,127.0.0.1"}}, "direct"},
      {{{"HTTP_PROXY", proxy.url()}}, "direct"},
      {{{"http_proxy", ""}, {"all_proxy", "user:secret@localhost" + port}}, "by proxy"},
      {{{"http_proxy", "http://proxy.invalid" + port}}, "direct"},
      {{{"http_proxy", "user:[secret@proxy.invalid"}}, "direct"},
      {{{"ALL_PROXY", "socks5h://proxy.invalid"}}, "direct"},
  };
  for (const auto& [variables, expected] : rows) {
    const HttpRequest request{server.url("/"), {{"Authorization", "Bearer canary"}}, std::make_shared<FakeEnvironment>(variables)};
    const auto response = HttpClient::real().open(request, PATIENCE_SECONDS, TransportSecurity::builtin());
    EXPECT_EQ(body_of(*response), expected) << testing::PrintToString(variables);
  }
  FakeEnvironment both({{"https_proxy", ""}, {"HTTPS_PROXY", "capitals"}, {"http_proxy", "plain"}, {"all_proxy", "all"}});
  EXPECT_EQ(proxy_for(both, "https://data.example.com/", true).proxy, "capitals");
}

TEST(HttpClient, tellsAtOnceThatNoAnswerCame) {
  ScriptedServer server;
  server.script("/nothing", {{.headers = {{"Content-Length", "100"}}, .cut_after = 0}});
  server.script("/begun", {{.headers = {{"\rX", "y"}}, .body = "half"}});
  EXPECT_EQ(failure_of_get(server.url("/nothing")), "ConnectionResetError: remote end closed the connection within the response");
  EXPECT_EQ(failure_of_get(server.url("/begun")), "URLError: the response's headers hold a line that is none");
}

TEST(HttpClient, tellsAWantOfDescriptorsAndOfCertificateAuthoritiesAsWhatTheyAre) {
  ScriptedServer server;
  {
    const Variable nowhere("SSL_CERT_FILE", "/nowhere.pem");
    EXPECT_THAT(failure_of_get("https://localhost/"), HasSubstr("TrustStoreError: SSL_CERT_FILE: [Errno 2]"));
    const Variable no_certificates("SSL_CERT_FILE", "/dev/null");
    EXPECT_THAT(failure_of_get("https://" + server.url("/").substr(7)), HasSubstr("TrustStoreError: "));
  }
  rlimit usual{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &usual), 0);
  const int next = ::dup(0);
  ::close(next);
  const rlimit none{static_cast<rlim_t>(next), usual.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
  for (const std::string& url : {server.url("/"), std::string("https://no-such-host.invalid/")}) {
    EXPECT_EQ(failure_of_get(url), "OSError: [Errno 24] Too many open files") << url;
  }
  EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &usual), 0);
}

TEST(HttpClient, readsTheCertificateFileOnceForEachDirectoryBesideIt) {
  ScriptedServer server{ScriptedServer::Scheme::Https};
  server.script("/", {{.body = "whole"}, {.body = "whole"}});
  TemporaryDirectory directory;
  const Variable file("SSL_CERT_FILE", directory / "ca.pem");
  for (const char* const beside : {"", "/", "/tmp"}) {
    const Variable looked_up("SSL_CERT_DIR", beside);
    directory.write("ca.pem", server.certificate_pem());
    EXPECT_EQ(failure_of_get(server.url("/")), "") << beside;
    directory.write("ca.pem", "none");
    EXPECT_EQ(failure_of_get(server.url("/")), "") << "parsed again beside the directory " << beside;
  }
  const Variable other("SSL_CERT_DIR", "/usr");
  EXPECT_THAT(failure_of_get(server.url("/")), HasSubstr("TrustStoreError: ")) << "believed what was read beside another directory";
}

TEST(HttpClient, believesAProxyWhomItBelievesServersAndTellsWhatItRefuses) {
  ScriptedServer plain, proxy{ScriptedServer::Scheme::Https}, stranger{ScriptedServer::Scheme::Https};
  proxy.script(plain.url("/"), {{.body = "by proxy"}});
  TemporaryDirectory directory;
  directory.write("ce275665.0", proxy.certificate_pem());  // the hash of the servers' name
  const std::string file = directory.write("ca.pem", proxy.certificate_pem()),
                    other = directory.write("other.pem", stranger.certificate_pem());
  const std::vector<std::tuple<std::string, std::string, std::string, std::string>> rows{
      {plain.url("/"), file, "", ""},
      {plain.url("/"), "", directory / "", ""},
      {plain.url("/"), other, "", "SSLCertVerificationError: "},
      {"https://data.invalid/", file, "", "URLError: the proxy refused the way to the server: HTTP 400"},
  };
  for (const auto& [url, believed, beside, expected] : rows) {
    const std::string way = "https" + proxy.url().substr(proxy.url().find(':'));
    const HttpRequest request{url,
                              {},
                              std::make_shared<FakeEnvironment>(std::map<std::string, std::string>{
                                  {"SSL_CERT_FILE", believed}, {"SSL_CERT_DIR", beside}, {"http_proxy", way}, {"https_proxy", way}})};
    const std::string failure = failure_of(
        [&] { EXPECT_EQ(body_of(*HttpClient::real().open(request, PATIENCE_SECONDS, TransportSecurity::builtin())), "by proxy"); });
    EXPECT_EQ(failure.substr(0, expected.empty() ? std::string::npos : expected.size()), expected) << request.url;
  }
}

TEST(HttpClient, waitsForALookUpAndGoesFromAMuteAddressToTheNext) {
  ScriptedServer server;
  server.script("/", {{.body = "whole"}});
  sockaddr_in mute{.sin_family = AF_INET, .sin_port = 0, .sin_addr = {htonl(INADDR_LOOPBACK + 1)}, .sin_zero = {}};
  const std::string port = server.url().substr(server.url().rfind(':') + 1);
  mute.sin_port = htons(static_cast<std::uint16_t>(std::stoi(port)));
  auto* const where = reinterpret_cast<sockaddr*>(&mute);
  const Descriptor full(::socket(AF_INET, SOCK_STREAM, 0));
  ASSERT_TRUE(::bind(full.get(), where, sizeof mute) == 0 && ::listen(full.get(), 0) == 0);
  std::vector<Descriptor> waiting;
  for (int count = 0; count < 4; ++count) {
    waiting.emplace_back(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0));
    static_cast<void>(::connect(waiting.back().get(), where, sizeof mute));
  }
  EXPECT_EQ(body_of(*open("http://two.test:" + port + "/", {}, 2.0)), "whole");
}

TEST(HttpClient, takesAnOddTimeoutForNone) {
  ScriptedServer server;
  server.script("/", {{.body = "body", .delay = 60ms}});
  for (const double odd : {std::nan(""), HUGE_VAL, 1e300, 3.4e38, -1.0, 0.0}) {
    EXPECT_EQ(body_of(*open(server.url("/"), {}, odd), odd), "body") << odd;
  }
}

TEST(HttpClient, leavesAServerAtTheTimeoutThatRenewsItsKeysWithoutEnd) {
  ScriptedServer server{ScriptedServer::Scheme::Https};
  server.script("/", {{.headers = {{"Content-Length", "1"}}, .renews_keys = true}});
  TemporaryDirectory directory;
  const Variable file("SSL_CERT_FILE", directory.write("ca.pem", server.certificate_pem()));
  const auto response = open(server.url("/"));
  const auto began = std::chrono::steady_clock::now();
  EXPECT_EQ(failure_of([&] { static_cast<void>(body_of(*response, 0.3)); }), "TimeoutError: response body read exceeded sync HTTP timeout");
  EXPECT_LT(std::chrono::steady_clock::now() - began, 10s) << "where nobody looks it takes half a minute";
}

TEST(HttpClient, passesTheSinksErrorsOnUnchanged) {
  ScriptedServer server;
  server.script("/", {{.body = std::string(100'000, 'x')}});
  Sink full_disk([](std::string_view) { throw os_error(28, "/data/file.tmp"); });
  Sink interrupted([](std::string_view) { throw Interrupted{}; });
  EXPECT_EQ(failure_of([&] { open(server.url("/"))->read_body(full_disk, 5.0); }),
            "OSError: [Errno 28] No space left on device: '/data/file.tmp'");
  EXPECT_THROW(open(server.url("/"))->read_body(interrupted, 5.0), Interrupted);
}

TEST(HttpClient, followsRedirectsAndKeepsTheTokenAtItsOrigin) {
  ScriptedServer home;
  ScriptedServer stranger;
  const auto to = [](std::string location, int status = 302) {
    return Reply{.status = status, .headers = {{"Location", std::move(location)}}};
  };
  home.script("/relative/x", {to("../target?q=1", 301)});
  home.script("/absolute", {to(home.url("/target?q=1"), 308)});
  home.script("/spaces", {to("/a b")});
  home.script("/abroad", {to(stranger.url("/back"), 307)});
  home.script("/no-location", {{.status = 302, .body = "here"}});
  home.script("/not-modified", {{.status = 304, .headers = {{"Location", "/target"}}}});
  stranger.script("/back", {to(home.url("/target?q=1"), 303)});
  home.script("/target?q=1", {{.body = "target"}});
  home.script("/a%20b", {{.body = "spaces"}});
  const Headers headers{{"Authorization", "Bearer canary"}, {"Range", "bytes=0-"}};
  EXPECT_EQ(body_of(*open(home.url("/relative/x"), headers)), "target");
  EXPECT_EQ(body_of(*open(home.url("/absolute"), headers)), "target");
  EXPECT_EQ(body_of(*open(home.url("/spaces"), headers)), "spaces");
  EXPECT_EQ(open(home.url("/no-location"), headers)->status(), 302);
  EXPECT_EQ(open(home.url("/not-modified"), headers)->status(), 304);
  for (const LoggedRequest& request : home.requests("/target?q=1")) EXPECT_EQ(request.header("Authorization"), "Bearer canary");

  EXPECT_EQ(body_of(*open(home.url("/abroad"), headers)), "target");
  EXPECT_EQ(stranger.requests("/back").at(0).header("Authorization"), std::nullopt);
  EXPECT_EQ(stranger.requests("/back").at(0).header("Range"), "bytes=0-");
  EXPECT_EQ(home.requests("/target?q=1").back().header("Authorization"), std::nullopt) << "once gone, a stranger cannot bring it back";

  const RecordingLog log;
  stranger.script("/back", {{.status = 401}});
  for (const Headers& sent : {headers, Headers()}) EXPECT_EQ(open(home.url("/abroad"), sent)->status(), 401);
  EXPECT_EQ(log.messages(LogLevel::Warning),
            std::vector{"HTTP 401 after a redirect to " + stranger.url("") + ", where the token does not go"});
}

TEST(HttpClient, keepsConnectionsToTheirOriginsWhereItIsToldTo) {
  ScriptedServer home;
  ScriptedServer stranger;
  home.script("/kept", {{.body = "whole", .keep = true}});
  home.script("/closed", {{.body = "whole"}});
  home.script("/reset", {{.body = "whole", .reset = true}});
  home.script("/abroad", {{.status = 302, .headers = {{"Location", stranger.url("/kept")}}, .keep = true}});
  stranger.script("/kept", {{.body = "whole", .keep = true}});
  const auto environment = std::make_shared<FakeEnvironment>(std::map<std::string, std::string>{});
  std::unique_ptr<HttpConnections> connections = HttpClient::real().connections();
  const auto get = [&](const std::string& path) {
    const HttpRequest request{home.url(path), {{"Authorization", "Bearer canary"}}, environment, connections.get()};
    return HttpClient::real().open(request, PATIENCE_SECONDS, TransportSecurity::builtin());
  };
  const auto connection_of = [&](const std::string& path) {
    EXPECT_EQ(failure_of([&] { EXPECT_EQ(body_of(*get(path)), "whole"); }), "") << path;
    return home.requests().back().connection;
  };
  EXPECT_EQ(connection_of("/kept"), 0U);
  EXPECT_EQ(connection_of("/kept"), 1U) << "unless it is told to, it keeps none";
  environment->set("BRACKENFEN_SYNC_HTTP_REUSE_CONNECTIONS", "1");
  const std::vector<std::pair<const char*, std::size_t>> rows{{"/kept", 2}, {"/closed", 2}, {"/kept", 3},   {"/reset", 3},
                                                              {"/kept", 4}, {"/abroad", 4}, {"/abroad", 4}, {"/kept", 4}};
  for (const auto& [path, connection] : rows) EXPECT_EQ(connection_of(path), connection) << path;
  EXPECT_EQ(stranger.requests().size(), 2U);
  for (const LoggedRequest& request : stranger.requests()) {
    EXPECT_EQ(request.connection, 0U);
    EXPECT_EQ(request.header("Authorization"), std::nullopt);
  }
  static_cast<void>(get("/kept"));
  EXPECT_EQ(connection_of("/kept"), 5U) << "a body that was not read is in the way";
  const pid_t child = ::fork();
  if (child == 0) ::_exit(body_of(*open(home.url("/kept"))) == "whole" ? 0 : 1);
  int status = -1;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(connection_of("/kept"), 5U) << "the child has its own";
  connections = HttpClient::real().connections();
  EXPECT_EQ(connection_of("/kept"), 7U) << "who begins anew finds none";
}

}  // namespace
}  // namespace brackenfen::sync
