#include "tools/distribution/progress.hpp"

#include <fmt/core.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <system_error>

#include "sync/base/threads/clock.hpp"

namespace brackenfen::sync::distribution {
namespace {

constexpr double TERMINAL_LINE_SECONDS = 0.2;

bool is_terminal() {
  const char* const kind = std::getenv("TERM");
  return ::isatty(STDERR_FILENO) == 1 && kind != nullptr && std::string_view(kind) != "dumb";
}

/// One more character would begin another line, which no later one overwrites.
std::size_t terminal_columns() {
  winsize size{};
  return ::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 1 ? size.ws_col - 1U : std::string::npos;
}

/// A terminal may have hung up, and a file be full.
void put(std::string_view text) { static_cast<void>(std::fwrite(text.data(), 1, text.size(), stderr)); }

}  // namespace

std::string size_text(std::int64_t bytes) {
  if (bytes < 1000) return fmt::format("{} B", bytes);
  auto number = static_cast<double>(bytes);
  const char* unit = "";
  for (const char* larger : {"kB", "MB", "GB", "TB"}) {
    if (number < 999.95) break;
    number /= 1000;
    unit = larger;
  }
  return fmt::format("{:.1f} {}", number, unit);
}

Progress::Progress(std::size_t files, std::int64_t bytes, double line_seconds)
    : files_(files), bytes_(bytes), on_terminal_(is_terminal()), line_seconds_(on_terminal_ ? TERMINAL_LINE_SECONDS : line_seconds) {
  if (line_seconds <= 0) return;
  try {
    teller_ = std::jthread([this](const std::stop_token& stop) { run(stop); });
  } catch (const std::system_error&) {  // the work goes on untold
  }
}

Progress::~Progress() {
  if (!teller_.joinable()) return;
  teller_.request_stop();
  teller_.join();
  if (on_terminal_) put("\r\x1b[K");
}

void Progress::run(const std::stop_token& stop) {
  const double began = Clock::real().monotonic_seconds();
  std::unique_lock lock(mutex_);
  for (;;) {
    waker_.wait_for(lock, stop, std::chrono::duration<double>(line_seconds_), [] { return false; });
    if (stop.stop_requested()) return;
    const std::string text = line(Clock::real().monotonic_seconds() - began);
    put(on_terminal_ ? "\r" + text.substr(0, terminal_columns()) + "\x1b[K" : text + "\n");
  }
}

std::string Progress::line(double seconds) const {
  const std::int64_t done = std::min(bytes_done_.load(), bytes_);  // a file may grow meanwhile
  const auto rate = static_cast<std::int64_t>(static_cast<double>(done) / std::max(seconds, 1e-3));
  return fmt::format("publishing: {} of {} files, {} of {}, {}/s, {:.0f} s", files_done_.load(), files_, size_text(done), size_text(bytes_),
                     size_text(rate), seconds);
}

}  // namespace brackenfen::sync::distribution
