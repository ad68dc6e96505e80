// A full audit of the local files: every one is read, whatever the hash cache knows.
#include "sync/base/error.hpp"
#include "sync/base/files/paths.hpp"
#include "sync/base/threads/parallel.hpp"
#include "sync/documents/local_files.hpp"
#include "sync/documents/manifest_filters.hpp"
#include "sync/documents/manifest_paths.hpp"
#include "sync/documents/shown_files.hpp"
#include "sync/engine/expected_files.hpp"
#include "sync/engine/sync_manager.hpp"
#include "sync/transport/seen_file.hpp"

namespace brackenfen::sync {
namespace {

enum class Verdict : char { Good, Missing, Corrupted };

/// Judges files one by one. One thread.
class Auditor {
 public:
  Auditor(Files& files, const std::string& data_dir) : files_(files), data_dir_(data_dir), local_files_(data_dir) {}

  [[nodiscard]] Verdict judge(std::string_view file_path, const Document& file_info) {
    if (const auto opened = local_files_.open(file_path)) {
      const std::string local_path = join_path(data_dir_, file_path);
      return judge(file_info, opened->stat, [&] { return std::optional(sha256_of_open_file(opened->file, local_path)); });
    }
    const std::string local_path = _manifest_local_path(data_dir_, Value(file_path));
    const std::optional<FileStat> stat = files_.stat(local_path);
    if (!stat) return Verdict::Missing;
    return judge(file_info, *stat, [&] { return sha256_if_there(local_path); });
  }

 private:
  template <typename Digest>
  static Verdict judge(const Document& file_info, const FileStat& stat, Digest&& digest) {
    const Value* size_bytes = file_info.find("size_bytes");
    if (!stat.is_regular || (size_bytes ? *size_bytes : Value(0)) != Value(stat.size_bytes)) return Verdict::Corrupted;
    const Value& sha256 = file_info.get("sha256");
    if (!sha256.truthy()) return Verdict::Good;
    const std::optional<std::string> actual_sha = digest();
    if (!actual_sha) return Verdict::Missing;
    return sha256.if_text() == *actual_sha ? Verdict::Good : Verdict::Corrupted;
  }

  Files& files_;
  const std::string& data_dir_;
  LocalFiles local_files_;
};

/// The files that must be here, in the order of `active_paths`, or of the manifest where nothing rotates. An entry that is none has no
/// info.
ExpectedFiles files_to_judge(NeighbourSet& neighbours, const Document& entries, const TextList& active_paths) {
  ExpectedFiles expected;
  const auto add = [&](std::string_view file_path, const Value& entry) {
    const Document* file_info = entry.if_document();
    if (!file_info || !_manifest_file_is_sync_excluded(neighbours, entry)) expected.add(file_path, file_info);
  };
  if (!active_paths.empty()) {
    for (const Text& file_path : active_paths) add(file_path, entries.get(file_path));
  } else {
    for (const Member& member : entries) add(member.key, member.value);
  }
  return expected;
}

}  // namespace

VerifyResult SyncManager::verify() {
  require_own_process();
  return run_operation(activity_, operation::VERIFY, phase::VERIFYING, [this] { return audit(); });
}

VerifyResult SyncManager::audit() {
  VerifyResult result;
  const std::shared_ptr<Manifest> manifest = _manifest.get();
  if (!manifest) return result;
  const std::shared_ptr<NeighbourSet> neighbours = seams_.neighbours->bind();
  const Value files = manifest->files();
  const Document* entries = files.if_document();
  const RotationStateRef state = _active_rotation_state.get();
  const TextList active_paths = state ? state->active_relative_paths() : TextList();

  const ExpectedFiles expected = files_to_judge(*neighbours, entries ? *entries : Document(), active_paths);
  std::vector<Verdict> verdicts(expected.size());
  AnnouncedFiles announced;
  for (std::size_t index = 0; index < expected.size(); ++index) announced.add(expected[index].file_info);
  announced.announce();
  const ActivityScope::Part part = ActivityScope::current();
  const std::string data_dir = _data_dir.get();
  static_cast<void>(for_each_index(expected.size(), [&]() -> IndexWork {
    return [&, auditor = std::make_shared<Auditor>(*seams_.files, data_dir)](std::size_t index) {
      const auto& [file_path, file_info] = expected[index];
      verdicts[index] = file_info ? auditor->judge(file_path, *file_info) : Verdict::Missing;
      Operation::count_file(part, file_info ? shown_size(*file_info) : 0);
      return true;
    };
  }));

  for (std::size_t index = 0; index < expected.size(); ++index) {
    if (verdicts[index] == Verdict::Missing) result.missing_files.emplace_back(expected[index].file_path);
    if (verdicts[index] == Verdict::Corrupted) result.corrupted_files.emplace_back(expected[index].file_path);
  }
  result.valid = result.missing_files.empty() && result.corrupted_files.empty();
  return result;
}

}  // namespace brackenfen::sync
