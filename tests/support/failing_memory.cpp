#include "tests/support/failing_memory.hpp"

#include <cstdlib>
#include <new>

namespace {

constinit thread_local int allocations_left = 0;  // until the one that fails; 0 for none
constinit thread_local bool failed = false;

}  // namespace

// Both forms: a sanitizer's own would not go with the operator delete below.
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  if (allocations_left > 0 && --allocations_left == 0) {
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

FailingMemory::FailingMemory(int nth) {
  failed = false;
  allocations_left = nth;
}

FailingMemory::~FailingMemory() { allocations_left = 0; }

bool FailingMemory::has_failed() const { return failed; }

}  // namespace brackenfen::sync
