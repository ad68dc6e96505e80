#include "tests/support/fault_files.hpp"

#include "sync/base/error.hpp"

namespace brackenfen::sync {

void FaultFiles::fail(Call call, int first, int error_number, bool sticky) {
  const std::lock_guard lock(mutex_);
  faults_[call] = {first, error_number, sticky};
}

void FaultFiles::set_free_bytes(std::int64_t bytes) {
  const std::lock_guard lock(mutex_);
  free_bytes_ = bytes;
}

std::vector<std::string> FaultFiles::calls(Call call) const {
  const std::lock_guard lock(mutex_);
  const auto found = calls_.find(call);
  return found == calls_.end() ? std::vector<std::string>() : found->second;
}

int FaultFiles::count(Call call, const std::string& path) {
  const std::lock_guard lock(mutex_);
  std::vector<std::string>& paths = calls_[call];
  paths.push_back(path);
  const auto fault = faults_.find(call);
  if (fault == faults_.end()) return 0;
  const int number = static_cast<int>(paths.size());
  const bool hit = number == fault->second.first || (fault->second.sticky && number > fault->second.first);
  return hit ? fault->second.error_number : 0;
}

void FaultFiles::enter(Call call, const std::string& path) {
  if (const int error_number = count(call, path)) throw os_error(error_number, path);
}

void FaultFiles::rename(const std::string& from, const std::string& to) {
  enter(Call::Rename, to);
  real().rename(from, to);
}

void FaultFiles::unlink(const std::string& path) {
  enter(Call::Unlink, path);
  real().unlink(path);
}

void FaultFiles::write_new(const std::string& path, std::string_view data) {
  const int error_number = count(Call::WriteNew, path);
  real().write_new(path, error_number != 0 ? data.substr(0, data.size() / 2) : data);
  if (error_number != 0) throw os_error(error_number, path);
}

std::optional<FileStat> FaultFiles::stat(const std::string& path) {
  enter(Call::Stat, path);
  return real().stat(path);
}

std::int64_t FaultFiles::free_bytes(const std::string& directory) {
  enter(Call::FreeBytes, directory);
  const std::lock_guard lock(mutex_);
  return free_bytes_ ? *free_bytes_ : real().free_bytes(directory);
}

}  // namespace brackenfen::sync
