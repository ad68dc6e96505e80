#include "sync/base/threads/interrupt.hpp"

#include <utility>

namespace brackenfen::sync {
namespace {

constinit std::atomic<InterruptSource*> interrupt_source{nullptr};

// A plain pointer, so that a thread in its last steps can still ask. The scopes own the tokens.
constinit thread_local const InterruptToken* current_token = nullptr;

}  // namespace

InterruptSource* set_interrupt_source(InterruptSource* source) noexcept {
  return interrupt_source.exchange(source, std::memory_order_acq_rel);
}

InterruptScope::InterruptScope(std::shared_ptr<InterruptToken> token) noexcept
    : token_(std::move(token)), previous_(std::exchange(current_token, token_.get())) {}

InterruptScope::~InterruptScope() { current_token = previous_; }

void check_interrupt() {
  if (current_token != nullptr && current_token->tripped()) throw Interrupted{};
  if (InterruptSource* const source = interrupt_source.load(std::memory_order_acquire)) source->check();
}

void report_unclaimed(const Interrupted& interrupted) {
  if (!interrupted.origin) return;
  if (InterruptSource* const source = interrupt_source.load(std::memory_order_acquire)) source->unclaimed(interrupted);
}

}  // namespace brackenfen::sync
