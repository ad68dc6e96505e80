// Opening a file on which another process, as a file server does, has a lease.
#pragma once

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

}  // namespace brackenfen::sync
