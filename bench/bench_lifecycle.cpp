// Starting and stopping the background work of a manager with nothing in flight, and an idle round of its poll thread.
// Limits: acquire and release 50 ms each. The rest is for looking at.
#include <ctime>

#include <thread>

#include "bench/dataset.hpp"
#include "bench/memory_server.hpp"
#include "sync/engine/sync_manager.hpp"

using namespace brackenfen::sync;

namespace {

double thread_cpu_seconds() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

template <typename Work>
double milliseconds(const Work& work) {
  const auto began = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - began).count();
}

}  // namespace

int main(int argc, char** argv) {
  constexpr int FILES = 100000;
  const std::string directory = join_path(argc > 1 ? argv[1] : ".", "pass");
  make_directories(directory);
  bench::make_files(directory, FILES);
  const Document manifest = bench::make_manifest(FILES, 1);
  bench::MemoryServer server;
  server.publish(manifest);
  const auto manager = server.manager_of(directory);
  manager->_manifest.set(std::make_shared<Manifest>(*Neighbours::builtin().bind(), Value(manifest)));
  static_cast<void>(manager->needs_sync());  // fills the hash cache

  // The poll thread's first round would be in flight: a transition keeps it idle, and is over before the release.
  double acquire_ms = 0;
  double release_ms = 0;
  for (int round = 0; round < 50; ++round) {
    manager->_in_transition = true;
    acquire_ms = std::max(acquire_ms, milliseconds([&] { manager->acquire(); }));
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
    manager->_in_transition = false;
    release_ms = std::max(release_ms, milliseconds([&] { manager->release(); }));
  }
  double needs_ms = 1e9;
  double poll_ms = 1e9;
  double cpu_ms = 1e9;
  for (int round = 0; round < 7; ++round) {
    needs_ms = std::min(needs_ms, milliseconds([&] { static_cast<void>(manager->needs_sync()); }));
    const double before = thread_cpu_seconds();
    poll_ms = std::min(poll_ms, milliseconds([&] { manager->_poll_once(); }));
    cpu_ms = std::min(cpu_ms, (thread_cpu_seconds() - before) * 1e3);
  }
  std::printf(R"({"acquire_ms": %.2f, "release_ms": %.2f, "needs_sync_ms": %.2f, "poll_ms": %.2f, "poll_cpu_ms": %.2f})"
              "\n",
              acquire_ms, release_ms, needs_ms, poll_ms, cpu_ms);
}
