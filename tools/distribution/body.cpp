#include "tools/distribution/body.hpp"

#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>

namespace brackenfen::sync::distribution {

void StopSignal::raise() {
  {
    const std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  raised_.notify_all();
}

void StopSignal::clear() {
  const std::lock_guard lock(mutex_);
  stopping_ = false;
}

bool StopSignal::sleep(double seconds) {
  std::unique_lock lock(mutex_);
  return !raised_.wait_for(lock, std::chrono::duration<double>(seconds), [this] { return stopping_; });
}

void reset_connection(int socket, StopSignal& stop) {
  // A reset throws away what is still on its way, so it waits until the peer has everything, up to a second.
  for (int tries = 0; tries < 200; ++tries) {
    int unsent = 0;
    if (::ioctl(socket, SIOCOUTQ, &unsent) != 0 || unsent == 0 || !stop.sleep(0.005)) break;
  }
  sockaddr nowhere{};
  nowhere.sa_family = AF_UNSPEC;
  static_cast<void>(::connect(socket, &nowhere, sizeof nowhere));  // on Linux this resets an established connection
}

ssize_t BentBody::read(std::int64_t position, char* buffer, std::size_t size) {
  std::int64_t wanted = std::min<std::int64_t>(range_.length - position, static_cast<std::int64_t>(size));
  if (fault_->drop_after_bytes) {
    if (position >= *fault_->drop_after_bytes) {
      if (fault_->reset) reset_connection(socket_, stop_);
      return -1;
    }
    wanted = std::min(wanted, *fault_->drop_after_bytes - position);
  }
  if (fault_->drip_bytes_per_second) {
    const std::int64_t rate = *fault_->drip_bytes_per_second;
    wanted = std::min(wanted, std::max<std::int64_t>(1, rate / 20));
    if (!stop_.sleep(static_cast<double>(wanted) / static_cast<double>(rate))) return -1;
  }
  ssize_t got = -1;
  do {
    got = ::pread(file_.get(), buffer, static_cast<std::size_t>(wanted), range_.first + position);
  } while (got < 0 && errno == EINTR);
  if (got <= 0) return -1;  // the file has shrunk under us
  if (fault_->wrong_bytes) std::transform(buffer, buffer + got, buffer, [](char byte) { return static_cast<char>(~byte); });
  return got;
}

}  // namespace brackenfen::sync::distribution
