// How far a long publication is, told on standard error: on a terminal a line that is written over and over, elsewhere a
// plain line now and then.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>

namespace brackenfen::sync::distribution {

/// "1.5 MB"; decimal units.
[[nodiscard]] std::string size_text(std::int64_t bytes);

class Progress {
 public:
  /// `line_seconds` is the time between two lines where there is no terminal; 0 for no word at all.
  Progress(std::size_t files, std::int64_t bytes, double line_seconds);
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;
  /// Leaves an empty line on the terminal.
  ~Progress();

  // Any thread.
  void add_bytes(std::size_t bytes) noexcept { bytes_done_ += static_cast<std::int64_t>(bytes); }
  void add_file() noexcept { ++files_done_; }

 private:
  void run(const std::stop_token& stop);
  [[nodiscard]] std::string line(double seconds) const;

  const std::size_t files_;
  const std::int64_t bytes_;
  const bool on_terminal_;
  const double line_seconds_;
  std::atomic<std::size_t> files_done_{0};
  std::atomic<std::int64_t> bytes_done_{0};
  std::mutex mutex_;
  std::condition_variable_any waker_;
  std::jthread teller_;  // last: it uses all the others
};

}  // namespace brackenfen::sync::distribution
