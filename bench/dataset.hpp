// What the benchmarks measure against: a directory of many small files, and the manifest that names them.
#pragma once

#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include "sync/base/files/descriptor.hpp"
#include "sync/base/files/paths.hpp"
#include "sync/base/files/sha256.hpp"
#include "sync/base/values/json.hpp"
#include "sync/base/values/value.hpp"

#include <fcntl.h>

namespace brackenfen::sync::bench {

/// Seconds that `work` takes; the best of `rounds`.
template <typename Work>
double best_seconds(int rounds, Work&& work) {
  double best = 1e9;
  for (int round = 0; round < rounds; ++round) {
    const auto began = std::chrono::steady_clock::now();
    work();
    best = std::min(best, std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count());
  }
  return best;
}

/// The largest resident set of this process so far, in MiB.
inline double peak_resident_mib() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return static_cast<double>(usage.ru_maxrss) / 1024.0;
}

/// The path of file `index`: 100 files a folder, as feature sets have them.
inline std::string feature_path(int index) {
  char path[128];
  std::snprintf(path, sizeof path, "features/universe_%03d/signal_is/momentum__fast__w%05d__v1.arrow", index / 100, index);
  return path;
}

struct EraDocument {
  std::string path;
  const char* kind;
  std::string content;
};

/// What an era has besides its features. The seed is not in the manifest.
inline std::vector<EraDocument> era_documents() {
  return {{"named_universes/universe_000/vocabulary.json", "vocabulary",
           R"({"era_number": 12, "named_universe": "universe_000", "features": {}, "metadata": {"named_universe": "universe_000"}})"},
          {"functions.json", "functions", R"({"era_number": 12, "functions": [{"name": "fn_delay"}]})"}};
}

/// A manifest of these files and of the documents of the era.
inline Document manifest_of(std::vector<Member> files, int version) {
  for (const EraDocument& document : era_documents()) {
    files.push_back(
        {document.path, Document{{"kind", document.kind}, {"size_bytes", document.content.size()}, {"sha256", _sha256(document.content)}}});
  }
  return Document{{"era_number", 12}, {"version", version}, {"functions", "functions.json"}, {"files", Value(Document(std::move(files)))}};
}

/// A manifest of `count` features, each of whose files holds its own path.
inline Document make_manifest(int count, int version) {
  std::vector<Member> files;
  files.reserve(static_cast<std::size_t>(count));
  for (int index = 0; index < count; ++index) {
    const std::string path = feature_path(index);
    files.push_back(
        {path, Value(Document{{"kind", "feature"}, {"size_bytes", path.size()}, {"sha256", _sha256(path)}, {"mandatory", false}})});
  }
  return manifest_of(std::move(files), version);
}

inline void make_file(const std::string& directory, const std::string& path, std::string_view content) {
  const std::string local = join_path(directory, path);
  make_directories(directory_of(local));
  write_all(open_file(local, O_WRONLY | O_CREAT | O_TRUNC), content, local);
}

inline void make_era_files(const std::string& directory) {
  for (const EraDocument& document : era_documents()) make_file(directory, document.path, document.content);
  make_file(directory, "shuffle_seed.enc", std::string(60, 's'));
  make_file(directory, "shuffle_seed.enc.meta.json", R"({"era_number": 12})");
}

/// Lays the files down in `directory`; the features only where no earlier run did.
inline void make_files(const std::string& directory, int count) {
  make_era_files(directory);
  const std::string marker = join_path(directory, ".complete-" + std::to_string(count));
  if (path_exists(marker)) return;
  for (int index = 0; index < count; ++index) {
    const std::string path = feature_path(index);
    const std::string local = join_path(directory, path);
    if (index % 100 == 0) make_directories(directory_of(local));
    write_all(open_file(local, O_WRONLY | O_CREAT | O_TRUNC), path, local);
  }
  write_all(open_file(marker, O_WRONLY | O_CREAT), "", marker);
}

}  // namespace brackenfen::sync::bench
