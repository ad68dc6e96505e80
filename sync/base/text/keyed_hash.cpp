#include "sync/base/text/keyed_hash.hpp"

#include <sys/auxv.h>
#include <sys/random.h>

#include <chrono>

namespace brackenfen::sync::detail {

[[maybe_unused]] static const auto& made_at_load = hash_secret();

HashSecret::HashSecret() noexcept {
  if (::getrandom(words, sizeof words, GRND_NONBLOCK) == sizeof words) return;
  // Where that is forbidden, or the system has only just started: what the kernel gives each process on its way.
  // 16 bytes, which getauxval() tells as a number: NOLINTNEXTLINE(performance-no-int-to-ptr)
  const auto* const given = reinterpret_cast<const char*>(::getauxval(AT_RANDOM));
  const auto now = static_cast<std::uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count());
  words[0] = given == nullptr ? now : word_at<std::uint64_t>(given);
  words[1] = given == nullptr ? reinterpret_cast<std::uintptr_t>(this) : word_at<std::uint64_t>(given + 8);
  words[2] = folded_product(words[0] ^ now, words[1] ^ 0x9E3779B97F4A7C15U);
}

}  // namespace brackenfen::sync::detail
