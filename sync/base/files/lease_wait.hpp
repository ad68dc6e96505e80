// Opening a file on which another process, as a file server does, has a lease.
#pragma once

#include <cerrno>
#include <string>

#include "sync/base/error.hpp"
#include "sync/base/files/descriptor.hpp"

namespace brackenfen::sync {

/// An open that does not block fails with EWOULDBLOCK then, and has the system ask for the lease. After 45 seconds, unless
/// it was told another time, the system takes it.
class LeaseWait {
 public:
  /// After an open that failed for `reason`: waits a moment and is true where another try is due. Throws Interrupted.
  [[nodiscard]] bool worth_another_try(int reason);

 private:
  int pauses_ = 0;
};

/// What `call` opens, which gives a descriptor's number, or -1 and a reason in errno; asked again after a signal and while
/// there is a lease. Throws Interrupted, os_error that names `path`, and ValueError for one with a NUL in it.
template <typename Call>
[[nodiscard]] Descriptor open_patiently(const std::string& path, const Call& call) {
  // The system would stop reading at the NUL and open another file.
  if (path.find('\0') != std::string::npos) throw ValueError("embedded null byte");
  LeaseWait lease;
  for (;;) {
    const int number = call();
    if (number >= 0) return Descriptor(number);
    const int reason = errno;
    if (reason != EINTR && !lease.worth_another_try(reason)) throw os_error(reason, path);
  }
}

}  // namespace brackenfen::sync
