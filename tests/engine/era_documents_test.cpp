#include <algorithm>

#include "sync/documents/signals_index.hpp"
#include "tests/documents/values.hpp"
#include "tests/support/sync_setup.hpp"

namespace brackenfen::sync {
namespace {

using namespace std::string_literals;

constexpr const char* INDEX = "signals_index.json";
const PublishedFile ALPHA{"features/alpha.arrow", "alpha"};
const PublishedFile KEPT_PNL{"found_signals/pool/kept/signal_is/pnl.arrow", "kept", "found_signal_is_pnl"};
const PublishedFile LOST_PNL{"found_signals/pool/lost/signal_is/pnl.arrow", "lost", "found_signal_is_pnl"};
const PublishedFile LOST_PNL_2{"useful_signals/pool/lost/strategy_is/pnl.arrow", "lost", "useful_signal_strategy_is_pnl"};

std::string data_path(std::string_view path) { return "/data/files/" + std::string(path); }

PublishedFile index_of(const std::vector<PublishedFile>& pnls, int era = SyncSetup::ERA) {
  std::vector<Member> entities;
  for (const PublishedFile& pnl : pnls) entities.push_back({pnl.path, Document{{"files", List{pnl.path}}, {"pool", "pool"}}});
  return {INDEX, json_of(Document{{"era_number", era}, {"found_signals", Document(std::move(entities))}}), "signals_index"};
}
std::string vocabulary_with(const std::string& key, Value value) {
  return json_of(document(SyncSetup::documents()[0].content).with(key, std::move(value)));
}

class EraDocumentsTest : public testing::Test, protected SyncSetup {
 protected:
  /// Publishes `body` for `path`, which the manifest lists with `changes` to its entry; null takes one out.
  void publish_document(const std::string& path, const std::string& body, const Document& changes = {}, int version = 2) {
    publish_version(version);
    const Document manifest_data = manifest(version, {});
    Document entry = PublishedFile{path, body, path == INDEX ? "signals_index" : path == FUNCTIONS ? "functions" : "vocabulary"}.entry();
    for (const Member& change : changes) entry = change.value.is_null() ? entry.without(change.key) : entry.with(change.key, change.value);
    publish_manifest(manifest_data.with("files", manifest_data.get("files").if_document()->with(path, entry)));
    server.script(data_path(path), {{.body = body}});
  }
  [[nodiscard]] Document committed_entry(const std::string& path) const {
    return *document(directory.read("manifest.json")).get("files").if_document()->get(path).if_document();
  }
  /// Notes from now on what a guard is told of the index.
  void guard_the_index() {
    guard = std::make_shared<CallingGuard>([this](const std::string& path, const std::string& kind, const std::string& sha256) {
      if (path == INDEX) told.push_back(kind + " " + sha256);
    });
  }

  std::vector<std::string> told;
};

TEST_F(EraDocumentsTest, lostArtifactsLeaveIndexAndManifestInAgreement) {
  environment.set("BRACKENFEN_SYNC_MAX_CONCURRENCY", "1");
  guard_the_index();
  const PublishedFile index = index_of({KEPT_PNL, LOST_PNL, LOST_PNL_2});
  const std::vector<PublishedFile> all{index, KEPT_PNL, LOST_PNL, LOST_PNL_2};
  publish(1, all);
  for (const PublishedFile& lost : {LOST_PNL, LOST_PNL_2}) server.script(lost.url_path(), {{.status = 404}});
  directory.write(LOST_PNL.path + ".tmp", "a part");
  const auto manager = open();
  EXPECT_THAT(manager->sync().found_pnl_paths_downloaded, IsEmpty()) << "the other one landed in the pass that was given up";

  const std::string excluded = "Manifest signal PnL artifact is missing from storage; excluding stale membership entry and retrying sync: ";
  EXPECT_THAT(warnings(), ElementsAre(excluded + LOST_PNL.path, excluded + LOST_PNL_2.path));
  EXPECT_THAT(manager->_missing_found_pnl.paths(), ElementsAre(LOST_PNL.path, LOST_PNL_2.path));
  EXPECT_FALSE(directory.contains(LOST_PNL.path + ".tmp"));
  const std::string written = directory.read(INDEX);
  EXPECT_EQ(written, write_json(document(index_of({KEPT_PNL}).content), JsonForm::SortedKeys));
  const auto expect_agreement = [&] {
    EXPECT_EQ(directory.read(INDEX), written);
    EXPECT_EQ(std::tuple(committed_entry(INDEX).get("sha256"), committed_entry(INDEX).get("size_bytes")),
              std::tuple(Value(_sha256(written)), Value(written.size())));
    EXPECT_EQ(directory.read("manifest.json").find("/lost/"), std::string::npos);
  };
  expect_agreement();
  EXPECT_THAT(told, ElementsAre("signals_index " + _sha256(index.content), "signals_index " + _sha256(written)));
  for (const auto& current : {manager, open()}) {  // one that knows what is missing, and one that knows the files alone
    EXPECT_EQ(_membership_referenced_files(current->get_manifest()->sections().found_signals), (std::set<std::string>{KEPT_PNL.path}));
    EXPECT_TRUE(current->_vocabulary.get()->contains("us"));
    static_cast<void>(asked());
    static_cast<void>(current->sync());
    EXPECT_THAT(asked(), ElementsAre(VERSION_PATH));
  }

  publish(2, all);
  static_cast<void>(manager->sync());
  EXPECT_EQ(directory.read(INDEX), index.content) << "a new version gets a fresh try at every file";
  EXPECT_THAT(manager->_missing_found_pnl.paths(), IsEmpty());
  for (const PublishedFile& lost : {LOST_PNL, LOST_PNL_2}) {
    server.script(lost.url_path(), {{.status = 404}});
    files.unlink(directory / lost.path);
  }
  static_cast<void>(manager->sync());
  expect_agreement();  // also where the loss shows at a version that is here already
}

TEST_F(EraDocumentsTest, aBatchOfLostArtifactsCostsOnePassAndCountsInItsEraAlone) {
  const std::vector<PublishedFile> all{ALPHA, KEPT_PNL, LOST_PNL, LOST_PNL_2};
  const auto manager = open();
  for (const auto& [era, workers, lost] : {std::tuple(ERA, "1", true), {ERA + 1, "8", true}, {ERA + 2, "8", false}}) {
    SCOPED_TRACE(era);
    environment.set("BRACKENFEN_SYNC_MAX_CONCURRENCY", workers);
    publish_documents(era);
    publish(1, all, era);
    const Document published = manifest(1, all, era);
    std::vector<Value> rows;
    for (const Member& file : *published.get("files").if_document()) rows.emplace_back(Document{{"relative_path", file.key}});
    publish_manifest(published.with("artifacts", List(std::move(rows))));
    if (lost) {
      for (const PublishedFile& file : {LOST_PNL, LOST_PNL_2}) server.script(file.url_path(), {{.status = 404}});
    }
    manager->_manifest.set(nullptr);  // as after a transition, whose new manifest another process has committed
    static_cast<void>(asked());
    static_cast<void>(manager->sync());
    EXPECT_EQ(std::ranges::count(asked(), MANIFEST_PATH), lost ? 2 : 1);
    EXPECT_EQ(directory.contains(LOST_PNL.path), !lost);
    EXPECT_EQ(directory.read("manifest.json").find("/lost/") == std::string::npos, lost);
  }
}

TEST_F(EraDocumentsTest, whatIsHeldIsTheMergedVocabularyOfWhatIsCommitted) {
  const auto manager = synced({ALPHA});
  const std::string second = vocabulary_with("edition", 2);
  Document expected = *manager->_vocabulary.get();
  EXPECT_TRUE(expected.get("us").if_document()->contains("rotations"));
  const auto sync = [&] { return manager->sync(); };
  const auto repair_both = [&] { return manager->repair({VOCABULARY, ALPHA.path}); };
  const std::tuple<const char*, std::function<void()>, std::function<SyncResult()>, const char*> rows[] = {
      {"nothing is fetched", [&] { publish_version(2), publish_manifest(manifest(2, {ALPHA})); }, sync, ""},
      {"a new catalogue",
       [&] {
         publish_document(FUNCTIONS, json_of(Document{{"era_number", ERA}, {"rotations", List{"daily"}}}), {}, 3);
         expected = expected.with("us", expected.get("us").if_document()->with("rotations", List{"daily"}));
       },
       sync, ""},
      {"a pass fails behind the vocabulary",
       [&] {
         publish_documents();
         publish_document(VOCABULARY, second, {}, 4);
         files.unlink(directory / "shuffle_seed.enc");
         server.script(SHUFFLE_PATH, {{.status = 404}});
       },
       sync, "SyncError: Failed to download shuffle seed: HTTP 404"},
      {"the pass succeeds",
       [&] {
         publish_documents();
         expected = expected.with("us", document(second).with("rotations", List{"weekly"}));
       },
       sync, ""},
      {"a repair", [&] { publish(5, {ALPHA}), static_cast<void>(sync()), expected = *manager->_vocabulary.get(); }, repair_both, ""},
      {"a repair that fails", [&] { server.script(ALPHA.url_path(), {{.status = 403}}); }, repair_both, "PermanentDownloadError: "},
  };
  for (const auto& [name, prepare, operation, failure] : rows) {
    SCOPED_TRACE(name);
    prepare();
    EXPECT_THAT(failure_of(operation), StartsWith(failure));
    EXPECT_EQ(json_of(*manager->_vocabulary.get()), json_of(expected));
  }
  files.unlink(directory / VOCABULARY);
  const auto later = open();
  EXPECT_EQ(later->_vocabulary.get(), nullptr);
  static_cast<void>(later->repair({VOCABULARY}));
  ASSERT_NE(later->_vocabulary.get(), nullptr);
  EXPECT_EQ(json_of(*later->_vocabulary.get()), json_of(expected)) << "repaired, where it was not here before";
}

TEST_F(EraDocumentsTest, whatGoesWhileADocumentIsFetchedIsNotPromoted) {
  const PublishedFile index = index_of({KEPT_PNL});
  const auto manager = synced({ALPHA, KEPT_PNL, index});
  for (const int version : {1, 2}) {
    for (const std::string_view fetched : {"shuffle_seed.enc", VOCABULARY, INDEX}) {
      SCOPED_TRACE(std::string(fetched) + std::to_string(version));
      publish(version, {ALPHA, KEPT_PNL, index});
      directory.write(ALPHA.path, ALPHA.content);
      files.unlink(directory / fetched);
      const std::size_t manifests = requests(MANIFEST_PATH);
      const std::function<void()> remove_after_the_walk = [&] {
        if (requests(MANIFEST_PATH) == manifests) return token->call_once(remove_after_the_walk);
        files.unlink(directory / ALPHA.path);
      };
      token->call_once(remove_after_the_walk);
      static_cast<void>(manager->sync());
      EXPECT_FALSE(directory.contains(ALPHA.path));
      EXPECT_THAT(manager->_active_rotation_state.get()->active_relative_paths(), Not(Contains(Text(ALPHA.path))));
    }
  }
}

TEST_F(EraDocumentsTest, aBadIndexNeverReplacesAGoodOne) {
  const std::pair<Reply, std::string> rows[] = {
      {{.body = index_of({}, ERA + 1).content}, "EraError: signals_index.json era_number=8 does not match manifest era_number=7"},
      {{.body = R"({"era_number": 7, "found_)"}, "ManifestError: Invalid signals_index.json JSON: "},
  };
  const PublishedFile good = index_of({});
  const auto manager = synced({good});
  const std::string committed = directory.read("manifest.json");
  for (const auto& [reply, failure] : rows) {
    publish_document(INDEX, reply.body);
    server.script(data_path(INDEX), {reply});
    EXPECT_THAT(failure_of([&] { return manager->sync(); }), StartsWith(failure));
    EXPECT_EQ(directory.read(INDEX), good.content);
    EXPECT_EQ(directory.read("manifest.json"), committed);
  }
}

TEST_F(EraDocumentsTest, anIndexOfAnyDigestIsAcceptedAndTheManifestTakesIt) {
  const auto manager = synced({index_of({})});
  const std::string body = R"({"era_number": 7, "useful_signals": {"new": {}}})", size = std::to_string(body.size());
  publish_document(INDEX, body, {{"sha256", "stale"}, {"size_bytes", nullptr}, {"note", 1}});
  EXPECT_EQ(manager->sync().bytes_downloaded, static_cast<std::int64_t>(body.size()));
  EXPECT_EQ(json_of(committed_entry(INDEX)), R"({"kind": "signals_index", "sha256": ")" + _sha256(body) +
                                                 R"(", "note": 1, "relative_path": "signals_index.json", "size_bytes": )" + size + "}");
  EXPECT_THAT(warnings(),
              ElementsAre("Manifest signals_index metadata repaired for signals_index.json: expected sha=stale size=None, actual sha=" +
                          _sha256(body) + " size=" + size + "; validated signals_index bytes from storage"));
  EXPECT_TRUE(manager->get_manifest()->sections().useful_signals.contains("new"));
}

TEST_F(EraDocumentsTest, whatTheManifestStatesOfAVocabularyMayBeBroughtIntoLine) {
  const Document as_stated, too_large{{"size_bytes", 999'999}}, no_digest{{"sha256", nullptr}}, another_digest{{"sha256", "stale"}};
  const std::tuple<const char*, Document, bool, bool> rows[] = {
      // the entry; whether the new bytes lie here already; whether they are fetched
      {"as stated", as_stated, false, true},
      {"as stated, here", as_stated, true, false},
      {"stated too large", too_large, false, true},
      {"stated too large, here", too_large, true, false},
      {"stated too small", {{"size_bytes", 1}}, false, true},
      {"no digest stated", no_digest, false, true},
      {"another digest stated", another_digest, false, true},
      {"another digest stated, here", another_digest, true, true},
  };
  // Larger than what is read of a data file that is stated so small.
  const std::string body = json_of(document(vocabulary_with("edition", 2)).with("pad", std::string(100'000, ' ')));
  const std::string refused =
      "IntegrityError: Refusing to repair vocabulary manifest hash for named_universes/us/vocabulary.json: expected stale, got " +
      _sha256(body);
  for (const auto& [name, changes, is_here, fetched] : rows) {
    SCOPED_TRACE(name);
    const bool accepted = changes != another_digest;
    publish_documents();
    const auto manager = synced({});
    files.unlink(directory / VOCABULARY);
    if (is_here) directory.write(VOCABULARY, body);
    publish_document(VOCABULARY, body, changes);

    EXPECT_EQ(failure_of([&] { return manager->sync(); }), accepted ? "" : refused);

    const std::vector<std::string> requested = asked();
    EXPECT_EQ(std::ranges::count(requested, data_path(VOCABULARY)), fetched ? 1 : 0);
    EXPECT_FALSE(directory.contains(VOCABULARY + ".tmp"s));
    EXPECT_EQ(directory.read(VOCABULARY), accepted || is_here ? body : "");
    if (accepted) {
      EXPECT_EQ(committed_entry(VOCABULARY).get("sha256"), Value(_sha256(body)));
      EXPECT_EQ(committed_entry(VOCABULARY).get("size_bytes"), Value(body.size()));
      EXPECT_EQ(*manager->_vocabulary.get()->get("us").if_document()->find("edition"), Value(2));
    }
    const char* const repaired = "Manifest vocabulary metadata repaired for named_universes/us/vocabulary.json: expected sha=";
    const char* const distrusted =
        "Local vocabulary named_universes/us/vocabulary.json failed validation; re-downloading: Refusing to repair ";
    EXPECT_THAT(warnings(), Contains(StartsWith(repaired)).Times(accepted && !changes.empty() ? 1 : 0));
    EXPECT_THAT(warnings(), Contains(StartsWith(distrusted)).Times(is_here && !accepted ? 1 : 0));
    log.clear();
    for (const std::string& path : directory.files()) files.unlink(directory / path);
  }
}

TEST_F(EraDocumentsTest, aBadVocabularyIsNotLeftBehind) {
  const std::pair<std::string, std::string> rows[] = {
      {vocabulary_with("era_number", ERA + 1), "EraError: vocabulary.json era_number=8 does not match manifest era_number=7"},
      {documents()[0].content.substr(0, 40), "SyncError: vocabulary.json is not valid JSON: "},
  };
  const auto manager = synced({});
  const std::string committed = directory.read("manifest.json");
  for (const auto& [body, failure] : rows) {
    publish_document(VOCABULARY, body);
    EXPECT_THAT(failure_of([&] { return manager->sync(); }), StartsWith(failure));
    EXPECT_FALSE(directory.contains(VOCABULARY) || directory.contains(VOCABULARY + ".tmp"s));
    EXPECT_EQ(directory.read("manifest.json"), committed);
  }
  publish_manifest(manifest(2, {}).with("files", Document()));
  EXPECT_EQ(failure_of([&] { return manager->sync(); }), "SyncError: manifest is missing per-universe vocabulary.json entries");
}

TEST_F(EraDocumentsTest, damageIsRepairedAtTheSameVersionAndAloneFetched) {
  const std::string seed = "shuffle_seed.enc", meta = seed + ".meta.json";
  using Paths = std::vector<std::string>;
  // What is written over a file, where nothing stands for its removal; and what that makes the pass fetch.
  const std::tuple<std::map<std::string, std::optional<std::string>>, Paths> rows[] = {
      {{{ALPHA.path, std::nullopt}}, {ALPHA.url_path()}},
      {{{ALPHA.path, "ALPHA"}}, {ALPHA.url_path()}},
      {{{VOCABULARY, vocabulary_with("era_number", 6)}}, {data_path(VOCABULARY)}},
      {{{FUNCTIONS, "{"}}, {data_path(FUNCTIONS)}},
      {{{INDEX, "{}"}}, {data_path(INDEX)}},
      {{{seed, std::nullopt}}, {SHUFFLE_PATH}},
      {{{seed, std::string(59, 's')}}, {SHUFFLE_PATH}},
      {{{meta, R"({"era_number": 6})"}}, {SHUFFLE_PATH}},
      {{{meta, R"({"era_number": "x"})"}}, {SHUFFLE_PATH}},
      {{{meta, "\xff"}}, {SHUFFLE_PATH}},
      {{{meta, std::nullopt}}, {SHUFFLE_PATH}},
      {{{VOCABULARY, std::nullopt}, {seed, std::nullopt}}, {data_path(VOCABULARY), SHUFFLE_PATH}},
  };
  const auto manager = synced({ALPHA, index_of({})});
  for (const auto& [damage, fetched] : rows) {
    for (const auto& [path, content] : damage) {
      std::filesystem::remove(directory / path);
      if (content) directory.write(path, *content);
    }
    SCOPED_TRACE(damage.begin()->first + " " + damage.begin()->second.value_or("gone"));
    const Document before = *manager->_vocabulary.get();
    const SyncResult result = manager->sync();
    Paths expected{VERSION_PATH, MANIFEST_PATH};
    expected.insert(expected.end(), fetched.begin(), fetched.end());
    EXPECT_EQ(asked(), expected);
    EXPECT_EQ(result.vocabulary_downloaded, fetched.front() == data_path(VOCABULARY));
    EXPECT_EQ(result.shuffle_seed_downloaded, fetched.back() == SHUFFLE_PATH);
    EXPECT_THAT(warnings(), Contains(StartsWith("Manifest version matched but local metadata needs repair: ")));
    const bool data_damaged = fetched.front() != data_path(VOCABULARY) && fetched.back() != SHUFFLE_PATH;
    EXPECT_THAT(warnings(), Contains("Manifest version matched but local data files need repair").Times(data_damaged ? 1 : 0));
    EXPECT_THAT(log.messages(LogLevel::Info), Contains(StartsWith("Synced era 7 to version 1: mended ")).Times(data_damaged ? 0 : 1));
    EXPECT_TRUE(manager->_local_manifest_files_complete(*neighbours(), *manager->get_manifest()));
    static_cast<void>(manager->sync());
    EXPECT_THAT(asked(), ElementsAre(VERSION_PATH));
    EXPECT_EQ(*manager->_vocabulary.get(), before);
    log.clear();
  }
}

TEST_F(EraDocumentsTest, aSeedIsAskedForUntilItHas60BytesOfThisEra) {
  const auto reply = [](std::size_t size, const char* era) {
    return Reply{.headers = {{"x-era-id", era}}, .body = std::string(size, 's')};
  };
  publish(1, {});
  const auto manager = open();
  server.script(SHUFFLE_PATH, {{.status = 401}});
  EXPECT_EQ(failure_of([&] { return manager->sync(); }), "AuthError: Authentication failed while downloading shuffle seed: HTTP 401");
  EXPECT_FALSE(directory.contains("shuffle_seed.enc") || directory.contains("manifest.json"));
  server.script(SHUFFLE_PATH, {reply(59, "7"), reply(61, "7"), reply(60, " 7 ")});
  EXPECT_TRUE(manager->sync().shuffle_seed_downloaded);
  EXPECT_EQ(directory.read("shuffle_seed.enc.meta.json"), R"({"era_number": 7})");
  const std::vector<Document> waits = log.events("sync_backoff_wait");
  ASSERT_EQ(waits.size(), 2U);
  EXPECT_EQ(std::tuple(waits[1].get("attempt"), waits[1].get("surface"), waits[1].get("reason"), waits[1].get("file")),
            std::tuple(Value(2), Value("shuffle_seed_download"), Value("partial_transfer"), Value("shuffle_seed.enc")));
}

TEST_F(EraDocumentsTest, whatIsStagedForTheNextEraIsNotToldYet) {
  guard_the_index();
  const auto manager = synced({});
  const PublishedFile index = index_of({KEPT_PNL}, ERA + 1);
  publish_documents(ERA + 1);
  server.serve_file(index.url_path(), index.content);
  Manifest next(*neighbours(), manifest(1, {index}, ERA + 1));
  const TemporaryDirectory staging;
  for (const bool first : {true, false}) {
    EXPECT_EQ(manager->_download_signals_index(*neighbours(), next, staging.path()), first);
    EXPECT_TRUE(manager->_download_shuffle_seed(*neighbours(), next, staging.path())) << "across an era it is always fetched";
  }
  EXPECT_THAT(staging.files(), ElementsAre("shuffle_seed.enc", "shuffle_seed.enc.meta.json", INDEX));
  EXPECT_THAT(told, IsEmpty());
}

TEST_F(EraDocumentsTest, oneVocabularyIsReplacedExactlyAsStated) {
  const auto manager = synced({});
  const std::string good = vocabulary_with("edition", 2), size = std::to_string(good.size());
  const Document entry{{"sha256", _sha256(good)}, {"size_bytes", good.size()}};
  const std::string expected_and_got = " for named_universes/us/vocabulary.json: expected ";
  const std::tuple<Reply, Document, std::string> rows[] = {
      {{.body = "{"}, entry, "SyncError: vocabulary.json is not valid JSON: "},
      {{.body = good}, entry.with("sha256", "0"), "IntegrityError: Checksum failure" + expected_and_got + "0, got " + _sha256(good)},
      {{.body = good}, entry.with("size_bytes", "1"), "IntegrityError: Size failure" + expected_and_got + "1, got " + size},
      {{.body = good}, entry, ""},
      {{.body = good}, {}, ""},
  };
  const std::string before = directory.read(VOCABULARY);
  for (const auto& [reply, row_entry, failure] : rows) {
    const Document& stated = row_entry;
    server.script(data_path(VOCABULARY), {reply});
    SyncResult result;
    EXPECT_THAT(failure_of([&] { return manager->_download_validated_vocabulary_repair(*neighbours(), VOCABULARY, stated, result); }),
                StartsWith(failure));
    EXPECT_EQ(directory.read(VOCABULARY), failure.empty() ? good : before);
    EXPECT_EQ(result.vocabulary_downloaded, failure.empty());
  }
  EXPECT_EQ(*manager->_vocabulary.get()->get("us").if_document()->find("edition"), Value(2));
}

}  // namespace
}  // namespace brackenfen::sync
