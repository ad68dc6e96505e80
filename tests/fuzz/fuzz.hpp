// What the fuzz targets share. Each target states properties; whatever is neither an Error of ours nor a
// property that holds ends the process, and libFuzzer keeps the input.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string_view>

#include "sync/base/error.hpp"
#include "sync/base/log.hpp"
#include "sync/neighbours/neighbours.hpp"
#include "tests/support/temporary_directory.hpp"

namespace brackenfen::sync::fuzz {

inline void require(bool holds, const char* property) {
  if (holds) return;
  std::fprintf(stderr, "does not hold: %s\n", property);
  std::abort();
}

/// The texts of an input, one after the other: each ends with a line feed, the last one with the input.
class Input {
 public:
  Input(const std::uint8_t* data, std::size_t size) : text_(reinterpret_cast<const char*>(data), size) {}

  [[nodiscard]] bool empty() const noexcept { return text_.empty(); }
  [[nodiscard]] std::string_view rest() const noexcept { return text_; }
  std::string_view line() {
    const std::string_view taken = text_.substr(0, text_.find('\n'));
    text_.remove_prefix(std::min(taken.size() + 1, text_.size()));
    return taken;
  }

 private:
  std::string_view text_;
};

/// What a server is trusted with. It must show nowhere: not even where a server gives it back.
inline constexpr const char* TOKEN = "token-7f3a-Zq";

/// An error that an operation may end with.
template <typename... Classes>
void require_promised(const Error& error, const Classes&... classes) {
  const bool promised = (error.is(classes) || ...);
  if (!promised) std::fprintf(stderr, "%s: %s\n", error.error_class().name().data(), error.what());
  require(promised, "the refusal is of a promised class");
}

/// The result of `operation` (true where it gives none), or absent where it refuses with an error of one of the given classes.
template <typename Operation, typename... Classes>
auto unless_refused(const Operation& operation, const Classes&... classes) {
  constexpr bool GIVES_NONE = std::is_void_v<decltype(operation())>;
  using Result = std::conditional_t<GIVES_NONE, std::type_identity<bool>, std::type_identity<decltype(operation())>>;
  try {
    if constexpr (GIVES_NONE)
      return operation(), std::optional(true);
    else
      return std::optional<typename Result::type>(operation());
  } catch (const Error& error) {
    require_promised(error, classes...);
    return std::optional<typename Result::type>();
  }
}

/// One per process, in TMPDIR.
inline const TemporaryDirectory& directory() {
  static const TemporaryDirectory made;
  return made;
}

inline NeighbourSet& neighbours() {
  static const auto& bound = *new auto(Neighbours::builtin().bind());
  return *bound;
}

/// Everything is logged, to nobody.
struct CheckingLog final : LogSink {
  bool enabled(LogLevel) override { return true; }
  void write(const LogRecord& record) override {
    const bool shows = format_message(record).find(TOKEN) != std::string::npos;
    require(!shows || !token_is_told, "no token shows in the log");
  }
  bool token_is_told = false;  ///< by a request: until then it is a text as any other
};
inline CheckingLog& LOG = []() -> CheckingLog& {
  static auto& log = *new CheckingLog;
  set_log_sink(&log);
  return log;
}();

}  // namespace brackenfen::sync::fuzz

// Of targets alone, each of which is a program.
using namespace brackenfen::sync;        // NOLINT(google-global-names-in-headers)
using namespace brackenfen::sync::fuzz;  // NOLINT(google-global-names-in-headers)

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
