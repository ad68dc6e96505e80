#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>

#include "sync/neighbours/rotation_state.hpp"
#include "tests/support/sync_setup.hpp"

namespace brackenfen::sync {
namespace {

using testing::StartsWith;

const PublishedFile ALPHA{"features/alpha.arrow", "alpha"};
const PublishedFile BETA{"features/beta.arrow", "beta"};

class NeedsSyncTest : public testing::Test, protected SyncSetup {
 protected:
  void SetUp() override {
    publish(1, {ALPHA, BETA});
    manager = open();
    static_cast<void>(manager->sync());
  }
  std::shared_ptr<SyncManager> manager;
};

TEST_F(NeedsSyncTest, theServersAnswerDecidesBeforeTheFiles) {
  const std::string sha = _sha256(directory.read("manifest.json"));
  struct Row {
    Reply reply;
    const char* outcome;
  };
  const Row rows[] = {
      {{.body = R"({"version": 1})"}, "no"},
      {{.body = R"({"version": 1.0})"}, "no"},
      {{.body = R"({"version": "1"})"}, "yes"},
      {{.body = R"({"version": 2})"}, "yes"},
      {{.body = R"({"version": 0})"}, "yes"},
      {{.body = R"({})"}, "yes"},
      {{.body = R"({"version": 1, "era_number": 8})"}, "no"},
      {{.body = R"({"version": 1, "sha256": ")" + sha + R"("})"}, "no"},
      {{.body = R"({"version": 1, "manifest_sha256": "", "manifest_sha": ")" + sha + R"(", "sha256": "x"})"}, "no"},
      {{.body = R"({"version": 1, "manifest_sha256": "x", "sha256": ")" + sha + R"("})"}, "yes"},
      {{.body = R"({"version": 1, "sha256": 5})"}, "yes"},
      {{.status = 404}, "yes"},
      {{.status = 401}, "yes"},
      {{.body = "<html>"}, "JSONDecodeError: "},
      {{.body = "{\"version\": \"\xff\"}"}, "UnicodeDecodeError: "},
      {{.body = "[]"}, "AttributeError: "},
      {{.status = 503, .body = R"({"retryable": false})"}, "SyncUnavailableError: "},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.reply.body + std::to_string(row.reply.status));
    server.script(VERSION_PATH, {row.reply});
    std::string answer;
    const std::string failure = failure_of([&] { return answer = manager->needs_sync() ? "yes" : "no"; });
    EXPECT_THAT(answer + failure, StartsWith(row.outcome));
  }
  EXPECT_EQ(requests(MANIFEST_PATH), 1U) << "only the version is asked for";
}

TEST_F(NeedsSyncTest, whatIsHereDecidesWhereTheServerIsContent) {
  struct Row {
    const char* name;
    std::function<void()> change;
    bool needs;
  };
  const auto state = [](const std::string& path) {
    auto one_path = std::make_shared<BuiltinRotationState>();
    one_path->active_paths = {Text(path)};
    return one_path;
  };
  const std::shared_ptr<Manifest> manifest = manager->get_manifest();
  const std::string manifest_text = directory.read("manifest.json");
  const Row rows[] = {
      {"all as promised", [] {}, false},
      {"touched", [&] { directory.write(ALPHA.path, ALPHA.content); }, false},
      {"other bytes", [&] { directory.write(ALPHA.path, "ALPHA"); }, true},
      {"gone", [&] { files.unlink(directory / ALPHA.path); }, true},
      {"gone, and not active", [&] { manager->_active_rotation_state.set(state(BETA.path)); }, false},
      {"active, and not listed", [&] { manager->_active_rotation_state.set(state("unknown")); }, true},
      {"no token", [&] { manager->_get_token.set(nullptr); }, true},
      {"no manifest", [&] { manager->_manifest.set(nullptr); }, true},
      {"no manifest.json", [&] { files.unlink(directory / "manifest.json"); }, true},
  };
  server.script(VERSION_PATH, {{.body = R"({"version": 1, "sha256": ")" + _sha256(manifest_text) + R"("})"}});
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    manager->_get_token.set(token_source);
    manager->_manifest.set(manifest);
    row.change();
    EXPECT_EQ(manager->needs_sync(), row.needs);
  }
}

}  // namespace
}  // namespace brackenfen::sync
