#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/sync_setup.hpp"

namespace brackenfen::sync {
namespace {

using testing::Contains;
using testing::StartsWith;

class SupersedeTest : public testing::Test, protected SyncSetup {
 protected:
  bool superseded(const Document& file_info) { return manager->_download_manifest_superseded(*neighbours(), file_info); }

  const std::shared_ptr<SyncManager> manager = open();
  const Document stamp{{"_manifest_version", 5}, {"_manifest_era_id", ERA}};
};

TEST_F(SupersedeTest, aLaterVersionOrEraSupersedes) {
  const std::tuple<Document, const char*, bool> rows[] = {
      {stamp, R"({"version": 6, "era_number": 7})", true},
      {stamp, R"({"version": 5, "era_number": 7})", false},
      {stamp, R"({"version": 1, "era_number": 8})", true},
      {stamp, R"({"version": 9, "era_number": 6})", false},
      {stamp, R"({"version": 6, "era_number": "x"})", true},
      {stamp, R"({"version": 99999999999999999999})", true},
      {stamp, R"({"era_number": 8})", false},
      {stamp, "<html>", false},
      {{{"_manifest_version", "5"}, {"_manifest_era_id", "x"}}, R"({"version": 6, "era_number": 6})", true},
  };
  for (const auto& [info, answer, expected] : rows) {
    server.script(VERSION_PATH, {{.body = answer}});
    EXPECT_EQ(superseded(info), expected) << answer;
  }
  EXPECT_THAT(log.messages(LogLevel::Debug), Contains(StartsWith("Manifest version probe was not parseable during checksum repair: ")));
  static_cast<void>(asked());
  for (const Value& version : {Value(), Value("x"), Value(List())}) EXPECT_FALSE(superseded(stamp.with("_manifest_version", version)));
  EXPECT_THAT(asked(), testing::IsEmpty()) << "a file without a stamp asks nobody";
}

TEST_F(SupersedeTest, aProbeThatFailsAsksOnceAndAnswersNo) {
  for (const Reply& reply : {Reply{.status = 503}, Reply{.status = 404}, Reply{.cut_after = 0, .reset = true}}) {
    server.script(VERSION_PATH, {reply});
    EXPECT_FALSE(superseded(stamp));
    EXPECT_THAT(asked(), testing::ElementsAre(VERSION_PATH));
  }
  manager->_server_url.set("http://127.0.0.1:1");
  EXPECT_FALSE(superseded(stamp));
  EXPECT_THAT(log.messages(LogLevel::Debug), Contains(StartsWith("Manifest version one-shot probe failed during checksum repair: ")));
  manager->_server_url.set("ftp://example.com");
  EXPECT_FALSE(superseded(stamp));
  EXPECT_THAT(log.messages(LogLevel::Debug), Contains(StartsWith("Manifest version probe failed during checksum repair: ")));
  EXPECT_TRUE(clock.waits().empty()) << "a probe never waits";
}

TEST_F(SupersedeTest, aRefusedTokenIsNoAnswer) {
  server.script(VERSION_PATH, {{.status = 401}});
  EXPECT_EQ(failure_of([&] { return superseded(stamp); }), "AuthError: Authentication failed while probing manifest version: HTTP 401");

  token->call_once([] { throw Auth::builtin().auth_error("no token"); });
  EXPECT_EQ(failure_of([&] { return superseded(stamp); }), "AuthError: no token");
  manager->_get_token.set(nullptr);
  EXPECT_FALSE(superseded(stamp));
}

}  // namespace
}  // namespace brackenfen::sync
