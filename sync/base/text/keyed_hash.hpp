// Hashing texts that others choose. Whoever knows the function of a table can write any number of keys that all belong in one
// place of it, and then each look-up takes as long as there are keys. So this one is another in each process.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

namespace brackenfen::sync {

namespace detail {

/// What nobody outside knows. Made when the library is loaded; the child of a fork keeps it.
struct HashSecret {
  HashSecret() noexcept;
  std::uint64_t words[3];
};
inline const HashSecret& hash_secret() noexcept {
  static const HashSecret secret;
  return secret;
}

/// Both halves of the product of 128 bits, of which each bit of either factor changes about half.
inline std::uint64_t folded_product(std::uint64_t left, std::uint64_t right) noexcept {
  __extension__ using Wide = unsigned __int128;
  const Wide product = static_cast<Wide>(left) * right;
  return static_cast<std::uint64_t>(product) ^ static_cast<std::uint64_t>(product >> 64U);
}

template <typename Word>
std::uint64_t word_at(const char* at) noexcept {
  Word word;
  std::memcpy(&word, at, sizeof word);
  return word;
}

}  // namespace detail

/// Every factor holds a part of the secret, so no block of a text can be chosen to cancel another one. Nothing may be ordered by
/// it or keep it for longer than the process.
[[nodiscard]] inline std::uint64_t hash_of(std::string_view text) noexcept {
  using detail::folded_product;
  using detail::word_at;
  const auto& [first, second, third] = detail::hash_secret().words;
  const char* at = text.data();
  std::size_t rest = text.size();
  std::uint64_t state = first;
  for (; rest > 16; at += 16, rest -= 16) {
    state = folded_product(word_at<std::uint64_t>(at) ^ second, word_at<std::uint64_t>(at + 8) ^ state);
  }
  // What is left, each byte of it once at least.
  std::uint64_t low = 0;
  std::uint64_t high = 0;
  if (rest >= 8) {
    low = word_at<std::uint64_t>(at);
    high = word_at<std::uint64_t>(at + rest - 8);
  } else if (rest >= 4) {
    low = word_at<std::uint32_t>(at);
    high = word_at<std::uint32_t>(at + rest - 4);
  } else {
    for (std::size_t index = 0; index < rest; ++index) low = low << 8U | static_cast<unsigned char>(at[index]);
  }
  state = folded_product(low ^ second, high ^ state);
  return folded_product(state ^ text.size(), third);
}

struct KeyedHash {
  using is_transparent = void;
  std::size_t operator()(std::string_view text) const noexcept { return hash_of(text); }
};
struct KeyedEqual {
  using is_transparent = void;
  bool operator()(std::string_view left, std::string_view right) const noexcept { return left == right; }
};

/// By texts; asked with whatever text is at hand.
template <typename Mapped>
using TextMap = std::unordered_map<std::string, Mapped, KeyedHash, KeyedEqual>;
template <typename Mapped>
using ViewMap = std::unordered_map<std::string_view, Mapped, KeyedHash, KeyedEqual>;
using StringSet = std::unordered_set<std::string, KeyedHash, KeyedEqual>;
using ViewSet = std::unordered_set<std::string_view, KeyedHash, KeyedEqual>;

}  // namespace brackenfen::sync
