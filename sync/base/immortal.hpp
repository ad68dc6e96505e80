/// Objects for as long as the process lives.
#pragma once

#include <cstddef>
#include <new>

namespace brackenfen::sync {

/// A T that stands where it is made, so that no lack of memory keeps it from being made, and that is never destroyed: threads may
/// outlive main(). For a static in a function that throws nothing.
template <typename T>
class Immortal {
 public:
  Immortal() noexcept(noexcept(T())) : object_(*new (place_) T) {}
  Immortal(const Immortal&) = delete;
  Immortal& operator=(const Immortal&) = delete;

  [[nodiscard]] T& operator*() const noexcept { return object_; }

 private:
  alignas(T) std::byte place_[sizeof(T)];
  T& object_;
};

}  // namespace brackenfen::sync
