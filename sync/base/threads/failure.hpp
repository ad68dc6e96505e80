// What becomes of a failure where nobody is left to throw it to: at the top of a thread, and in a destructor.
//
// Not only errors of the library end up there. Memory can run out anywhere, and neither that nor anything else of the
// standard library's may end the process.
#pragma once

#include <exception>
#include <string_view>

#include "sync/base/error.hpp"
#include "sync/base/threads/interrupt.hpp"

namespace brackenfen::sync {

/// `failure` as an error of the library: itself, MemoryError for a lack of memory, RuntimeError for what else there is.
/// Needs no memory for the first two.
[[nodiscard]] Error error_of(const std::exception& failure);

/// What a line of the log says of an error: its text, or the name of its class where it has none. As long-lived as the error.
[[nodiscard]] std::string_view told(const Error& error) noexcept;

/// Logs `failure` as a warning, with what is told of it in the place of the format's %s. Where logging fails too, that is thrown on
/// a thread of the host, and dropped on one of the library's own. Throws Interrupted.
void log_failure(const char* format, const std::exception& failure);

/// Runs `work`, and does the above with what fails in it.
template <typename Work>
void warn_of_failure(const char* format, const Work& work) {
  try {
    work();
  } catch (const std::exception& failure) {
    log_failure(format, failure);
  }
}

/// For steps that are all to be taken, whatever becomes of those before: the first failure leaves when all are done.
class FirstFailure {
 public:
  template <typename Step>
  void run(const Step& step) {
    try {
      step();
    } catch (...) {  // an interrupt too
      if (!failure_) failure_ = std::current_exception();
    }
  }
  void rethrow() const {
    if (failure_) std::rethrow_exception(failure_);
  }

 private:
  std::exception_ptr failure_;
};

/// Runs `work` on the way out of a scope: what it throws is dropped, since something else is on its way already.
template <typename Work>
void drop_failure(const Work& work) {
  try {
    work();
  } catch (const std::exception&) {
  } catch (const Interrupted&) {
  }
}

}  // namespace brackenfen::sync
