// Depth of calls against the stack of the running thread, which is the host's to choose.
#pragma once

namespace brackenfen::sync {

/// False where the stack is nearly used up. What calls itself once for each level of a document, of which there may be a
/// thousand, asks before it goes on: a thread may have less than a hundredth of the usual stack. True on a stack that is not
/// the thread's own.
[[nodiscard]] bool has_stack_room() noexcept;

}  // namespace brackenfen::sync
