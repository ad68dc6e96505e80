// Values that are replaced as a whole and read without the work locks.
#pragma once

#include <memory>
#include <utility>

#include "sync/base/threads/mutex.hpp"

namespace brackenfen::sync {

/// Readers get a handle that stays valid whatever is set later. The old value is destroyed after the lock
/// is free, since it may own objects of the host.
template <typename T>
class Snapshot {
 public:
  [[nodiscard]] std::shared_ptr<T> get() const EXCLUDES(mutex_) {
    MutexLock lock(mutex_);
    return value_;
  }
  void set(std::shared_ptr<T> value) EXCLUDES(mutex_) { (void)exchange(std::move(value)); }
  /// Returns the old value, for a caller that holds a lock under which it must not die.
  [[nodiscard]] std::shared_ptr<T> exchange(std::shared_ptr<T> value) EXCLUDES(mutex_) {
    MutexLock lock(mutex_);
    value_.swap(value);
    return value;
  }

 private:
  mutable Mutex mutex_;
  std::shared_ptr<T> value_ GUARDED_BY(mutex_);
};

/// A plain value under its own leaf lock; readers get a copy.
template <typename T>
class Guarded {
 public:
  Guarded() = default;
  explicit Guarded(T value) : value_(std::move(value)) {}

  [[nodiscard]] T get() const EXCLUDES(mutex_) {
    MutexLock lock(mutex_);
    return value_;
  }
  void set(T value) EXCLUDES(mutex_) {
    MutexLock lock(mutex_);
    std::swap(value_, value);  // the old value goes with the argument, after the lock
  }

 private:
  mutable Mutex mutex_;
  T value_ GUARDED_BY(mutex_){};
};

}  // namespace brackenfen::sync
