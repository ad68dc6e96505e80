// The rotation through a manager, with a server: what lands, what goes, what searches are told.

#include <set>

#include "sync/neighbours/rotation_settings.hpp"
#include "sync/neighbours/rotation_state.hpp"
#include "sync/rotation/state_file.hpp"
#include "tests/support/sync_setup.hpp"

namespace brackenfen::sync {
namespace {

constexpr const char* PNL = "found_signals/pool/one/signal_is/pnl.arrow";
constexpr std::int64_t NS_PER_SECOND = 1'000'000'000;
constexpr double WEEK_SECONDS = 604800;

/// A search that notes what it is told.
struct Search : RotationSearchConsumer {
  bool is(const RotationSearchConsumer& other) const noexcept override { return this == &other; }
  SearchRefresh refresh_rotation_scope() const override {
    return [this](const RotationStateRef& state, const ScopedVocabulary&) { told.push_back(state); };
  }
  std::optional<std::string> attribute(const char*) const override { return std::nullopt; }
  mutable std::vector<RotationStateRef> told;
};

class RotationTest : public testing::Test, protected SyncSetup {
 protected:
  /// `count` features of 100 bytes, and one file that every client must hold.
  static std::vector<PublishedFile> data_set(int count) {
    std::vector<PublishedFile> published{{PNL, "pnl", "found_signal_is_pnl"}};
    for (int number = 0; number < count; ++number) {
      const std::string name = "f" + std::to_string(100 + number);
      published.push_back({"features/liquid/signal_is/" + name + ".arrow", name + std::string(96, '.')});
    }
    return published;
  }
  /// Room for `features` of them.
  void set_budget(int features) const {
    const double gigabytes = (features == 0 ? 0 : features * 100 + 50) / 1073741824.0;
    directory.write(FEATURE_ROTATION_SETTINGS_FILENAME,
                    write_json(Value(Document{{"feature_budget_gb", gigabytes}, {"rotation_seed", 7}}), JsonForm::InsertionOrder));
  }
  void set_rotated_at(double seconds) { files.set_mtime(state_path(), static_cast<std::int64_t>(seconds) * NS_PER_SECOND); }
  [[nodiscard]] std::int64_t state_mtime() { return files.stat(state_path())->mtime_ns; }
  [[nodiscard]] std::string state_path() const { return feature_rotation_state_path(directory.path()); }
  [[nodiscard]] std::set<std::string> held() const {
    std::set<std::string> features;
    for (const std::string& path : directory.files()) {
      if (path.starts_with("features/")) features.insert(path);
    }
    return features;
  }
};

TEST_F(RotationTest, aBudgetSelectsForAWeekWhateverIsPublishedMeanwhile) {
  std::vector<PublishedFile> published = data_set(20);
  publish(1, published);
  set_budget(5);
  const auto manager = open();
  const SyncResult result = manager->sync();
  EXPECT_THAT(held(), SizeIs(5));
  EXPECT_THAT(result.active_relative_paths, SizeIs(8));
  EXPECT_THAT(result.mandatory_relative_paths, ElementsAre(PNL, FUNCTIONS, VOCABULARY));
  EXPECT_THAT(result.skipped_relative_paths, SizeIs(15));
  EXPECT_EQ(result.rotation_seed, Value(7));
  EXPECT_EQ(result.feature_budget_bytes, Value(550));
  set_rotated_at(clock.wall_seconds());
  EXPECT_FALSE(manager->needs_sync());

  const std::int64_t rotated_at = state_mtime();
  const std::set<std::string> first = held();
  for (int version = 2; version < 8; ++version) {
    clock.advance(WEEK_SECONDS / 7);
    published.push_back({"found_signals/pool/" + std::to_string(version) + "/signal_is/pnl.arrow", "pnl", "found_signal_is_pnl"});
    publish(version, published);
    EXPECT_EQ(manager->sync().bytes_downloaded, 3);
    EXPECT_EQ(held(), first);
    EXPECT_EQ(state_mtime(), rotated_at);
  }
  static_cast<void>(manager->add_active_feature_paths({"features/mine.arrow"}));
  EXPECT_EQ(state_mtime(), rotated_at);
  const auto other_process = open();
  clock.advance(WEEK_SECONDS / 7 - 1);
  EXPECT_EQ(manager->sync().bytes_downloaded, 0);
  EXPECT_EQ(held(), first);
  clock.advance(2);
  EXPECT_TRUE(manager->needs_sync());
  EXPECT_GT(manager->sync().features_downloaded, 0);
  EXPECT_THAT(held(), SizeIs(5));
  EXPECT_NE(held(), first) << "what the rotation left is deleted";
  EXPECT_NE(state_mtime(), rotated_at);
  const RotationStateRef active = manager->_active_rotation_state.get();
  EXPECT_EQ(active->generation(), Value(2));
  EXPECT_TRUE(equal_states(open()->_active_rotation_state.get(), active)) << "and so it begins again";
  EXPECT_EQ(other_process->sync().bytes_downloaded, 0) << "it does not fetch back what has rotated out";
  EXPECT_TRUE(equal_states(other_process->_active_rotation_state.get(), active));
  directory.write(FEATURE_ROTATION_STATE_FILENAME, "{");
  EXPECT_EQ(failure_of([&] { return manager->sync(); }), "") << "what is in memory goes on";
}

TEST_F(RotationTest, whatIsAddedDuringAPassOutlivesItsPlan) {
  publish(1, data_set(20));
  set_budget(5);
  const auto manager = open();
  const auto other_process = open();
  static_cast<void>(manager->sync());
  const std::set<std::string> rotated_out = held();
  const std::vector<Text> added(rotated_out.begin(), rotated_out.end());
  set_rotated_at(0);
  const auto search = std::make_shared<Search>();
  manager->register_rotation_search_consumer(search);
  // Asked for with the version, with the manifest, and then by a download worker.
  const auto add = [&] { static_cast<void>(manager->add_active_feature_paths(added)); };
  token->call_once([&] { token->call_once([&] { token->call_once(add); }); });
  static_cast<void>(manager->sync());
  const RotationStateRef active = manager->_active_rotation_state.get();
  EXPECT_EQ(active->generation(), Value(2));
  EXPECT_THAT(active->active_relative_paths(), IsSupersetOf(added)) << "also what was active all along";
  EXPECT_THAT(held(), IsSupersetOf(rotated_out));
  ASSERT_THAT(search->told, SizeIs(1));
  EXPECT_TRUE(equal_states(search->told[0], active));

  const std::int64_t rotated_at = state_mtime();
  std::vector<Text> others;
  for (const PublishedFile& file : data_set(20)) others.emplace_back(file.path);
  static_cast<void>(other_process->add_active_feature_paths(others));
  const RotationStateRef all = other_process->_active_rotation_state.get();
  EXPECT_EQ(all->generation(), Value(2)) << "what another process has promoted goes on";
  EXPECT_EQ(state_mtime(), rotated_at);
  static_cast<void>(manager->sync());
  EXPECT_THAT(held(), SizeIs(20)) << "and what it has added";
}

TEST_F(RotationTest, theDiskIsCheckedBeforeAnythingIsFetched) {
  const auto manager = open();
  struct Row {
    Value mandatory, budget;
    std::int64_t free_bytes;
    const char* failure;
  };
  const char* const too_large = "MandatoryArtifactsTooLargeError: ";
  const Row rows[] = {
      {501, {}, 1000, too_large}, {500, 501, 1000, "DiskSpaceError: Insufficient disk space: need 1001 bytes, have 1000 bytes available"},
      {500, 500, 1000, ""},       {500, {}, 1001, ""},
      {501, 0, 1001, too_large},  {Value::integer_from_decimal("99999999999999999999"), 0, 1000, too_large},
  };
  for (const Row& row : rows) {
    RotationSelection selection;
    selection.mandatory_bytes = row.mandatory;
    selection.feature_budget_bytes = row.budget;
    const std::string failure =
        failure_of([&] { return manager->_precheck_rotation_disk_budget(*neighbours(), selection, row.free_bytes, false), 0; });
    EXPECT_THAT(failure, *row.failure == '\0' ? Matcher<std::string>("") : StartsWith(row.failure));
  }
  publish(1, {{PNL, "seven..", "found_signal_is_pnl"}});
  std::int64_t needed = 7;
  for (const PublishedFile& document : documents()) needed += static_cast<std::int64_t>(document.content.size());
  files.set_free_bytes(2 * needed - 1);
  EXPECT_THAT(failure_of([&] { return manager->sync(); }), StartsWith(too_large));
  EXPECT_THAT(directory.files(), IsEmpty());
  files.set_free_bytes(2 * needed);
  EXPECT_EQ(failure_of([&] { return manager->sync(); }), "");
  files.set_free_bytes(0);
  EXPECT_EQ(failure_of([&] { return manager->sync(); }), "") << "what is here asks for no room";
  EXPECT_FALSE(directory.contains(FEATURE_ROTATION_STATE_FILENAME)) << "without features nothing rotates";
}

TEST_F(RotationTest, aStateIsWrittenBeforeItCountsAndNotWithoutNeed) {
  publish(1, data_set(3));
  const auto manager = open();
  static_cast<void>(manager->sync());
  const RotationStateRef active = manager->_active_rotation_state.get();
  set_rotated_at(1000);
  manager->_write_promoted_rotation_state(*neighbours(), active->with_active_relative_paths(active->active_relative_paths()));
  EXPECT_EQ(state_mtime(), 1000 * NS_PER_SECOND) << "an equal state leaves the file alone";
  files.unlink(state_path());
  manager->_write_promoted_rotation_state(*neighbours(), active);
  EXPECT_TRUE(directory.contains(FEATURE_ROTATION_STATE_FILENAME));
  files.fail(FaultFiles::Call::Rename, 1, ENOSPC);
  const auto write_another = [&] {
    return manager->_write_promoted_rotation_state(*neighbours(), active->with_active_relative_paths({})), 0;
  };
  EXPECT_THAT(failure_of(write_another), StartsWith("OSError: "));
  EXPECT_EQ(manager->_active_rotation_state.get(), active);

  const std::string retired = "modules/backtester-" + current_platform() + ".so";
  EXPECT_THAT(manager->add_active_feature_paths({"features/x.arrow", Text(retired), "features/x.arrow"}), SizeIs(8));
  EXPECT_THAT(manager->add_active_feature_paths({}), IsEmpty());
  EXPECT_EQ(failure_of([&] { return manager->add_active_feature_paths({"a/../../b"}); }),
            "FeatureRotationStateError: feature rotation state cannot be written: active_relative_paths[8] is no path inside the "
            "directory: 'a/../../b'");
  EXPECT_THAT(open()->_active_rotation_state.get()->active_relative_paths(), SizeIs(7)) << "a retired module does not come back";
  files.unlink(state_path());
  EXPECT_THAT(manager->add_active_feature_paths({"features/y.arrow"}), IsEmpty());
}

class OnDemandTest : public RotationTest {
 protected:
  OnDemandTest() {
    std::vector<PublishedFile> published = data_set(10);
    for (const char* name : {"mom__fast__a__1", "mom__fast__b__1", "val__slow__a__1"})
      published.push_back({"features/liquid/signal_is/" + std::string(name) + ".arrow", name});
    published.push_back({"features/liquid/signal_is/mom__fast__c__1.arrow", "a companion of another kind", "mask"});
    publish(1, published);
    set_budget(0);
  }
  [[nodiscard]] std::string local(const char* name) const {
    return directory / ("features/liquid/signal_is/" + std::string(name) + ".arrow");
  }
};

TEST_F(OnDemandTest, fetchesAFeatureWithItsCompanionsAndKeepsItForTheEra) {
  const auto manager = running();
  EXPECT_THAT(manager->request_feature_files_for_sync({" mom__fast__b__1 ", 7, "", "mom__fast__b__1", "unknown"}),
              ElementsAre(local("mom__fast__b__1"), local("mom__fast__a__1"), local("mom__fast__c__1")));
  EXPECT_EQ(directory.read(".prefetched-features.json"),
            R"({"era_number": 7, "paths": ["features/liquid/signal_is/mom__fast__a__1.arrow", )"
            R"("features/liquid/signal_is/mom__fast__b__1.arrow"], "schema_version": 1})");
  EXPECT_FALSE(directory.contains("sync-progress.json"));
  set_rotated_at(0);
  EXPECT_EQ(open()->sync().features_downloaded, 0) << "a rotation, by a manager that knows of it from the file alone";
  EXPECT_THAT(held(), SizeIs(3));

  files.set_free_bytes(0);
  EXPECT_THAT(manager->request_feature_files_for_sync({"mom__fast__a__1"}), SizeIs(3)) << "nothing to fetch needs no room";
  EXPECT_EQ(failure_of([&] { return manager->request_feature_files_for_sync({"f100"}); }),
            "DiskSpaceError: Insufficient disk space: need 100 bytes, have 0 bytes available");
  EXPECT_THAT(manager->request_feature_files_for_sync({"unknown"}), IsEmpty());
  EXPECT_THAT(manager->request_feature_files_for_sync({" ", Value()}), IsEmpty());
}

TEST_F(OnDemandTest, isRefusedWhileNothingRunsAndInATransition) {
  const auto manager = open();
  const auto failure = [&] { return failure_of([&] { return manager->request_feature_files_for_sync({"f100"}); }); };
  EXPECT_EQ(failure(), "StateError: Sync thread is not running. Call start() or acquire() first.");
  directory.write(".transition_lock", "");
  EXPECT_EQ(failure(), "StateError: Sync is in era transition mode \u2014 request_feature_files_for_sync rejected");
}

TEST_F(OnDemandTest, aManifestThatMovesOnIsFollowedTwice) {
  const auto manager = running();
  std::vector<PublishedFile> promised = data_set(1);
  promised.back().content.back() = '?';  // not what the server has
  publish_manifest(manifest(1, promised));
  static_cast<void>(manager->sync());
  publish_version(2);
  const std::string superseded = "Manifest advanced while downloading features/liquid/signal_is/f100.arrow; refreshing before retry";
  EXPECT_EQ(failure_of([&] { return manager->request_feature_files_for_sync({"f100"}); }), "ManifestSupersededError: " + superseded);
  const std::string warning = "Manifest changed during feature prefetch; refreshing manifest and restarting feature download set ";
  EXPECT_THAT(log.messages(LogLevel::Warning),
              ElementsAre(warning + "(1/3): " + superseded, warning + "(2/3): " + superseded, warning + "(3/3): " + superseded));
  EXPECT_EQ(requests(MANIFEST_PATH), 3U);
}

TEST_F(OnDemandTest, aFileOfAnotherEraOrFormReadsAsEmpty) {
  const auto manager = running();
  static_cast<void>(manager->sync());
  const auto read = [&] {
    return manager->prefetched_features()._read_prefetched_feature_relative_paths(*neighbours(), *manager->get_manifest());
  };
  const std::string path = R"("features/liquid/signal_is/f100.arrow")";
  const std::string rows[] = {R"({"schema_version": 2, "era_number": 7, "paths": [)" + path + "]}",
                              R"({"schema_version": 1, "era_number": 8, "paths": [)" + path + "]}",
                              R"({"schema_version": 1, "era_number": 7, "paths": )" + path + "}",
                              R"({"schema_version": 1, "era_number": 7, "paths": [7, "../x", "manifest.json", "features/unknown.arrow"]})"};
  for (const std::string& row : rows) {
    directory.write(PREFETCHED_FEATURES_FILENAME, row);
    EXPECT_THAT(read(), IsEmpty()) << row;
  }
  directory.write(PREFETCHED_FEATURES_FILENAME, R"({"schema_version": 1, "era_number": 7, "paths": [)" + path + "]}");
  EXPECT_THAT(manager->prefetched_features()._prefetched_feature_keep_paths(*neighbours(), *manager->get_manifest()),
              ElementsAre("features/liquid/signal_is/f100.arrow"));
  const Manifest next(*neighbours(), Value(manifest(1, data_set(10), ERA + 1)));
  EXPECT_THAT(manager->prefetched_features()._prefetched_feature_keep_paths(*neighbours(), next), IsEmpty()) << "an era forgets";
}

}  // namespace
}  // namespace brackenfen::sync
