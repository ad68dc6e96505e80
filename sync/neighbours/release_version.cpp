#include "sync/neighbours/release_version.hpp"

#include <compare>
#include <cstddef>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "sync/base/error.hpp"
#include "sync/base/text/text.hpp"
#include "sync/base/values/convert.hpp"

namespace brackenfen::sync {
namespace {

/// A number of any size, without leading zeros.
struct Number {
  std::string digits;

  bool operator==(const Number&) const = default;
  std::strong_ordering operator<=>(const Number& other) const {
    if (const auto order = digits.size() <=> other.digits.size(); order != 0) return order;
    return digits.compare(other.digits) <=> 0;
  }
};

/// Where a version stands beside its release: each part orders before the next one is looked at.
enum class Phase { Development, Alpha, Beta, Candidate, Release };

struct Version {
  Number epoch;
  std::vector<Number> release;  ///< without zeros at the end
  Phase phase = Phase::Release;
  Number phase_number;
  bool is_post = false;
  Number post;
  bool is_final = true;  ///< no ".dev": above all its development releases
  Number development;

  auto operator<=>(const Version&) const = default;
};

bool is_digit(char character) { return character >= '0' && character <= '9'; }

/// Reads "[v][N!]N(.N)*[{a|b|rc}N][.postN][.devN][+local]" with the other spellings that PEP 440 allows.
class Reader {
 public:
  explicit Reader(std::string_view text) : given_(text), lower_(ascii_lower(strip(text))), left_(lower_) {}

  Version run() {
    Version version;
    take("v");
    read_release(version);
    read_phase(version);
    read_post(version);
    if (take_word({"dev"})) {
      version.is_final = false;
      version.development = implicit_number();
      if (version.phase == Phase::Release && !version.is_post) version.phase = Phase::Development;
    }
    skip_local();
    if (!left_.empty()) refuse();
    return version;
  }

 private:
  [[noreturn]] void refuse() const { throw ValueError("Invalid version: " + to_quoted(given_)); }

  bool take(std::string_view word) {
    if (!left_.starts_with(word)) return false;
    left_.remove_prefix(word.size());
    return true;
  }

  /// One of the words, with or without one separator before and after it.
  bool take_word(std::initializer_list<std::string_view> words) {
    const std::string_view before = left_;
    take_separator();
    for (const std::string_view word : words) {
      if (!take(word)) continue;
      const std::string_view after = left_;
      take_separator();
      if (left_.empty() || !is_digit(left_.front())) left_ = after;
      return true;
    }
    left_ = before;
    return false;
  }
  void take_separator() {
    if (!left_.empty() && (left_.front() == '.' || left_.front() == '-' || left_.front() == '_')) left_.remove_prefix(1);
  }

  std::optional<Number> number() {
    std::size_t size = 0;
    while (size < left_.size() && is_digit(left_[size])) ++size;
    if (size == 0) return std::nullopt;
    std::string_view digits = left_.substr(0, size);
    left_.remove_prefix(size);
    digits.remove_prefix(std::min(digits.find_first_not_of('0'), digits.size()));
    return Number{std::string(digits)};
  }
  Number required_number() {
    std::optional<Number> found = number();
    if (!found) refuse();
    return *std::move(found);
  }
  Number implicit_number() { return number().value_or(Number{}); }

  void read_release(Version& version) {
    version.release.push_back(required_number());
    if (take("!")) {
      version.epoch = std::move(version.release.back());
      version.release.back() = required_number();
    }
    while (left_.size() > 1 && left_.front() == '.' && is_digit(left_[1])) {
      left_.remove_prefix(1);
      version.release.push_back(required_number());
    }
    while (!version.release.empty() && version.release.back().digits.empty()) version.release.pop_back();
  }

  void read_phase(Version& version) {
    if (take_word({"alpha", "a"})) {
      version.phase = Phase::Alpha;
    } else if (take_word({"beta", "b"})) {
      version.phase = Phase::Beta;
    } else if (take_word({"rc", "c", "preview", "pre"})) {
      version.phase = Phase::Candidate;
    } else {
      return;
    }
    version.phase_number = implicit_number();
  }

  void read_post(Version& version) {
    if (left_.size() > 1 && left_.front() == '-' && is_digit(left_[1])) {
      left_.remove_prefix(1);
    } else if (!take_word({"post", "rev", "r"})) {
      return;
    }
    version.is_post = true;
    version.post = implicit_number();
  }

  void skip_local() {
    if (!take("+")) return;
    bool in_segment = false;
    for (; !left_.empty(); left_.remove_prefix(1)) {
      const char character = left_.front();
      const bool letter = is_digit(character) || (character >= 'a' && character <= 'z');
      if (!letter && (!in_segment || (character != '.' && character != '-' && character != '_'))) refuse();
      in_segment = letter;
    }
    if (!in_segment) refuse();
  }

  const std::string_view given_;
  const std::string lower_;
  std::string_view left_;
};

}  // namespace

int compare_release_versions(std::string_view left, std::string_view right) {
  const auto order = Reader(left).run() <=> Reader(right).run();
  return order < 0 ? -1 : order > 0 ? 1 : 0;
}

}  // namespace brackenfen::sync
