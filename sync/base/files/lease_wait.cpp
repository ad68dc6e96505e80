#include "sync/base/files/lease_wait.hpp"

#include <cerrno>
#include <chrono>
#include <thread>

#include "sync/base/threads/interrupt.hpp"

namespace brackenfen::sync {
namespace {

constexpr std::chrono::milliseconds PAUSE{10};
constexpr int MOST_PAUSES = 6000;  // a minute: what goes on for longer is no lease

}  // namespace

bool LeaseWait::worth_another_try(int reason) {
  if (reason != EWOULDBLOCK || pauses_++ == MOST_PAUSES) return false;
  std::this_thread::sleep_for(PAUSE);
  check_interrupt();
  return true;
}

}  // namespace brackenfen::sync
