// A manager of the engine's own, with a clock that waits for nobody.
#pragma once

#include "sync/engine/sync_manager.hpp"
#include "sync/transport/event_counts.hpp"
#include "tests/fuzz/fuzz.hpp"
#include "tests/support/fake_clock.hpp"
#include "tests/support/fake_environment.hpp"

namespace brackenfen::sync::fuzz {

inline FakeClock CLOCK;
inline FakeEnvironment ENVIRONMENT({{"SSL_CERT_FILE", "/dev/null"},  // to read the authorities takes longer than all else
                                    {"BRACKENFEN_SYNC_MAX_CONCURRENCY", "1"},
                                    {"BRACKENFEN_SYNC_HTTP_CHUNK_BYTES", "64"},
                                    {"BRACKENFEN_SYNC_HTTP_REUSE_CONNECTIONS", "1"}});

[[nodiscard]] inline std::shared_ptr<SyncManager> open_manager(const std::string& data_dir,
                                                               const std::string& server_url = "https://server.example",
                                                               HttpClient& client = HttpClient::real()) {
  event_counts().clear();
  SyncManager::Options options;
  options.data_dir = data_dir;
  options.server_url = server_url;
  options.get_token = fixed_token(TOKEN);
  options.seams = {&client, &CLOCK, &Files::real(), &ENVIRONMENT, &Neighbours::builtin()};
  return std::make_shared<SyncManager>(std::move(options));
}

/// Runs an operation that may wait until `stop_requested`. False where it ends in an error: that shows no token, and is of one
/// of the classes or of those that any request may end with.
template <typename Operation, typename... Classes>
bool ends_well(const Operation& operation, const std::function<bool()>& stop_requested, const Classes&... classes) {
  const auto scope = SyncBackoff::builtin().enter_context({{}, {}, stop_requested, {}});
  LOG.token_is_told = true;
  try {
    static_cast<void>(operation());
    return true;
  } catch (const Error& error) {
    require_promised(error, classes..., error_class::SyncUnavailableError, error_class::SyncBackoffCancelled);
    require(error.text().find(TOKEN) == std::string::npos && error.text().size() < 32768, "an error is short, and shows no token");
    return false;
  }
}

}  // namespace brackenfen::sync::fuzz
