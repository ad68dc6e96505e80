// The library's own threads: named, counted, and never waited for by a destructor.
#pragma once

#include <chrono>
#include <functional>
#include <string>

namespace brackenfen::sync {

/// Starts a thread that the library may leave behind: it must own, by shared handles, everything it touches.
/// `name` is cut to the 15 bytes that the system keeps. Whatever leaves `body` ends the thread: the host is told of an
/// interrupt that came from a callback, and any std::exception is a warning. Throws os_error where the system has no
/// thread left, and std::bad_alloc; `body` is gone then.
void start_worker_thread(const std::string& name, std::function<void()> body);

/// Whether the running thread was started here.
[[nodiscard]] bool on_worker_thread() noexcept;

/// Waits until no thread started here runs any more; false where some still do after `timeout`. For the end
/// of the process, after a host has made check_interrupt() throw everywhere.
[[nodiscard]] bool wait_for_worker_threads(std::chrono::milliseconds timeout);

}  // namespace brackenfen::sync
