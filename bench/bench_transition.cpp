// A transition to another era in which few files change, beside what it cannot do without: one request for the current
// era per file, one read and hash of what stays, one download after the other of what does not.
//
//   bench_transition DIRECTORY URL ERA SCRATCH   times both
//   bench_transition DIRECTORY URL ERA           runs the transition while a thread reads every live file
#include <atomic>
#include <thread>

#include "bench/dataset.hpp"
#include "sync/base/error.hpp"
#include "sync/engine/sync_manager.hpp"
#include "sync/transport/files.hpp"

using namespace brackenfen::sync;

namespace {

struct Comparison {
  std::vector<Member> unchanged;
  std::vector<Member> changed;  ///< or new
};

Comparison compare(const Document& old_files, const Document& new_files) {
  Comparison files;
  for (const Member& member : new_files) {
    const Document* old_entry = old_files.get(member.key).if_document();
    const bool same = old_entry != nullptr && old_entry->get("sha256") == member.value.if_document()->get("sha256");
    (same ? files.unchanged : files.changed).push_back(member);
  }
  return files;
}

/// Reads every file of both eras over and over. Whatever it finds must be one edition or the other, whole.
class Reader {
 public:
  Reader(std::string directory, Document old_files, Document new_files)
      : directory_(std::move(directory)), old_files_(std::move(old_files)), new_files_(std::move(new_files)), thread_([this] { run(); }) {}
  /// Files that were found missing or torn.
  int stop() {
    stopping_ = true;
    thread_.join();
    std::fprintf(stderr, "%ld files read meanwhile\n", read_);
    return wrong_;
  }

 private:
  void run() {
    while (!stopping_) {
      for (const Member& member : new_files_) {
        const Document* old_entry = old_files_.get(member.key).if_document();
        if (old_entry == nullptr) continue;  // may come at any time
        try {
          const Value digest(_sha256_file(join_path(directory_, member.key)));
          if (digest != old_entry->get("sha256") && digest != member.value.if_document()->get("sha256")) ++wrong_;
        } catch (const Error& error) {
          std::fprintf(stderr, "%s\n", error.what());
          ++wrong_;
        }
        ++read_;
        if (stopping_) return;
      }
    }
  }

  const std::string directory_;
  const Document old_files_, new_files_;
  std::atomic<bool> stopping_{false};
  int wrong_ = 0;
  long read_ = 0;
  std::thread thread_;
};

}  // namespace

int main(int argument_count, char** arguments) {
  if (argument_count < 4) return 2;
  const std::string directory = arguments[1];
  const std::string url = arguments[2];
  const Value era = Value::integer_from_decimal(arguments[3]);
  const auto manager = std::make_shared<SyncManager>(SyncManager::Options{
      .data_dir = directory, .server_url = url, .get_token = fixed_token("t"), .runtime_freshness_guard = nullptr, .seams = Seams::real()});
  if (!manager->get_manifest()) static_cast<void>(manager->sync());
  const auto neighbours = Neighbours::builtin().bind();
  const Value served = parse_json(manager->_http_get(*neighbours, url + "/data/manifest").body);
  const Value old_files = manager->get_manifest()->files();
  const Value& new_files = served.if_document()->get("files");
  const Comparison files = compare(*old_files.if_document(), *new_files.if_document());
  if (manager->get_manifest()->era_number() == era) return 0;  // filled

  if (argument_count == 4) {
    Reader reader(directory, *old_files.if_document(), *new_files.if_document());
    manager->trigger_era_transition(era);
    std::printf(R"({"wrong": %d})", reader.stop());
    return 0;
  }

  const double request_seconds = bench::best_seconds(1, [&] {
    for (std::size_t request = 0; request < new_files.if_document()->size(); ++request) {
      static_cast<void>(manager->_http_get(*neighbours, url + "/era/current"));
    }
  });
  const double hash_seconds = bench::best_seconds(1, [&] {
    for (const Member& member : files.unchanged) static_cast<void>(_sha256_file(join_path(directory, member.key)));
  });
  SyncManager::DownloadOptions options;
  options.target_data_dir = arguments[4];
  const double download_seconds = bench::best_seconds(1, [&] {
    SyncResult result;
    for (const Member& member : files.changed)
      manager->_download_file(*neighbours, member.key.str(), *member.value.if_document(), result, options);
  });
  const double transition_seconds = bench::best_seconds(1, [&] { manager->trigger_era_transition(era); });
  std::printf(R"({"files": %zu, "changed": %zu, "requests_s": %.3f, "hash_s": %.3f, "download_s": %.3f, "transition_s": %.3f})",
              new_files.if_document()->size(), files.changed.size(), request_seconds, hash_seconds, download_seconds, transition_seconds);
}
