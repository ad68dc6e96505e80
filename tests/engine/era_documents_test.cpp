#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>

#include "sync/documents/signals_index.hpp"
#include "tests/support/sync_setup.hpp"

namespace brackenfen::sync {
namespace {

using namespace std::string_literals;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

constexpr const char* INDEX = "signals_index.json";
const PublishedFile KEPT_PNL{"found_signals/pool/kept/signal_is/pnl.arrow", "kept", "found_signal_is_pnl"};
const PublishedFile LOST_PNL{"found_signals/pool/lost/signal_is/pnl.arrow", "lost", "found_signal_is_pnl"};

std::string data_path(std::string_view path) { return "/data/files/" + std::string(path); }
std::string json(const Document& document) { return write_json(document, JsonForm::InsertionOrder); }
Document parsed(const std::string& text) { return *parse_json(text).if_document(); }

class EraDocumentsTest : public testing::Test, protected SyncSetup {
 protected:
  /// A manager in step with version 1, with the requests so far out of the way.
  std::shared_ptr<SyncManager> synced(const std::vector<PublishedFile>& published) {
    publish(1, published);
    auto manager = open();
    static_cast<void>(manager->sync());
    earlier_ = server.requests().size();
    return manager;
  }
  [[nodiscard]] std::vector<std::string> asked() {
    std::vector<std::string> paths;
    for (const std::vector<LoggedRequest> all = server.requests(); earlier_ < all.size(); ++earlier_) paths.push_back(all[earlier_].path);
    return paths;
  }
  [[nodiscard]] std::vector<std::string> warnings() const { return log.messages(LogLevel::Warning); }
  /// Publishes `body` for `path`, which the manifest of `version` lists with `changes` to its entry.
  void publish_document(int version, const std::string& path, const std::string& body, const Document& changes = {}) {
    publish_version(version);
    Document manifest_data = manifest(version, {});
    const Document& listed = *manifest_data.get("files").if_document();
    Document entry{{"kind", path == INDEX ? "signals_index" : "vocabulary"}, {"size_bytes", body.size()}, {"sha256", _sha256(body)}};
    for (const Member& change : changes) entry = change.value.is_null() ? entry.without(change.key) : entry.with(change.key, change.value);
    publish_manifest(manifest_data.with("files", listed.with(path, entry)));
    server.script(data_path(path), {{.body = body}});
  }
  [[nodiscard]] Document committed_entry(const std::string& path) const {
    return *parsed(directory.read("manifest.json")).get("files").if_document()->get(path).if_document();
  }

  std::size_t earlier_ = 0;
};

PublishedFile index_of(const std::vector<PublishedFile>& pnls, int era = SyncSetup::ERA) {
  std::vector<Member> entities;
  for (const PublishedFile& pnl : pnls) entities.push_back({pnl.path, Document{{"files", List{pnl.path}}, {"pool", "pool"}}});
  return {INDEX, json({{"era_number", era}, {"found_signals", Document(std::move(entities))}}), "signals_index"};
}

TEST_F(EraDocumentsTest, aLostArtifactLeavesIndexAndManifestInAgreement) {
  struct Guard : RuntimeFreshnessGuard {
    void record_sync_update(std::string_view relative_path, std::string_view kind, std::string_view sha256) override {
      if (relative_path == INDEX) told.push_back(std::string(kind) + " " + std::string(sha256));
    }
    std::vector<std::string> told;
  };
  const auto recorder = std::make_shared<Guard>();
  guard = recorder;
  const PublishedFile index = index_of({KEPT_PNL, LOST_PNL});
  publish(1, {index, KEPT_PNL, LOST_PNL});
  server.script(data_path(LOST_PNL.path), {{.status = 404}});
  const auto manager = open();
  EXPECT_THAT(manager->sync().found_pnl_paths_downloaded, IsEmpty()) << "the other one landed in the pass that was given up";

  const std::string written = directory.read(INDEX);
  const Document entry = committed_entry(INDEX);
  EXPECT_EQ(entry.get("sha256"), Value(_sha256(written)));
  EXPECT_EQ(entry.get("size_bytes"), Value(written.size()));
  EXPECT_THAT(recorder->told, ElementsAre("signals_index " + _sha256(index.content), "signals_index " + _sha256(written)));
  EXPECT_EQ(_membership_referenced_files(manager->get_manifest()->sections().found_signals), (std::set<std::string>{KEPT_PNL.path}));
  EXPECT_FALSE(parsed(directory.read("manifest.json")).get("files").if_document()->contains(LOST_PNL.path));
  EXPECT_TRUE(manager->_local_manifest_files_complete(*neighbours(), *manager->get_manifest()));

  for (const auto& current : {manager, open()}) {  // one that knows what is missing, and one that knows the files alone
    EXPECT_EQ(_membership_referenced_files(current->get_manifest()->sections().found_signals), (std::set<std::string>{KEPT_PNL.path}));
    EXPECT_TRUE(current->_vocabulary.get()->contains("us"));
    static_cast<void>(asked());
    static_cast<void>(current->sync());
    EXPECT_THAT(asked(), ElementsAre(VERSION_PATH));
  }
  publish(2, {index, KEPT_PNL, LOST_PNL});
  static_cast<void>(manager->sync());
  EXPECT_EQ(directory.read(INDEX), index.content) << "a new version gets a fresh try at every file";
  EXPECT_EQ(directory.read(LOST_PNL.path), LOST_PNL.content);

  server.script(data_path(LOST_PNL.path), {{.status = 404}});
  files.unlink(directory / LOST_PNL.path);
  static_cast<void>(manager->sync());
  EXPECT_EQ(directory.read(INDEX), written) << "also where the loss shows at a version that is here already";
  EXPECT_EQ(committed_entry(INDEX).get("sha256"), Value(_sha256(written)));
}

TEST_F(EraDocumentsTest, aBadIndexNeverReplacesAGoodOne) {
  const std::pair<std::string, std::string> rows[] = {
      {index_of({}, ERA + 1).content, "EraError: signals_index.json era_number=8 does not match manifest era_number=7"},
      {R"({"era_number": 7, "found_)", "ManifestError: Invalid signals_index.json JSON: "},
      {R"({"useful_signals": 7})", "ManifestError: signals_index.json useful_signals must be a JSON object"},
  };
  const PublishedFile good = index_of({});
  const auto manager = synced({good});
  const std::string committed = directory.read("manifest.json");
  for (const auto& [body, failure] : rows) {
    publish_document(2, INDEX, body);
    EXPECT_THAT(failure_of([&] { return manager->sync(); }), StartsWith(failure));
    EXPECT_EQ(directory.read(INDEX), good.content);
    EXPECT_EQ(directory.read("manifest.json"), committed);
  }
  publish_document(2, INDEX, "");
  server.script(data_path(INDEX), {{.status = 410}});
  EXPECT_EQ(failure_of([&] { return manager->sync(); }), "PermanentDownloadError: Download failed for signals_index.json: HTTP 410");
}

TEST_F(EraDocumentsTest, anIndexOfAnyDigestIsAcceptedAndTheManifestTakesIt) {
  const auto manager = synced({index_of({})});
  const std::string body = R"({"era_number": 7, "useful_signals": {"new": {}}})";
  publish_document(2, INDEX, body, {{"sha256", "stale"}, {"size_bytes", nullptr}, {"note", 1}});
  EXPECT_EQ(manager->sync().bytes_downloaded, static_cast<std::int64_t>(body.size()));
  EXPECT_EQ(json(committed_entry(INDEX)), R"({"kind": "signals_index", "sha256": ")" + _sha256(body) +
                                              R"(", "note": 1, "relative_path": "signals_index.json", "size_bytes": )" +
                                              std::to_string(body.size()) + "}");
  EXPECT_THAT(warnings(),
              ElementsAre("Manifest signals_index metadata repaired for signals_index.json: expected sha=stale size=None, actual sha=" +
                          _sha256(body) + " size=" + std::to_string(body.size()) + "; validated signals_index bytes from storage"));
  EXPECT_TRUE(manager->get_manifest()->sections().useful_signals.contains("new"));
}

std::string vocabulary_with(const std::string& key, Value value) {
  return json(parsed(SyncSetup::documents()[0].content).with(key, std::move(value)));
}

TEST_F(EraDocumentsTest, whatTheManifestStatesOfAVocabularyMayBeBroughtIntoLine) {
  struct Row {
    const char* name;
    Document changes;  ///< to the manifest's entry
    bool is_here;      ///< the bytes that the server would send lie in the directory already
    std::string failure = "";
    bool fetched = true;
  };
  const std::string body = vocabulary_with("edition", 2);
  const std::string refused =
      "IntegrityError: Refusing to repair vocabulary manifest hash for named_universes/us/vocabulary.json: expected stale, got " +
      _sha256(body);
  const Row rows[] = {
      {"as stated", {}, false},
      {"as stated, here", {}, true, "", false},
      {"stated too large, here", {{"size_bytes", 9999}}, true, "", false},
      {"stated too large", {{"size_bytes", 9999}}, false},
      {"stated too small", {{"size_bytes", 1}}, false},
      {"no digest stated", {{"sha256", nullptr}}, false},
      {"no digest and another size stated", {{"sha256", nullptr}, {"size_bytes", 9999}}, false},
      {"another digest stated", {{"sha256", "stale"}}, false, refused},
      {"another digest stated, here", {{"sha256", "stale"}}, true, refused},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    const auto manager = synced({});
    files.unlink(directory / VOCABULARY);
    if (row.is_here) directory.write(VOCABULARY, body);
    publish_document(2, VOCABULARY, body, row.changes);

    EXPECT_EQ(failure_of([&] { return manager->sync(); }), row.failure);

    const std::vector<std::string> all = asked();
    EXPECT_EQ(std::count(all.begin(), all.end(), data_path(VOCABULARY)), row.fetched ? 1 : 0);
    EXPECT_FALSE(directory.contains(VOCABULARY + ".tmp"s));
    EXPECT_EQ(directory.read(VOCABULARY), row.failure.empty() || row.is_here ? body : "");
    if (row.failure.empty()) {
      EXPECT_EQ(committed_entry(VOCABULARY).get("sha256"), Value(_sha256(body)));
      EXPECT_EQ(committed_entry(VOCABULARY).get("size_bytes"), Value(body.size()));
      EXPECT_EQ(*manager->_vocabulary.get()->get("us").if_document()->find("edition"), Value(2));
    }
    const auto warned = [this](const std::string& beginning) {
      const std::vector<std::string> all_warnings = warnings();
      return std::ranges::count_if(all_warnings, [&](const std::string& warning) { return warning.starts_with(beginning); });
    };
    EXPECT_EQ(warned("Manifest vocabulary metadata repaired for named_universes/us/vocabulary.json: expected sha="),
              row.failure.empty() && !row.changes.empty() ? 1 : 0);
    EXPECT_EQ(warned("Local vocabulary named_universes/us/vocabulary.json failed validation; re-downloading: Refusing to repair "),
              row.is_here && !row.failure.empty() ? 1 : 0);
    log.clear();
    for (const std::string& path : directory.files()) files.unlink(directory / path);
    publish_documents();
  }
}

TEST_F(EraDocumentsTest, aBadVocabularyIsNotLeftBehind) {
  const std::pair<std::string, std::string> rows[] = {
      {vocabulary_with("era_number", ERA + 1), "EraError: vocabulary.json era_number=8 does not match manifest era_number=7"},
      {documents()[0].content.substr(0, 40), "SyncError: vocabulary.json is not valid JSON: "},
      {vocabulary_with("named_universe", "eu"), "SyncError: vocabulary.json named_universe does not match manifest path 'us'"},
  };
  const auto manager = synced({});
  const std::string committed = directory.read("manifest.json");
  for (const auto& [body, failure] : rows) {
    publish_document(2, VOCABULARY, body);
    EXPECT_THAT(failure_of([&] { return manager->sync(); }), StartsWith(failure));
    EXPECT_FALSE(directory.contains(VOCABULARY) || directory.contains(VOCABULARY + ".tmp"s));
    EXPECT_EQ(directory.read("manifest.json"), committed);
  }
  publish_documents();
  publish(2, {});
  EXPECT_TRUE(manager->sync().vocabulary_downloaded);
  publish_manifest(manifest(3, {}).with("files", Document()));
  publish_version(3);
  EXPECT_EQ(failure_of([&] { return manager->sync(); }), "SyncError: manifest is missing per-universe vocabulary.json entries");
}

TEST_F(EraDocumentsTest, damageIsRepairedAtTheSameVersionAndAloneFetched) {
  struct Row {
    const char* name;
    std::function<void()> damage;
    std::vector<std::string> fetched;
  };
  const std::string seed = "shuffle_seed.enc", companion = "shuffle_seed.enc.meta.json";
  const Row rows[] = {
      {"vocabulary gone", [&] { files.unlink(directory / VOCABULARY); }, {data_path(VOCABULARY)}},
      {"vocabulary of another era", [&] { directory.write(VOCABULARY, vocabulary_with("era_number", 6)); }, {data_path(VOCABULARY)}},
      {"catalogue cut short", [&] { directory.write(FUNCTIONS, "{"); }, {data_path(FUNCTIONS)}},
      {"index gone", [&] { files.unlink(directory / INDEX); }, {data_path(INDEX)}},
      {"index with other bytes", [&] { directory.write(INDEX, "{}"); }, {data_path(INDEX)}},
      {"seed gone", [&] { files.unlink(directory / seed); }, {SHUFFLE_PATH}},
      {"seed of 59 bytes", [&] { directory.write(seed, std::string(59, 's')); }, {SHUFFLE_PATH}},
      {"seed of 61 bytes", [&] { directory.write(seed, std::string(61, 's')); }, {SHUFFLE_PATH}},
      {"companion gone", [&] { files.unlink(directory / companion); }, {SHUFFLE_PATH}},
      {"companion of another era", [&] { directory.write(companion, R"({"era_number": 6})"); }, {SHUFFLE_PATH}},
      {"companion unreadable", [&] { directory.write(companion, "\xff"); }, {SHUFFLE_PATH}},
      {"vocabulary and seed",
       [&] {
         files.unlink(directory / VOCABULARY);
         files.unlink(directory / seed);
       },
       {data_path(VOCABULARY), SHUFFLE_PATH}},
  };
  const auto manager = synced({index_of({})});
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    const Document before = *manager->_vocabulary.get();
    row.damage();
    static_cast<void>(asked());
    const SyncResult result = manager->sync();
    std::vector<std::string> expected{VERSION_PATH, MANIFEST_PATH};
    expected.insert(expected.end(), row.fetched.begin(), row.fetched.end());
    EXPECT_EQ(asked(), expected);
    EXPECT_EQ(result.vocabulary_downloaded, row.fetched.front() == data_path(VOCABULARY));
    EXPECT_EQ(result.shuffle_seed_downloaded, row.fetched.back() == SHUFFLE_PATH);
    EXPECT_THAT(warnings(), testing::Contains(HasSubstr("Manifest version matched but local metadata needs repair: ")));
    static_cast<void>(manager->sync());
    EXPECT_THAT(asked(), ElementsAre(VERSION_PATH));
    EXPECT_TRUE(manager->_local_manifest_files_complete(*neighbours(), *manager->get_manifest()));
    EXPECT_EQ(*manager->_vocabulary.get(), before);
    log.clear();
  }
}

TEST_F(EraDocumentsTest, aSeedIsAskedForUntilItHas60Bytes) {
  const auto reply = [](std::size_t size, const char* era = "7") {
    return Reply{.headers = {{"x-era-id", era}}, .body = std::string(size, 's')};
  };
  server.script(SHUFFLE_PATH, {reply(59), reply(61), reply(0), reply(60)});
  EXPECT_TRUE(synced({})->sync().era_number == Value(ERA));
  EXPECT_EQ(directory.read("shuffle_seed.enc.meta.json"), R"({"era_number": 7})");
  EXPECT_EQ(requests(SHUFFLE_PATH), 4U);
  const std::vector<Document> waits = log.events("sync_backoff_wait");
  ASSERT_EQ(waits.size(), 3U);
  for (int attempt = 1; const Document& wait : waits) {
    EXPECT_EQ(wait.get("attempt"), Value(attempt++));
    EXPECT_EQ(std::tuple(wait.get("surface"), wait.get("reason"), wait.get("file")),
              std::tuple(Value("shuffle_seed_download"), Value("partial_transfer"), Value("shuffle_seed.enc")));
  }
}

TEST_F(EraDocumentsTest, aSeedThatIsNotThisErasEndsThePass) {
  const std::string seed(60, 's');
  const std::pair<Reply, std::string> rows[] = {
      {{.status = 401}, "AuthError: Authentication failed while downloading shuffle seed: HTTP 401"},
      {{.status = 404}, "SyncError: Failed to download shuffle seed: HTTP 404"},
      {{.body = seed}, "SyncError: shuffle_seed.enc response is missing X-Era-Id"},
      {{.headers = {{"X-Era-Id", "seven"}}, .body = seed}, "EraError: shuffle_seed.enc response has invalid X-Era-Id='seven'"},
      {{.headers = {{"X-Era-Id", "8"}}, .body = "short"},
       "EraError: shuffle_seed.enc response era_number=8 does not match manifest era_number=7"},
  };
  publish(1, {});
  const auto manager = open();
  for (const auto& [reply, failure] : rows) {
    server.script(SHUFFLE_PATH, {reply});
    EXPECT_EQ(failure_of([&] { return manager->sync(); }), failure);
    EXPECT_FALSE(directory.contains("shuffle_seed.enc") || directory.contains("manifest.json"));
  }
}

TEST_F(EraDocumentsTest, aStagingDirectoryTakesTheDocumentsOfTheNextEra) {
  struct Guard : RuntimeFreshnessGuard {
    void record_sync_update(std::string_view, std::string_view, std::string_view) override { ++told; }
    int told = 0;
  };
  const auto recorder = std::make_shared<Guard>();
  const auto manager = synced({index_of({})});
  manager->runtime_freshness_guard.set(recorder);
  const PublishedFile index = index_of({KEPT_PNL}, ERA + 1);
  publish_documents(ERA + 1);
  server.serve_file(data_path(INDEX), index.content);
  Manifest next(*neighbours(), manifest(1, {index}, ERA + 1));
  const auto vocabularies = manager->_vocabulary.get();
  const std::vector<std::string> live = directory.files();
  const TemporaryDirectory staging;

  EXPECT_TRUE(manager->_download_vocabulary(*neighbours(), next, staging.path()));
  EXPECT_TRUE(manager->_download_shuffle_seed(*neighbours(), next, staging.path()));
  EXPECT_TRUE(manager->_download_shuffle_seed(*neighbours(), next, staging.path())) << "across an era it is always fetched";
  EXPECT_TRUE(manager->_download_signals_index(*neighbours(), next, staging.path()));
  EXPECT_TRUE(next.sections().found_signals.contains(KEPT_PNL.path));
  EXPECT_FALSE(manager->_download_signals_index(*neighbours(), next, staging.path()));
  EXPECT_FALSE(manager->_download_vocabulary(*neighbours(), next, staging.path()));

  EXPECT_THAT(staging.files(), ElementsAre(VOCABULARY, "shuffle_seed.enc", "shuffle_seed.enc.meta.json", INDEX));
  EXPECT_EQ(staging.read("shuffle_seed.enc.meta.json"), R"({"era_number": 8})");
  EXPECT_EQ(directory.files(), live);
  EXPECT_EQ(recorder->told, 0);
  EXPECT_EQ(manager->_vocabulary.get(), vocabularies);
}

TEST_F(EraDocumentsTest, oneVocabularyIsReplacedExactlyAsStated) {
  const auto manager = synced({});
  const std::string good = vocabulary_with("edition", 2);
  const Document entry{{"sha256", _sha256(good)}, {"size_bytes", good.size()}};
  struct Row {
    Reply reply;
    Document entry;
    std::string failure;
  };
  const std::string expected_and_got = " for named_universes/us/vocabulary.json: expected ";
  const Row rows[] = {
      {{.status = 404}, entry, "PermanentDownloadError: Download failed for named_universes/us/vocabulary.json: HTTP 404"},
      {{.body = "{"}, entry, "SyncError: vocabulary.json is not valid JSON: "},
      {{.body = good},
       entry.with("sha256", "stale"),
       "IntegrityError: Checksum failure" + expected_and_got + "stale, got " + _sha256(good)},
      {{.body = good},
       entry.with("size_bytes", "1"),
       "IntegrityError: Size failure" + expected_and_got + "1, got " + std::to_string(good.size())},
      {{.body = good}, entry, ""},
      {{.body = good}, {}, ""},
  };
  for (const Row& row : rows) {
    const std::string before = directory.read(VOCABULARY);
    server.script(data_path(VOCABULARY), {row.reply});
    SyncResult result;
    EXPECT_THAT(failure_of([&] { return manager->_download_validated_vocabulary_repair(*neighbours(), VOCABULARY, row.entry, result); }),
                StartsWith(row.failure));
    EXPECT_EQ(directory.read(VOCABULARY), row.failure.empty() ? good : before);
    EXPECT_EQ(result.vocabulary_downloaded, row.failure.empty());
    EXPECT_EQ(result.bytes_downloaded, row.failure.empty() ? static_cast<std::int64_t>(good.size()) : 0);
  }
  EXPECT_EQ(*manager->_vocabulary.get()->get("us").if_document()->find("edition"), Value(2));
  SyncResult result;
  EXPECT_FALSE(manager->_download_validated_vocabulary_repair(*neighbours(), FUNCTIONS, {}, result));
}

}  // namespace
}  // namespace brackenfen::sync
