#include <gmock/gmock.h>

#include <functional>

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
      {{.body = R"({})"}, "yes"},
      {{.body = R"({"version": 1, "manifest_sha256": "", "manifest_sha": ")" + sha + R"(", "sha256": "x"})"}, "no"},
      {{.body = R"({"version": 1, "manifest_sha256": "x", "sha256": ")" + sha + R"("})"}, "yes"},
      {{.body = R"({"version": 1, "sha256": 5})"}, "yes"},
      {{.status = 404}, "yes"},
      {{.body = "<html>"}, "JSONDecodeError: "},
      {{.body = "{\"version\": \"\xff\"}"}, "UnicodeDecodeError: "},
      {{.body = "[]"}, "AttributeError: "},
      {{.status = 503, .body = R"({"retryable": false})"}, "SyncUnavailableError: "},
  };
  for (const auto& [reply, outcome] : rows) {
    SCOPED_TRACE(reply.body + std::to_string(reply.status));
    server.script(VERSION_PATH, {reply});
    std::string answer;
    const std::string failure = failure_of([&] { return answer = manager->needs_sync() ? "yes" : "no"; });
    EXPECT_THAT(answer + failure, testing::StartsWith(outcome));
    EXPECT_THAT(asked(), testing::ElementsAre(VERSION_PATH));
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

}  // namespace
}  // namespace brackenfen::sync
