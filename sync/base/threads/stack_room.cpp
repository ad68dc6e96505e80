#include "sync/base/threads/stack_room.hpp"

#include <pthread.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>

namespace brackenfen::sync {
namespace {

/// What must be left for the calls that are no recursion: those of the interpreter above all.
constexpr std::size_t RESERVE_BYTES = 48 * 1024;

/// Where a frame has no room below it any more: from the stack's lowest byte up to the end.
struct Shortage {
  std::uintptr_t begin = 0;
  std::uintptr_t end = 0;
};

Shortage shortage_of_thread() noexcept {
  pthread_attr_t attributes;
  if (::pthread_getattr_np(::pthread_self(), &attributes) != 0) return {};
  void* lowest = nullptr;
  std::size_t size = 0;
  const bool known = ::pthread_attr_getstack(&attributes, &lowest, &size) == 0;
  ::pthread_attr_destroy(&attributes);
  if (!known) return {};
  const auto begin = reinterpret_cast<std::uintptr_t>(lowest);
  return {begin, begin + std::min(RESERVE_BYTES, size / 4)};
}

}  // namespace

bool has_stack_room() noexcept {
  static thread_local const Shortage shortage = shortage_of_thread();
  const auto here = reinterpret_cast<std::uintptr_t>(__builtin_frame_address(0));
  return here < shortage.begin || here >= shortage.end;
}

}  // namespace brackenfen::sync
