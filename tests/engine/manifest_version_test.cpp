// What the server says of its version: whether a pass is wanted, and whether a download is still worth its while.

#include "sync/neighbours/rotation_state.hpp"
#include "tests/support/sync_setup.hpp"

namespace brackenfen::sync {
namespace {

const PublishedFile ALPHA{"features/alpha.arrow", "alpha"};
const PublishedFile BETA{"features/beta.arrow", "beta"};

class NeedsSyncTest : public testing::Test, protected SyncSetup {
 protected:
  const std::shared_ptr<SyncManager> manager = synced({ALPHA, BETA});
};

TEST_F(NeedsSyncTest, theServersAnswerDecidesBeforeTheFiles) {
  const std::string sha = _sha256(directory.read("manifest.json"));
  const std::pair<Reply, const char*> rows[] = {
      {{.body = R"({"version": 1})"}, "no"},
      {{.body = R"({"version": 1.0, "era_number": 8})"}, "no"},
      {{.body = R"({"version": "1"})"}, "yes"},
      {{.body = R"({"version": 2})"}, "yes"},
      {{.body = R"({"version": 0})"}, "yes"},
      {{.body = R"({"version": 1, "manifest_sha256": "", "manifest_sha": ")" + sha + R"(", "sha256": "x"})"}, "no"},
      {{.body = R"({"version": 1, "manifest_sha256": "x", "sha256": ")" + sha + R"("})"}, "yes"},
      {{.body = R"({"version": 1, "sha256": 5})"}, "yes"},
      {{.status = 404}, "yes"},
      {{.status = 503, .body = R"({"retryable": false})"}, "SyncUnavailableError: "},
  };
  for (const auto& [reply, outcome] : rows) {
    SCOPED_TRACE(reply.body + std::to_string(reply.status));
    server.script(VERSION_PATH, {reply});
    std::string answer;
    const std::string failure = failure_of([&] { return answer = manager->needs_sync() ? "yes" : "no"; });
    EXPECT_THAT(answer + failure, StartsWith(outcome));
    EXPECT_THAT(asked(), ElementsAre(VERSION_PATH));
  }
}

TEST_F(NeedsSyncTest, whatIsHereDecidesWhereTheServerIsContent) {
  const auto activate = [&](const std::string& path) {
    const auto state = std::make_shared<BuiltinRotationState>();
    state->active_paths = {Text(path)};
    manager->_active_rotation_state.set(state);
  };
  const std::shared_ptr<Manifest> manifest = manager->get_manifest();
  const std::tuple<const char*, std::function<void()>, bool> rows[] = {
      {"touched", [&] { directory.write(ALPHA.path, ALPHA.content); }, false},
      {"other bytes", [&] { directory.write(ALPHA.path, "ALPHA"); }, true},
      {"gone", [&] { files.unlink(directory / ALPHA.path); }, true},
      {"gone, and not active", [&] { activate(BETA.path); }, false},
      {"active, and not listed", [&] { activate("unknown"); }, true},
      {"no token", [&] { manager->_get_token.set(nullptr); }, true},
      {"no manifest", [&] { manager->_manifest.set(nullptr); }, true},
      {"no manifest.json", [&] { files.unlink(directory / "manifest.json"); }, true},
  };
  const std::string sha = _sha256(directory.read("manifest.json"));
  server.script(VERSION_PATH, {{.body = R"({"version": 1, "sha256": ")" + sha + R"("})"}});
  for (const auto& [name, change, needs] : rows) {
    SCOPED_TRACE(name);
    manager->_get_token.set(token_source);
    manager->_manifest.set(manifest);
    change();
    EXPECT_EQ(manager->needs_sync(), needs);
  }
}

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
  EXPECT_THAT(asked(), IsEmpty()) << "a file without a stamp asks nobody";
}

TEST_F(SupersedeTest, aProbeThatFailsAsksOnceAndAnswersNo) {
  for (const Reply& reply : {Reply{.status = 503}, Reply{.status = 404}, Reply{.cut_after = 0, .reset = true}}) {
    server.script(VERSION_PATH, {reply});
    EXPECT_FALSE(superseded(stamp));
    EXPECT_THAT(asked(), ElementsAre(VERSION_PATH));
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
