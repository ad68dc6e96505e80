// Work that stays in the process that began it.
//
// A callback of the host may fork in the middle of a pass or a transition. The child then comes back into the work of its
// parent, which goes on as well: under the parent's locks, with its staging files, towards the same commit. So what a
// manager changes on disk or asks of the network goes through seams that refuse it in any other process.
#pragma once

#include <cstdint>

#include "sync/transport/seams.hpp"

namespace brackenfen::sync {

/// The process that this is made in, and what its owner may touch there. Any thread.
class OwnProcess {
 public:
  explicit OwnProcess(const Seams& given);
  OwnProcess(const OwnProcess&) = delete;
  OwnProcess& operator=(const OwnProcess&) = delete;
  ~OwnProcess() = default;

  /// False in a child of fork().
  [[nodiscard]] bool is_here() const noexcept;
  /// Throws StateError in a child of fork().
  void require() const;
  /// The given ones; but renaming, removing and writing files, and opening requests, throw StateError in a child of fork().
  /// They live as long as this object.
  [[nodiscard]] const Seams& seams() const noexcept { return seams_; }
  [[nodiscard]] const Seams& given_seams() const noexcept { return given_; }

 private:
  class GuardedFiles final : public Files {
   public:
    GuardedFiles(const OwnProcess& process, Files& files) : process_(process), files_(files) {}
    void rename(const Place& from, const Place& to) override;
    void unlink(const Place& place) override;
    void write_new(const Place& place, std::string_view data) override;
    void flush(const Place& place) override { files_.flush(place); }
    std::optional<FileStat> stat(const std::string& path) override { return files_.stat(path); }
    std::int64_t free_bytes(const std::string& directory) override { return files_.free_bytes(directory); }
    void set_mtime(const std::string& path, std::int64_t mtime_ns) override;

   private:
    const OwnProcess& process_;
    Files& files_;
  };

  class GuardedClient final : public HttpClient {
   public:
    GuardedClient(const OwnProcess& process, HttpClient& client) : process_(process), client_(client) {}
    std::unique_ptr<HttpResponse> open(const HttpRequest& request, double timeout_seconds, const TransportSecurity& may_follow) override;
    std::unique_ptr<HttpConnections> connections() override { return client_.connections(); }

   private:
    const OwnProcess& process_;
    HttpClient& client_;
  };

  const std::uint64_t generation_;
  const Seams given_;
  GuardedFiles files_;
  GuardedClient client_;
  const Seams seams_;
};

}  // namespace brackenfen::sync
