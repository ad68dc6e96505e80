// The real file operations, of which chosen calls fail.
#pragma once

#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "sync/transport/files.hpp"

namespace brackenfen::sync {

class FaultFiles final : public Files {
 public:
  enum class Call { Rename, Unlink, WriteNew, Stat, FreeBytes };

  /// The call number `first` of this kind, counted from 1, fails with `error_number`; with `sticky` all later ones too.
  void fail(Call call, int first, int error_number, bool sticky = false);
  /// What free_bytes answers instead of asking the volume.
  void set_free_bytes(std::int64_t bytes);
  /// Paths of the calls of one kind so far, in order; of a rename the target.
  [[nodiscard]] std::vector<std::string> calls(Call call) const;

  void rename(const std::string& from, const std::string& to) override;
  void unlink(const std::string& path) override;
  /// A failing call leaves half of the data behind, as a full disk does.
  void write_new(const std::string& path, std::string_view data) override;
  [[nodiscard]] std::optional<FileStat> stat(const std::string& path) override;
  [[nodiscard]] std::int64_t free_bytes(const std::string& directory) override;

 private:
  struct Fault {
    int first;
    int error_number;
    bool sticky;
  };
  /// Counts the call; the errno it shall fail with, or 0.
  int count(Call call, const std::string& path);
  /// Counts the call and throws where it shall fail.
  void enter(Call call, const std::string& path);

  mutable std::mutex mutex_;
  std::map<Call, Fault> faults_;
  std::map<Call, std::vector<std::string>> calls_;
  std::optional<std::int64_t> free_bytes_;
};

}  // namespace brackenfen::sync
