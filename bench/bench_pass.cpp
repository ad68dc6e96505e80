// A pass over 100,000 files that all match, warm, beside a bare loop of one statx per file. The server tells of the version
// that is here; or it tells none and its manifest is the one that is here; or it has a new version of the same files.
#include <sys/stat.h>

#include <map>

#include "bench/dataset.hpp"
#include "bench/memory_server.hpp"
#include "sync/base/log.hpp"
#include "sync/engine/sync_manager.hpp"

using namespace brackenfen::sync;

namespace {

constexpr int FILES = 100000;

/// Collects how long each step of the pass took.
class StageTimes : public LogSink {
 public:
  bool enabled(LogLevel) override { return true; }
  void write(const LogRecord& record) override {
    if (std::string_view(record.format).starts_with("Sync pass:")) {
      auto& best = milliseconds[std::string(*record.arguments[0].if_text())];
      const double took = *record.arguments[1].if_real();
      best = best == 0 ? took : std::min(best, took);
    } else if (record.level >= LogLevel::Warning) {
      std::fprintf(stderr, "%s\n", format_message(record).c_str());
    }
  }
  std::map<std::string, double> milliseconds;
};

}  // namespace

int main(int argc, char** argv) {
  const std::string directory = join_path(argc > 1 ? argv[1] : ".", "pass");
  make_directories(directory);
  bench::make_files(directory, FILES);

  bench::MemoryServer server;
  const auto manager = server.manager_of(directory);
  const auto run = [&] {
    const auto began = std::chrono::steady_clock::now();
    if (manager->sync().bytes_downloaded != 0) std::fprintf(stderr, "the pass downloaded something\n");
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - began).count();
  };
  int version = 1;
  const auto run_over_new_version = [&] {
    server.publish(bench::make_manifest(FILES, ++version));
    return run();
  };
  run_over_new_version();  // fills the hash cache

  std::vector<std::string> paths;
  for (int index = 0; index < FILES; ++index) paths.push_back(join_path(real_path(directory), bench::feature_path(index)));
  const auto bare_loop = [&] {
    struct statx found;
    for (const std::string& path : paths) {
      if (statx(AT_FDCWD, path.c_str(), 0, STATX_BASIC_STATS, &found) != 0) std::abort();
    }
  };
  StageTimes times;
  set_log_sink(&times);
  double bare_ms = 1e9;
  double pass_ms = 1e9;
  double same_version_ms = 1e9;
  double same_manifest_ms = 1e9;
  for (int round = 0; round < 7; ++round) {
    bare_ms = std::min(bare_ms, bench::best_seconds(1, bare_loop) * 1e3);
    pass_ms = std::min(pass_ms, run_over_new_version());
    same_version_ms = std::min(same_version_ms, run());
    server.hide_version();
    same_manifest_ms = std::min(same_manifest_ms, run());
  }
  std::printf(R"({"files": %d, "statx_ms": %.1f, "walk_ms": %.1f, "same_version_ms": %.1f, "same_manifest_ms": %.1f, "pass_ms": %.1f, )",
              FILES, bare_ms, times.milliseconds["walk"], same_version_ms, same_manifest_ms, pass_ms);
  std::printf(R"("peak_resident_mib": %.1f, "stages_ms": {)", bench::peak_resident_mib());
  const char* separator = "";
  for (const auto& [stage, milliseconds] : times.milliseconds) {
    std::printf(R"(%s"%s": %.1f)", separator, stage.c_str(), milliseconds);
    separator = ", ";
  }
  std::printf("}}\n");
  set_log_sink(nullptr);
}
