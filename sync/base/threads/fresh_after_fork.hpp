// Objects of the process that a forked child has anew.
#pragma once

#include <cstddef>
#include <new>

#include "sync/base/threads/fork.hpp"

namespace brackenfen::sync {

/// The process's one T, never destroyed: threads may outlive main(). A forked child has a new one in its place, since what
/// the parent's held is not the child's, and its lock may be held by a thread that the child does not have. T holds no
/// ForkSafeMutex. To be called while the library is loaded, see at_fork_child.
template <typename T>
[[nodiscard]] T& fresh_after_fork() {
  alignas(T) static std::byte place[sizeof(T)];
  static T* const instance = [] {
    auto* made = new (place) T;
    at_fork_child([] { new (place) T; });
    return made;
  }();
  return *instance;
}

}  // namespace brackenfen::sync
