// How a served tree misbehaves on purpose.
//
// A fault is written PATTERN:SETTING[,SETTING...]. The pattern is matched against the request's path as a shell
// matches file names, except that "*" crosses "/". The first fault of the list that applies decides a request.
//
// What happens:   status=CODE         an error answer with a JSON body instead of the real one
//                 error-code=, error=, dependency=, recovery=, reason=TEXT, retryable=true|false
//                                     words of that body; they imply status=503
//                 delay=SECONDS       wait before answering
//                 drop-after=BYTES    end the connection after so many bytes of the body
//                 reset               end it with a reset instead of a close; alone: before any answer
//                 drip=BYTES          send the body at so many bytes per second
//                 wrong-bytes         right size, every byte of the body inverted
//                 no-range            ignore Range and send the whole file with status 200
//                 refuse              close the port itself; only with the pattern "*"
// When:           times=N             only for the first N requests that it would apply to
//                 skip=N              not for the first N
//                 outage=START+DURATION
//                                     only from START seconds after the server's start, for DURATION seconds;
//                                     with nothing else to happen it answers 503
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "sync/base/threads/mutex.hpp"
#include "sync/base/values/value.hpp"

namespace brackenfen::sync::distribution {

struct Outage {
  double start_seconds = 0;
  double duration_seconds = 0;

  [[nodiscard]] bool holds_at(double seconds) const { return seconds >= start_seconds && seconds < start_seconds + duration_seconds; }
};

struct Fault {
  std::string text;  ///< as it was written
  std::string pattern;
  std::optional<unsigned> status;
  Document words;
  double delay_seconds = 0;
  std::optional<std::int64_t> drop_after_bytes;
  bool reset = false;
  std::optional<std::int64_t> drip_bytes_per_second;
  bool wrong_bytes = false;
  bool ignore_range = false;
  bool refuse = false;
  std::optional<std::int64_t> times;
  std::int64_t skip = 0;
  std::optional<Outage> outage;

  [[nodiscard]] bool matches(std::string_view path) const;
  /// Whether the body must pass through our hands instead of going from file to socket in the kernel.
  [[nodiscard]] bool bends_body() const { return drop_after_bytes || drip_bytes_per_second || wrong_bytes; }
};

/// Throws ValueError that quotes the fault and names the setting at fault.
[[nodiscard]] Fault parse_fault(std::string_view text);

/// One fault a line; blank lines and lines that start with "#" are skipped. Throws ValueError with the line number.
[[nodiscard]] std::vector<Fault> parse_fault_lines(std::string_view lines);

/// The faults in force: those given at the start, then those of a file that is read again whenever it changes.
/// Any thread.
class FaultTable {
 public:
  /// `file` may be empty, and need not exist yet. Throws ValueError for a file that is bad already.
  FaultTable(std::vector<Fault> faults, std::string file);

  /// The fault that decides this request, counted as used; nullptr for none. Outages count from construction.
  [[nodiscard]] std::shared_ptr<const Fault> decide(std::string_view path);
  /// Whether no connection is to be accepted now.
  [[nodiscard]] bool port_is_closed();

 private:
  struct Rule {
    std::shared_ptr<const Fault> fault;
    std::int64_t seen = 0;
  };
  struct FileVersion {
    std::int64_t inode = 0, size_bytes = 0, modified_ns = 0;
    bool operator==(const FileVersion&) const = default;
  };

  [[nodiscard]] double elapsed_seconds() const;
  [[nodiscard]] FileVersion file_version() const;
  void refresh() REQUIRES(mutex_);
  void replace_file_rules(std::vector<Fault> faults) REQUIRES(mutex_);

  const std::string file_;
  const std::chrono::steady_clock::time_point started_ = std::chrono::steady_clock::now();
  Mutex mutex_;                               ///< held while the file is read, so that a change takes effect for all requests at once
  std::size_t given_ GUARDED_BY(mutex_) = 0;  ///< how many rules are not the file's; they come first
  std::vector<Rule> rules_ GUARDED_BY(mutex_);
  FileVersion version_ GUARDED_BY(mutex_);
};

}  // namespace brackenfen::sync::distribution
