#include "sync/transport/own_process.hpp"

#include "sync/base/error.hpp"
#include "sync/base/threads/fork.hpp"

namespace brackenfen::sync {

OwnProcess::OwnProcess(const Seams& given)
    : generation_(fork_generation()),
      given_(given),
      files_(*this, *given.files),
      client_(*this, *given.http),
      seams_{&client_, given.clock, &files_, given.environment, given.neighbours} {}

bool OwnProcess::is_here() const noexcept { return generation_ == fork_generation(); }

void OwnProcess::require() const {
  if (is_here()) return;
  // The directory is not named: the lock of that field may be held by a thread that this process does not have.
  throw StateError("this SyncManager was created before fork(): build one in this process with SyncManager.get_or_create");
}

void OwnProcess::GuardedFiles::rename(const Place& from, const Place& to) {
  process_.require();
  files_.rename(from, to);
}

void OwnProcess::GuardedFiles::unlink(const Place& place) {
  process_.require();
  files_.unlink(place);
}

void OwnProcess::GuardedFiles::write_new(const Place& place, std::string_view data) {
  process_.require();
  files_.write_new(place, data);
}

void OwnProcess::GuardedFiles::set_mtime(const std::string& path, std::int64_t mtime_ns) {
  process_.require();
  files_.set_mtime(path, mtime_ns);
}

std::unique_ptr<HttpResponse> OwnProcess::GuardedClient::open(const HttpRequest& request, double timeout_seconds,
                                                              const TransportSecurity& may_follow) {
  process_.require();
  return client_.open(request, timeout_seconds, may_follow);
}

}  // namespace brackenfen::sync
