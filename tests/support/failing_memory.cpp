#include "tests/support/failing_memory.hpp"

#include <pthread.h>

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

constinit std::atomic<const char*> failing_thread{nullptr};
constinit std::atomic<bool> failed{false};
constinit thread_local int allocations_left = 0;  // until the one that fails; 0 for none
constinit thread_local bool later_ones_fail = false;

bool is_on_failing_thread() {
  const char* const wanted = failing_thread.load();
  char name[16] = {};
  return wanted != nullptr && pthread_getname_np(pthread_self(), name, sizeof name) == 0 && std::string_view(name).starts_with(wanted);
}

bool counts_down_to_failure() {
  if (allocations_left == 0 || --allocations_left > 0) return false;
  if (later_ones_fail) allocations_left = 1;
  return true;
}

}  // namespace

// Both forms: a sanitizer's own would not go with the operator delete below.
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  if (is_on_failing_thread() || counts_down_to_failure()) {
    failed = true;
    return nullptr;
  }
  return std::malloc(size > 0 ? size : 1);
}
void* operator new(std::size_t size) {
  if (void* const block = operator new(size, std::nothrow)) return block;
  throw std::bad_alloc();
}
void operator delete(void* block) noexcept { std::free(block); }
void operator delete(void* block, std::size_t) noexcept { std::free(block); }

namespace brackenfen::sync {

FailingMemory::FailingMemory(const char* thread_name) {
  failed = false;
  failing_thread = thread_name;
}

FailingMemory::FailingMemory(int nth, bool and_later_ones) {
  failed = false;
  later_ones_fail = and_later_ones;
  allocations_left = nth;
}

FailingMemory::~FailingMemory() {
  failing_thread = nullptr;
  allocations_left = 0;
}

bool FailingMemory::has_failed() const { return failed; }

}  // namespace brackenfen::sync
