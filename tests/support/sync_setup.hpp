// A manager on a directory of its own, and the server that it syncs with: what most tests of the engine need.
#pragma once

#include <gmock/gmock.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "sync/base/files/sha256.hpp"
#include "sync/base/values/convert.hpp"
#include "sync/base/values/json.hpp"
#include "sync/engine/sync_manager.hpp"
#include "tests/support/calling_token.hpp"
#include "tests/support/failures.hpp"
#include "tests/support/fake_clock.hpp"
#include "tests/support/fake_environment.hpp"
#include "tests/support/fault_files.hpp"
#include "tests/support/recording_log.hpp"
#include "tests/support/scripted_server.hpp"
#include "tests/support/temporary_directory.hpp"

namespace brackenfen::sync {

using namespace testing;  // for the matchers

struct PublishedFile {
  std::string path;
  std::string content;
  std::string kind = "feature";

  /// Where the server has it.
  [[nodiscard]] std::string url_path() const { return "/data/files/" + path; }

  [[nodiscard]] Document entry() const { return {{"kind", kind}, {"size_bytes", content.size()}, {"sha256", _sha256(content)}}; }
};

/// Calls back where a file has landed, on the thread that brought it.
struct CallingGuard : RuntimeFreshnessGuard {
  using Call = std::function<void(std::string path, std::string kind, std::string sha256)>;
  explicit CallingGuard(Call made_call) : call(std::move(made_call)) {}
  void record_sync_update(std::string_view path, const Value& kind, const Value& sha256) override {
    call(std::string(path), to_text(kind), to_text(sha256));
  }
  Call call;
};

/// Waits pass at once and are remembered; the network and the files are real.
class SyncSetup {
 public:
  static constexpr int ERA = 7;
  static constexpr const char* VERSION_PATH = "/data/manifest/version";
  static constexpr const char* MANIFEST_PATH = "/data/manifest";
  static constexpr const char* SHUFFLE_PATH = "/data/shuffle";
  static constexpr const char* VOCABULARY = "named_universes/us/vocabulary.json";
  static constexpr const char* FUNCTIONS = "functions.json";

  SyncSetup() { publish_documents(); }

  [[nodiscard]] Seams seams() { return {&HttpClient::real(), &clock, &files, &environment, &Neighbours::builtin()}; }
  [[nodiscard]] SyncManager::Options options() {
    return {.data_dir = directory.path(),
            .server_url = server.url(),
            .get_token = token_source,
            .runtime_freshness_guard = guard,
            .seams = seams()};
  }
  [[nodiscard]] std::shared_ptr<SyncManager> open() { return std::make_shared<SyncManager>(options()); }
  /// One that takes itself for running, without a thread that would get in the way.
  [[nodiscard]] std::shared_ptr<SyncManager> running() {
    auto manager = open();
    manager->_running = true;
    return manager;
  }
  [[nodiscard]] std::shared_ptr<NeighbourSet> neighbours() { return Neighbours::builtin().bind(); }

  /// What every era has besides its data: the vocabulary of one universe, and the catalogue of functions.
  [[nodiscard]] static std::vector<PublishedFile> documents(int era = ERA) {
    const auto text = [](const Document& document) { return write_json(document, JsonForm::InsertionOrder); };
    const Document vocabulary{
        {"era_number", era},
        {"named_universe", "us"},
        {"features", Document()},
        {"metadata", Document{{"named_universe", "us"}, {"t_signal_is", 5}, {"t_strategy_is", 6}, {"n_instruments", 7}}}};
    return {{VOCABULARY, text(vocabulary), "vocabulary"},
            {FUNCTIONS, text(Document{{"era_number", era}, {"rotations", List{"weekly"}}}), "functions"}};
  }
  /// Lists the files, then the documents of the era.
  [[nodiscard]] static Document manifest(int version, std::vector<PublishedFile> files, int era = ERA) {
    std::vector<Member> entries;
    for (PublishedFile& document : documents(era)) files.push_back(std::move(document));
    for (const PublishedFile& file : files) entries.push_back({file.path, file.entry()});
    return {{"era_number", era},
            {"version", version},
            {"pnl_column_count", 3},
            {"files", Document(std::move(entries))},
            {"functions", FUNCTIONS}};
  }
  void publish_documents(int era = ERA) {
    for (const PublishedFile& document : documents(era)) server.serve_file("/data/files/" + document.path, document.content);
    server.script(SHUFFLE_PATH, {{.headers = {{"X-Era-Id", std::to_string(era)}}, .body = std::string(60, 's')}});
  }
  /// The version endpoint, the manifest and the files, all consistent.
  void publish(int version, const std::vector<PublishedFile>& published, int era = ERA) {
    publish_version(version, era);
    publish_manifest(manifest(version, published, era));
    for (const PublishedFile& file : published) server.serve_file("/data/files/" + file.path, file.content);
  }
  void publish_version(int version, int era = ERA) {
    server.script(VERSION_PATH, {{.body = write_json(Document{{"version", version}, {"era_number", era}}, JsonForm::InsertionOrder)}});
  }
  void publish_manifest(const Document& document) {
    server.script(MANIFEST_PATH, {{.body = write_json(document, JsonForm::InsertionOrder)}});
  }

  /// The `Range` headers with which a data file was asked for, in order; empty for a request without one.
  [[nodiscard]] std::vector<std::string> ranges(const std::string& file_path) const {
    std::vector<std::string> asked;
    for (const LoggedRequest& request : server.requests("/data/files/" + file_path)) asked.push_back(request.header("Range").value_or(""));
    return asked;
  }
  [[nodiscard]] std::size_t requests(const std::string& path) const { return server.requests(path).size(); }
  /// The paths asked for since the call before, or since synced().
  [[nodiscard]] std::vector<std::string> asked() {
    std::vector<std::string> paths;
    for (const std::vector<LoggedRequest> all = server.requests(); earlier_ < all.size(); ++earlier_) paths.push_back(all[earlier_].path);
    return paths;
  }
  /// A manager in step with version 1 of these files.
  [[nodiscard]] std::shared_ptr<SyncManager> synced(const std::vector<PublishedFile>& published) {
    publish(1, published);
    auto manager = open();
    static_cast<void>(manager->sync());
    static_cast<void>(asked());
    return manager;
  }
  [[nodiscard]] std::vector<std::string> warnings() const { return log.messages(LogLevel::Warning); }

  TemporaryDirectory directory;
  FakeClock clock;
  FakeEnvironment environment;
  FaultFiles files;
  RecordingLog log;
  ScriptedServer server;
  const std::shared_ptr<CallingToken> token = std::make_shared<CallingToken>();
  std::shared_ptr<TokenSource> token_source = token;
  std::shared_ptr<RuntimeFreshnessGuard> guard;

 private:
  std::size_t earlier_ = 0;
};

}  // namespace brackenfen::sync
