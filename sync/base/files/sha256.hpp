// SHA-256. The one place that knows the digest library.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

namespace brackenfen::sync {

/// A running digest. Reusable: reset() starts over without a new allocation. One thread at a time. Throws
/// RuntimeError where the digest library fails.
class Sha256 {
 public:
  Sha256();
  Sha256(Sha256&&) noexcept;
  Sha256& operator=(Sha256&&) noexcept;
  ~Sha256();

  void reset();
  void update(std::string_view bytes);
  void update(const void* bytes, std::size_t size) { update(std::string_view(static_cast<const char*>(bytes), size)); }
  /// Takes over the state of `other`, to which this digest can thus go back.
  void assign(const Sha256& other);
  /// Lower-case hexadecimal, 64 characters. The digest must be reset before it is used again.
  [[nodiscard]] std::string hex_digest();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

/// Lower-case hexadecimal digest of `data`.
[[nodiscard]] std::string _sha256(std::string_view data);

}  // namespace brackenfen::sync
