#include "sync/engine/missing_found_pnl.hpp"

#include <utility>

namespace brackenfen::sync {

void MissingFoundPnl::begin(const Value& era, const Value& version) {
  MutexLock lock(mutex_);
  if (version_ != version || (era_ && *era_ != era)) paths_.clear();
  era_ = era;
  version_ = version;
}

bool MissingFoundPnl::add(const std::string& path) {
  MutexLock lock(mutex_);
  return paths_.insert(path).second;
}

std::set<std::string> MissingFoundPnl::paths() const {
  MutexLock lock(mutex_);
  return paths_;
}

Value MissingFoundPnl::version() const {
  MutexLock lock(mutex_);
  return version_;
}

void MissingFoundPnl::set_paths(std::set<std::string> paths) {
  MutexLock lock(mutex_);
  std::swap(paths_, paths);
}

void MissingFoundPnl::set_version(Value version) {
  MutexLock lock(mutex_);
  std::swap(version_, version);
  era_.reset();
}

}  // namespace brackenfen::sync
