// A host in one short run, which the campaign kills and lets fail:
//
//   torture_host COMMAND DIRECTORY URL [ARGUMENT...]
//
// Prints what happens, a line each: "kill" and "restart" of the searches, figures, "manifest ERA VERSION FILES" as it is in
// memory at the end, "verified" or "damaged PATH...", and "CLASS: TEXT" of an error, whose exit code is 1. Standard error
// gets the whole log. The token is read from TORTURE_TOKEN.
#include <dlfcn.h>
#include <execinfo.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <new>
#include <random>
#include <thread>

#include "sync/base/log.hpp"
#include "sync/base/threads/worker_thread.hpp"
#include "sync/base/values/convert.hpp"
#include "sync/engine/sync_manager.hpp"

namespace brackenfen::sync {
namespace {

using Manager = std::shared_ptr<SyncManager>;

/// Everything, one write(2) for each record.
class WholeLog final : public LogSink {
 public:
  bool enabled(LogLevel) override { return true; }
  void write(const LogRecord& record) override {
    const std::string line =
        std::to_string(static_cast<int>(record.level)) + " " + std::to_string(::getpid()) + " " + format_message(record) + "\n";
    static_cast<void>(!::write(STDERR_FILENO, line.data(), line.size()));
  }
};

struct Run {
  SyncManager::Options options;
  std::vector<std::string> arguments;

  [[nodiscard]] Manager open() const { return SyncManager::get_or_create(options); }
  [[nodiscard]] long number(std::size_t index) const { return std::stol(arguments.at(index)); }
};

// ---- short commands -------------------------------------------------------------------------------------------------

/// Follows the server to its era, as a host does when it starts, and fetches what a new version has left for one more pass.
void follow(SyncManager& manager) {
  const auto manifest = manager.get_manifest();
  const Value era = manager._fetch_active_era_for_transition(*manager.seams().neighbours->bind(), true).era_number;
  if (manifest && manifest->era_number() != era) {
    manager.trigger_era_transition(
        era, [] { std::puts("kill"); }, [] { std::puts("restart"); });
  } else {
    static_cast<void>(manager.sync());
  }
  if (!manager.verify().valid) static_cast<void>(manager.sync());
}

void repair(SyncManager& manager) {
  VerifyResult found = manager.verify();
  std::vector<std::string> paths = std::move(found.corrupted_files);
  paths.insert(paths.end(), found.missing_files.begin(), found.missing_files.end());
  static_cast<void>(manager.repair(paths));
}

/// Without the threads of a running manager, which would do more than what is asked for.
void prefetch(SyncManager& manager, const std::string& feature) {
  manager._running = true;
  const auto paths = manager.request_feature_files_for_sync({Value(feature)});
  std::printf("prefetched %zu\n", paths.size());
}

/// The threads of a running manager do the work, a reported repair among it, until they have brought the directory to an era.
void live(SyncManager& manager, const std::string& damaged, const Value& era) {
  manager._poll_interval.set(0.02);
  const auto acquires = [&] {
    try {
      return manager.acquire(), true;
    } catch (const std::bad_alloc&) {  // the next call starts what this one could not
      return false;
    }
  };
  while (!acquires()) continue;
  for (int reports = 0; reports < 3; ++reports) manager.report_corruption(damaged);
  while (manager._in_transition || manager.get_manifest()->era_number() != era) std::this_thread::sleep_for(std::chrono::milliseconds(5));
  manager.stop();
}

// ---- many times over ------------------------------------------------------------------------------------------------

long entries_in(const char* folder) { return std::distance(std::filesystem::directory_iterator(folder), {}); }

/// "used DESCRIPTORS THREADS KILOBYTES" after a fifth, in which things are made that stay, and at the end.
void repeat(long times, const std::function<void()>& action) {
  for (long done = 1; done <= times; ++done) {
    action();
    if (times < 5 || (done != times / 5 && done != times)) continue;
    if (!wait_for_worker_threads(std::chrono::seconds(10))) std::puts("threads stay");
    // The system takes a moment to let go of a thread that has ended.
    for (int tries = 0; tries < 100 && entries_in("/proc/self/task") > 1; ++tries)
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    long pages = 0;
    std::ifstream("/proc/self/statm") >> pages >> pages;
    std::printf("used %ld %ld %ld\n", entries_in("/proc/self/fd"), entries_in("/proc/self/task"), pages * ::sysconf(_SC_PAGESIZE) / 1024);
  }
}

/// What a request meets while others stop the manager, begin an era or a version, or end together with it; and what a
/// server answers for files that are gone with their version.
bool is_expected(const Error& error) {
  return error.is(error_class::StateError) || error.is(error_class::SyncError) || error.is(error_class::AttributeError) ||
         error.text().find("File not in manifest") != std::string::npos;
}

void act(const Manager& manager, std::minstd_rand& draw) {
  const std::string feature = "features/eu/signal_is/value__open__w005__z0.arrow";
  const auto manifest = manager->get_manifest();
  const Value files = manifest ? manifest->files() : Value();
  const Document* entries = files.if_document();
  const std::string path =
      entries && entries->size() > 0 ? (entries->begin() + static_cast<long>(draw() % entries->size()))->key.str() : feature;
  const std::function<void()> actions[] = {
      [&] { static_cast<void>(manager->sync()); },
      [&] { static_cast<void>(manager->request_for_sync()); },
      [&] {
        static_cast<void>(manager->repair({path, "unknown"}));
      },
      [&] { manager->report_corruption(path); },
      [&] { static_cast<void>(manager->request_feature_files_for_sync({Value("value__open__w005__z0")})); },
      [&] { static_cast<void>(manager->add_active_feature_paths({Text(feature)})); },
      [&] { static_cast<void>(manager->needs_sync() && manager->verify().valid); },
  };
  actions[draw() % std::size(actions)]();
}

/// Two managers on one directory and four threads, until the monotonic clock says END_NS.
void soak(const Run& run) {
  const auto end = std::chrono::steady_clock::time_point(std::chrono::nanoseconds(run.number(0)));
  const Manager second = std::make_shared<SyncManager>(run.options);
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 4; ++thread) {
    threads.emplace_back([&, thread] {
      std::minstd_rand draw(static_cast<unsigned>(run.number(1) * 4 + thread + 1));
      while (std::chrono::steady_clock::now() < end) {
        const Manager manager = thread % 2 == 0 ? run.open() : second;
        manager->acquire();
        try {
          act(manager, draw);
        } catch (const Error& error) {
          if (!is_expected(error)) std::printf("unexpected %s: %s\n", std::string(error.error_class().name()).c_str(), error.what());
        }
        manager->release();
        if (draw() % 8 == 0) manager->stop();
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (const auto& [directory, manager] : SyncManager::_instances()) manager->stop();
  second->stop();
}

// ---- the run --------------------------------------------------------------------------------------------------------

void report(SyncManager& manager) {
  if (const auto manifest = manager.get_manifest()) {
    const Value files = manifest->files();
    std::printf("manifest %s %s %zu\n", to_text(manifest->era_number()).c_str(), to_text(manifest->version()).c_str(),
                files.if_document() ? files.if_document()->size() : 0);
  }
  const VerifyResult found = manager.verify();
  std::fputs(found.valid ? "verified" : "damaged", stdout);
  for (const auto* paths : {&found.corrupted_files, &found.missing_files}) {
    for (const std::string& path : *paths) std::printf(" %s", path.c_str());
  }
  std::puts("");
}

int execute(const std::string& command, const Run& run) {
  try {
    const std::map<std::string, std::function<void(SyncManager&)>> commands = {
        {"open", [](SyncManager&) {}},
        {"pass", [](SyncManager& manager) { static_cast<void>(manager.sync()); }},
        {"follow", follow},
        {"repair", repair},
        {"prefetch", [&](SyncManager& manager) { prefetch(manager, run.arguments.at(0)); }},
        {"live", [&](SyncManager& manager) { live(manager, run.arguments.at(0), Value(run.number(1))); }},
        {"clean", [](SyncManager& manager) { manager.cleanup_old_eras(); }},
        {"passes", [&](SyncManager& manager) { repeat(run.number(0), [&] { static_cast<void>(manager.sync()); }); }},
        {"holds", [&](SyncManager&) { repeat(run.number(0), [&] { run.open()->acquire(), run.open()->release(); }); }},
        {"soak", [&](SyncManager&) { soak(run); }},
    };
    const Manager manager = run.open();
    commands.at(command)(*manager);
    report(*manager);
  } catch (const Error& error) {
    const std::string_view name = error.error_class().name();
    std::printf("%.*s: %s\n", static_cast<int>(name.size()), name.data(), error.what());
    return 1;
  } catch (const std::bad_alloc&) {
    std::puts("MemoryError: std::bad_alloc");
    return 1;
  }
  if (wait_for_worker_threads(std::chrono::seconds(30))) return 0;
  std::puts("threads stay");
  return 2;
}

}  // namespace
}  // namespace brackenfen::sync

int main(int argument_count, char** arguments) {
  using namespace brackenfen::sync;
  if (argument_count < 4) return 2;
  std::set_terminate([] {  // where it happened, for addr2line
    void* frames[64];
    ::backtrace_symbols_fd(frames, ::backtrace(frames, 64), STDERR_FILENO);
    std::abort();
  });
  static WholeLog log;
  set_log_sink(&log);
  const char* token = std::getenv("TORTURE_TOKEN");
  const Run run{{.data_dir = arguments[2],
                 .server_url = arguments[3],
                 .get_token = fixed_token(token == nullptr ? "token" : token),
                 .poll_interval_s = 0.2,
                 .runtime_freshness_guard = nullptr,
                 .seams = Seams::real()},
                {arguments + 4, arguments + argument_count}};
  auto* const allocations = static_cast<std::atomic<long>*>(::dlsym(RTLD_DEFAULT, "torture_allocations"));
  if (allocations != nullptr) *allocations = 0;
  const int code = execute(arguments[1], run);
  if (allocations != nullptr) std::printf("allocated %ld\n", allocations->exchange(LONG_MIN));
  std::fflush(stdout);
  std::_Exit(code);
}
