// Ctrl-C and the like, where something has to be tidied up first.
#pragma once

#include <csignal>
#include <utility>
#include <vector>

namespace brackenfen::sync::distribution {

enum class Stage : char { Unpublished, Published };

/// Thrown by stop_point(). Travels like an error but is none, so that no handler of errors swallows it; main() ends the
/// process by the signal once everything is tidied up.
struct Stopped {
  int signal;
  Stage stage;
};

/// While it lives, the first SIGINT, SIGTERM or SIGHUP only makes stop_point() throw; the second ends the process at once.
/// One at a time, on the main thread.
class StopSignals {
 public:
  StopSignals();
  StopSignals(const StopSignals&) = delete;
  StopSignals& operator=(const StopSignals&) = delete;
  ~StopSignals();

 private:
  std::vector<std::pair<int, struct sigaction>> before_;
};

/// Any thread. Throws Stopped where a signal has come. To be asked often during long work, and once more when it is done, for
/// one that came too late to stop it.
void stop_point(Stage stage = Stage::Unpublished);

}  // namespace brackenfen::sync::distribution
