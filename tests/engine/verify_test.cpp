#include "sync/neighbours/rotation_state.hpp"
#include "tests/support/sync_setup.hpp"

namespace brackenfen::sync {
namespace {

const PublishedFile FILE_A{"features/a.arrow", "content"};

class VerifyTest : public testing::Test, protected SyncSetup {
 protected:
  /// A manager whose record lists `entries`; nothing is fetched for it.
  std::shared_ptr<SyncManager> knowing(std::vector<Member> entries) {
    auto manager = open();
    manager->_manifest.set(std::make_shared<Manifest>(*neighbours(), Value(Document{{"files", Document(std::move(entries))}})));
    return manager;
  }
  static VerifyResult found(std::vector<std::string> corrupted, std::vector<std::string> missing) {
    return {.valid = corrupted.empty() && missing.empty(), .corrupted_files = std::move(corrupted), .missing_files = std::move(missing)};
  }
};

TEST_F(VerifyTest, eachFileIsJudgedByItsSizeAndItsBytes) {
  const Document entry = FILE_A.entry(), no_digest = entry.with("sha256", "");
  const VerifyResult good = found({}, {}), corrupted = found({FILE_A.path}, {}), missing = found({}, {FILE_A.path});
  const std::tuple<const char*, Value, std::optional<std::string>, VerifyResult> rows[] = {
      {"as promised", entry, "content", good},
      {"not there", entry, std::nullopt, missing},
      {"another size", entry, "contents", corrupted},
      {"other bytes of the same size, whatever the cache says", entry, "Content", corrupted},
      {"no entry", "text", "content", missing},
      {"not for this platform", entry.with("kind", "vault_module").with("platform", "amiga_68k"), std::nullopt, good},
      {"without a digest", no_digest, "Content", good},
      {"without a digest, another size", no_digest, "contents", corrupted},
      {"without a size", Document{{"sha256", _sha256("content")}}, "content", corrupted},
      {"without a size, empty", Document{{"sha256", _sha256("")}}, "", good},
      {"a size that is none", entry.with("size_bytes", "7"), "content", corrupted},
      {"a digest that is none", entry.with("sha256", 5), "content", corrupted},
  };
  for (const auto& [name, stated, on_disk, verdict] : rows) {
    SCOPED_TRACE(name);
    const TemporaryDirectory fresh;
    const auto manager = knowing({{FILE_A.path, stated}});
    manager->_data_dir.set(fresh.path());
    if (on_disk) fresh.write(FILE_A.path, *on_disk);
    manager->hash_cache()._remember_local_sha(FILE_A.path, fresh / FILE_A.path, _sha256(FILE_A.content));
    EXPECT_EQ(manager->verify(), verdict);
  }
}

TEST_F(VerifyTest, aFileThatGoesWhileItIsLookedAtIsMissing) {
  const auto manager = knowing({{FILE_A.path, FILE_A.entry()}});
  files.answer_stat([] { return FileStat{.size_bytes = 7}; });
  EXPECT_EQ(manager->verify(), found({}, {FILE_A.path}));
  EXPECT_FALSE(manager->_local_file_matches_manifest(FILE_A.path, directory / FILE_A.path, FILE_A.entry(), true));
}

TEST_F(VerifyTest, theListsFollowTheOrderOfTheManifestOrOfTheActivePaths) {
  std::vector<Member> entries;
  std::vector<std::string> corrupted, missing;
  for (int index = 0; index < 500; ++index) {
    const std::string path = "folder" + std::to_string(index * 7 % 50) + "/" + std::to_string(index);
    entries.push_back({path, FILE_A.entry()});
    if (index % 3 == 0) corrupted.push_back(path);
    if (index % 3 == 1) missing.push_back(path);
    if (index % 3 != 1) directory.write(path, index % 3 == 0 ? "Content" : "content");
  }
  // Names that no file can have here.
  std::filesystem::create_symlink("loop", directory / "loop");
  for (const std::string& path : {std::string("loop"), std::string("folder0/0/x"), std::string(300, 'n'), std::string(5000, 'n')}) {
    entries.push_back({path, FILE_A.entry()});
    missing.push_back(path);
  }
  const auto manager = knowing(entries);
  EXPECT_EQ(manager->verify(), found(corrupted, missing));

  const auto state = std::make_shared<BuiltinRotationState>();
  state->active_paths = {missing[1], "unknown", corrupted[5], missing[0], corrupted[2]};
  manager->_active_rotation_state.set(state);
  EXPECT_EQ(manager->verify(), found({corrupted[5], corrupted[2]}, {missing[1], "unknown", missing[0]}));

  entries.insert(entries.begin() + 100, {"../outside", FILE_A.entry()});
  EXPECT_THAT(failure_of([&] { return knowing(entries)->verify(); }), StartsWith("ManifestError: "));
}

}  // namespace
}  // namespace brackenfen::sync
