// The body of an answer that a fault bends: cut, slowed down or falsified on its way out.
#pragma once

#include <sys/types.h>

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>

#include "sync/base/files/descriptor.hpp"
#include "tools/distribution/faults.hpp"
#include "tools/distribution/range.hpp"

namespace brackenfen::sync::distribution {

/// Ends every deliberate wait at once when the server stops. Any thread.
class StopSignal {
 public:
  void raise();
  void clear();
  /// False where the wait was cut short.
  bool sleep(double seconds);

 private:
  std::mutex mutex_;
  std::condition_variable raised_;
  bool stopping_ = false;
};

/// Ends the connection with a reset, once what was sent so far has been received.
void reset_connection(int socket, StopSignal& stop);

/// One answer; used by the one thread of its connection.
class BentBody {
 public:
  BentBody(Descriptor file, ByteRange range, std::shared_ptr<const Fault> fault, int socket, StopSignal& stop)
      : file_(std::move(file)), range_(range), fault_(std::move(fault)), socket_(socket), stop_(stop) {}

  /// Fills `buffer` from `position` of the body on; -1 where the connection is to end here.
  [[nodiscard]] ssize_t read(std::int64_t position, char* buffer, std::size_t size);

 private:
  Descriptor file_;
  ByteRange range_;
  std::shared_ptr<const Fault> fault_;
  int socket_;
  StopSignal& stop_;
};

}  // namespace brackenfen::sync::distribution
