#include "sync/base/files/sha256.hpp"

#include <openssl/evp.h>

#include <array>

#include "sync/base/error.hpp"

namespace brackenfen::sync {
namespace {

void require(int success) {
  // What takes it away is a configuration whose providers cannot be loaded.
  if (success != 1) throw RuntimeError("OpenSSL has no SHA-256 here: look at its configuration (OPENSSL_CONF)");
}

/// Looked up once for the process and never freed: a look-up costs more than a small digest.
const EVP_MD* algorithm() {
  static const EVP_MD* const fetched = EVP_MD_fetch(nullptr, "SHA256", nullptr);
  require(fetched != nullptr ? 1 : 0);
  return fetched;
}

}  // namespace

struct Sha256::State {
  EVP_MD_CTX* context = EVP_MD_CTX_new();
  bool is_at_start = false;  ///< then a reset, which costs as much as hashing a few hundred bytes, changes nothing

  State() { require(context != nullptr ? 1 : 0); }
  State(const State&) = delete;
  State& operator=(const State&) = delete;
  ~State() { EVP_MD_CTX_free(context); }

  /// The thread's last one that went out of use, for its next digest: making one costs as much as hashing a small file.
  static std::unique_ptr<State>& spare() {
    thread_local std::unique_ptr<State> state;
    return state;
  }
};

Sha256::Sha256() : state_(std::move(State::spare())) {
  if (!state_) state_ = std::make_unique<State>();
  reset();
}
Sha256::Sha256(Sha256&&) noexcept = default;
Sha256& Sha256::operator=(Sha256&&) noexcept = default;
Sha256::~Sha256() {
  if (state_) State::spare() = std::move(state_);
}

void Sha256::reset() {
  if (state_->is_at_start) return;
  require(EVP_DigestInit_ex(state_->context, algorithm(), nullptr));
  state_->is_at_start = true;
}

void Sha256::update(std::string_view bytes) {
  state_->is_at_start = false;
  require(EVP_DigestUpdate(state_->context, bytes.data(), bytes.size()));
}

void Sha256::assign(const Sha256& other) {
  state_->is_at_start = false;
  require(EVP_MD_CTX_copy_ex(state_->context, other.state_->context));
}

std::string Sha256::hex_digest() {
  constexpr char DIGITS[] = "0123456789abcdef";
  std::array<unsigned char, 32> digest{};
  state_->is_at_start = false;
  require(EVP_DigestFinal_ex(state_->context, digest.data(), nullptr));
  std::string text;
  text.reserve(2 * digest.size());
  for (const unsigned char byte : digest) {
    text += DIGITS[byte >> 4U];
    text += DIGITS[byte & 0xFU];
  }
  return text;
}

std::string _sha256(std::string_view data) {
  Sha256 digest;
  digest.update(data);
  return digest.hex_digest();
}

}  // namespace brackenfen::sync
