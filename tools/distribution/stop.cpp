#include "tools/distribution/stop.hpp"

#include <atomic>

namespace brackenfen::sync::distribution {
namespace {

std::atomic<int> received{0};
static_assert(std::atomic<int>::is_always_lock_free, "it is written by a signal handler");

}  // namespace

StopSignals::StopSignals() {
  received = 0;
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    struct sigaction action {};
    struct sigaction before {};
    action.sa_handler = [](int number) { received = number; };
    action.sa_flags = SA_RESTART | static_cast<int>(SA_RESETHAND);
    // Who ignores a signal, as under nohup, goes on doing so.
    if (::sigaction(signal, nullptr, &before) != 0 || before.sa_handler == SIG_IGN) continue;
    if (::sigaction(signal, &action, nullptr) == 0) before_.emplace_back(signal, before);
  }
}

StopSignals::~StopSignals() {
  for (const auto& [signal, before] : before_) ::sigaction(signal, &before, nullptr);
}

void stop_point(Stage stage) {
  if (const int signal = received) throw Stopped{signal, stage};
}

}  // namespace brackenfen::sync::distribution
