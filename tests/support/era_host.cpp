// What a host does when it starts, in one short run: opens a directory and follows the server to its era.
//
//   era_host DIRECTORY URL ERA
//
// Prints "kill", "restart" and "verified" as they happen, or "damaged PATH..."; exit code 1 for an error.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "sync/engine/sync_manager.hpp"

int main(int argument_count, char** arguments) {
  using namespace brackenfen::sync;
  if (argument_count != 4) return 2;
  const Value era = Value::integer_from_decimal(arguments[3]);
  try {
    const auto manager = SyncManager::get_or_create({.data_dir = arguments[1],
                                                     .server_url = arguments[2],
                                                     .get_token = fixed_token("token"),
                                                     .poll_interval_s = 5.0,
                                                     .runtime_freshness_guard = nullptr,
                                                     .seams = Seams::real()});
    const auto manifest = manager->get_manifest();
    if (manifest && manifest->era_number() != era) {
      manager->trigger_era_transition(
          era, [] { std::puts("kill"); }, [] { std::puts("restart"); });
    } else {
      static_cast<void>(manager->sync());
    }
    const VerifyResult found = manager->verify();
    if (!found.valid) {
      std::fputs("damaged", stdout);
      for (const auto* paths : {&found.corrupted_files, &found.missing_files}) {
        for (const std::string& path : *paths) std::printf(" %s", path.c_str());
      }
    }
    std::puts(found.valid ? "verified" : "");
  } catch (const Error& error) {
    std::fprintf(stderr, "%s: %s\n", std::string(error.error_class().name()).c_str(), error.what());
    return 1;
  }
  std::fflush(stdout);
  std::_Exit(0);  // a clean-up of old eras may still run, and no destructor waits for it
}
