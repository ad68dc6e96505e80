// The rows were taken from urllib.parse.urlsplit.
#include "sync/base/url.hpp"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "tests/support/failures.hpp"

namespace brackenfen::sync {
namespace {

TEST(SplitUrl, cutsWherePythonCuts) {
  const struct {
    const char* url;
    UrlParts parts;
  } rows[] = {
      {"HTTPS://User@Host:8443/a/b?q=1?2#f#g", {"https", "User@Host:8443", "/a/b", "q=1?2", "f#g"}},
      {"/data/files", {"", "", "/data/files", "", ""}},
      {"//host?x", {"", "host", "", "x", ""}},
      {"mailto:a@b", {"mailto", "", "a@b", "", ""}},
      {"host:80/a", {"host", "", "80/a", "", ""}},
      {"a_b:c", {"", "", "a_b:c", "", ""}},
      {"\x01 \thttp://ho\nst/\ra ", {"http", "host", "/a ", "", ""}},
      {"http://h/a:b//c", {"http", "h", "/a:b//c", "", ""}},
      {"http://[::1%eth0]:1/", {"http", "[::1%eth0]:1", "/", "", ""}},
      {"http://[v1.x]/", {"http", "[v1.x]", "/", "", ""}},
  };
  for (const auto& row : rows) {
    const UrlParts parts = split_url(row.url);
    EXPECT_EQ((std::vector{parts.scheme, parts.network_location, parts.path, parts.query, parts.fragment}),
              (std::vector{row.parts.scheme, row.parts.network_location, row.parts.path, row.parts.query, row.parts.fragment}))
        << row.url;
  }
}

TEST(SplitUrl, refusesWhatCannotBeAHost) {
  EXPECT_EQ(failure_of([] { (void)split_url("http://[::1/"); }), "ValueError: Invalid IPv6 URL");
  EXPECT_EQ(failure_of([] { (void)split_url("http://::1]/"); }), "ValueError: Invalid IPv6 URL");
  EXPECT_EQ(failure_of([] { (void)split_url("http://[1.2.3.4]/"); }), "ValueError: An IPv4 address cannot be in brackets");
  EXPECT_EQ(failure_of([] { (void)split_url("http://[x]/"); }), "ValueError: 'x' does not appear to be an IPv4 or IPv6 address");
  EXPECT_EQ(failure_of([] { (void)split_url("http://[v.x]/"); }), "ValueError: IPvFuture address is invalid");
  EXPECT_EQ(failure_of([] { (void)split_url("http://a\uff0fb/"); }),
            "ValueError: netloc 'a\uff0fb' contains invalid characters under NFKC normalization");
}

TEST(UrlParts, readsHostAndPort) {
  const struct {
    const char* url;
    const char* host;
    std::optional<int> port;
    bool user;
  } rows[] = {
      {"http://HOST:0080", "host", 80, false},       {"http://u:p@w@Host", "host", std::nullopt, true},
      {"http://@host:65535", "host", 65535, true},   {"http://[FE80::1%Eth0]:8", "fe80::1%Eth0", 8, false},
      {"http://u@[::1]", "::1", std::nullopt, true},
  };
  for (const auto& row : rows) {
    const UrlParts parts = split_url(row.url);
    EXPECT_EQ(parts.host(), row.host) << row.url;
    EXPECT_EQ(parts.port(), row.port) << row.url;
    EXPECT_EQ(parts.has_user_information(), row.user) << row.url;
  }
  EXPECT_EQ(failure_of([] { (void)split_url("http://h:65536").port(); }), "ValueError: Port out of range 0-65535");
  EXPECT_EQ(failure_of([] { (void)split_url("http://h:99999999999999999999").port(); }), "ValueError: Port out of range 0-65535");
  EXPECT_EQ(failure_of([] { (void)split_url("http://h:-1").port(); }), "ValueError: Port could not be cast to integer value as '-1'");
}

TEST(RequirePrintableUrl, namesTheCharacterButNotTheUrl) {
  require_printable_url("http://user@host:1/~a?b=%20#c");
  const struct {
    std::string character;
    const char* quoted;
  } rows[] = {{" ", "' '"}, {"\r", "'\\r'"}, {std::string(1, '\0'), "'\\x00'"}, {"\x7f", "'\\x7f'"}, {"\u00e9", "'\u00e9'"}};
  for (const auto& row : rows) {
    EXPECT_EQ(failure_of([&] { require_printable_url("http://secret" + row.character + "/"); }),
              std::string("ValueError: URL can't contain control characters, blanks or non-ASCII characters (found ") + row.quoted + ")");
  }
}

}  // namespace
}  // namespace brackenfen::sync
