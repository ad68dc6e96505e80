// The real file operations, of which chosen calls fail.
#pragma once

#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "sync/base/error.hpp"
#include "sync/transport/files.hpp"

namespace brackenfen::sync {

class FaultFiles final : public Files {
 public:
  enum class Call { Rename, Unlink, WriteNew, Flush };

  /// The `nth` call of this kind from now on, counted from 1, fails with `error_number`.
  void fail(Call call, std::size_t nth, int error_number) {
    const std::lock_guard lock(mutex_);
    faults_[call] = {calls_[call].size() + nth, error_number};
  }
  /// Runs once, before the next call of this kind.
  void before(Call call, std::function<void()> action) {
    const std::lock_guard lock(mutex_);
    actions_[call] = std::move(action);
  }
  /// What free_bytes answers instead of asking the volume.
  void set_free_bytes(std::int64_t bytes) {
    set_free_bytes([bytes] { return bytes; });
  }
  void set_free_bytes(std::function<std::int64_t()> free_bytes) { free_bytes_ = std::move(free_bytes); }
  /// The stat of every file from now on.
  void answer_stat(std::function<std::optional<FileStat>()> answer) { stat_ = std::move(answer); }
  /// Paths of the calls of one kind so far, in order; of a rename the target.
  [[nodiscard]] std::vector<std::string> calls(Call call) {
    const std::lock_guard lock(mutex_);
    return calls_[call];
  }

  void rename(const Place& from, const Place& to) override {
    if (const int error_number = count(Call::Rename, to.path())) throw os_error(error_number, to.path());
    real().rename(from, to);
  }
  void unlink(const Place& place) override {
    if (const int error_number = count(Call::Unlink, place.path())) throw os_error(error_number, place.path());
    real().unlink(place);
  }
  /// A failing call leaves half of the data behind, as a full disk does.
  void write_new(const Place& place, std::string_view data) override {
    const int error_number = count(Call::WriteNew, place.path());
    real().write_new(place, error_number != 0 ? data.substr(0, data.size() / 2) : data);
    if (error_number != 0) throw os_error(error_number, place.path());
  }
  void flush(const Place& place) override {
    if (const int error_number = count(Call::Flush, place.path())) throw os_error(error_number, place.path());
    real().flush(place);
  }
  [[nodiscard]] std::optional<FileStat> stat(const std::string& path) override { return stat_ ? stat_() : real().stat(path); }
  [[nodiscard]] std::int64_t free_bytes(const std::string& directory) override {
    return free_bytes_ ? free_bytes_() : real().free_bytes(directory);
  }
  void set_mtime(const std::string& path, std::int64_t mtime_ns) override { real().set_mtime(path, mtime_ns); }

 private:
  struct Fault {
    std::size_t number;
    int error_number;
  };
  /// Counts the call; the errno it shall fail with, or 0.
  int count(Call call, const std::string& path) {
    std::unique_lock lock(mutex_);
    if (const auto action = std::exchange(actions_[call], nullptr)) {
      lock.unlock();
      action();
      lock.lock();
    }
    calls_[call].push_back(path);
    const auto fault = faults_.find(call);
    return fault != faults_.end() && fault->second.number == calls_[call].size() ? fault->second.error_number : 0;
  }

  std::mutex mutex_;
  std::map<Call, Fault> faults_;
  std::map<Call, std::vector<std::string>> calls_;
  std::map<Call, std::function<void()>> actions_;
  std::function<std::int64_t()> free_bytes_;
  std::function<std::optional<FileStat>()> stat_;
};

}  // namespace brackenfen::sync
