// Numbers, texts, headers and settings are read inside their bounds, and written so that they read back; which values they
// are is compared with plain rules elsewhere. Input: two texts on lines of their own, and a third of what is left.
#include <cmath>

#include "sync/base/text/secrets.hpp"
#include "sync/base/text/text.hpp"
#include "sync/base/values/convert.hpp"
#include "sync/base/values/integer_sum.hpp"
#include "sync/documents/manifest.hpp"
#include "sync/neighbours/release_version.hpp"
#include "sync/transport/header_rules.hpp"
#include "sync/transport/settings.hpp"
#include "tests/fuzz/fuzz.hpp"

namespace {

void check_text(std::string_view text) {
  require(strip(strip(text)) == strip(text), "nothing is left to strip");
  const bool refused = !unless_refused([&] { require_utf8(text); }, error_class::UnicodeDecodeError);
  require(refused == (find_invalid_utf8(text) != std::string_view::npos), "both UTF-8 checks agree");
  for (std::size_t at = 0, taken = 0; at < text.size(); at += taken) {
    taken = code_point_at(text, at).size;
    require(taken > 0 && taken <= text.size() - at, "a character lies inside the text");
  }
  const std::string quoted = to_quoted(text);
  require(quoted.size() >= 2 && quoted.front() == quoted.back(), "a quoted text is enclosed");
  require(refused || find_invalid_utf8(quoted) == std::string::npos, "a quoted text is valid where the text is");
  remember_secret(text);
  remember_secret(TOKEN);
  const std::string masked = mask_secrets(std::string(text) + TOKEN + std::string(text));
  require(masked.size() == 2 * text.size() + std::string_view(TOKEN).size() && masked.find(TOKEN) == std::string::npos,
          "a secret is masked");
}

void check_header(const std::string& text) {
  require(latin1_from_text(text_from_latin1(text)) == text, "bytes survive their text");
  const auto sent = header_value_bytes(text);
  const auto sendable = unless_refused([&] { require_sendable_headers({{"X-Name", text}}); }, error_class::ValueError);
  require(sent.has_value() == sendable.has_value(), "both checks of a header agree");
  require(!sent || sent->find_first_of(std::string_view("\r\n\0", 3)) == std::string::npos, "what is sent stays in its line");
  static_cast<void>(unless_refused([&] { require_sendable_headers({{text, ""}}); }, error_class::ValueError));
  const Headers lengths{{"content-length", text.substr(0, text.find(';'))}, {"Transfer-Encoding", text.substr(text.find(';') + 1)}};
  static_cast<void>(unless_refused([&] { require_unambiguous_length(lengths); }, error_class::URLError));
}

void check_integers(std::string_view left, std::string_view right) {
  const auto a = unless_refused([&] { return to_integer(left); }, error_class::ValueError);
  require(a.has_value() == to_integer_or_absent(left).has_value(), "both conversions agree");
  const auto b = to_integer_or_absent(right);
  if (!a || !b) return;
  const std::string text = to_text(*b);
  const Value sum = add_integers(*a, *b);
  require(to_integer(text) == *b && sum == add_integers(*b, *a), "an integer survives its text, and a sum has no order");
  require(compare_integers(sum, *a) == compare_integers(*b, 0) && compare_integers(*a, *b) == -compare_integers(*b, *a),
          "a sum is in order");
  require(add_integers(sum, to_integer(text.starts_with('-') ? text.substr(1) : "-" + text)) == *a, "what is added can be taken away");
  const auto small = unless_refused([&] { return to_int64(*a); }, error_class::OverflowError);
  require(small == a->if_integer(), "64 bits hold what they can");
  static_cast<void>(unless_refused([&] { return to_real(*a); }, error_class::OverflowError));
}

void check_real(const std::string& text) {
  const auto real = parse_real(text);
  const auto converted = unless_refused([&] { return to_real(text); }, error_class::ValueError);
  require(real.has_value() == converted.has_value(), "both conversions agree");
  if (!real) return;
  const auto again = parse_real(real_text(*real));
  require(again && (*again == *real || std::isnan(*again) == std::isnan(*real)), "a number survives its text");
  const auto whole = unless_refused([&] { return to_integer(*real); }, error_class::ValueError, error_class::OverflowError);
  require(whole.has_value() == std::isfinite(*real) && (!whole || to_real(*whole) == std::trunc(*real)),
          "an integer is the number cut off");
}

void check_versions(std::string_view left, std::string_view right, std::string_view third) {
  const auto order = [](std::string_view x, std::string_view y) {
    const auto compare = [&] { return compare_release_versions(x, y); };
    const int compared = unless_refused(compare, error_class::ValueError).value_or(-9);
    return compared == -9 ? compared : (compared > 0) - (compared < 0);
  };
  const int first = order(left, right), second = order(right, third);
  if (first == -9) return;
  require(order(left, left) == 0 && order(right, left) == -first, "two versions have one order");
  require(first < 0 || second < 0 || order(left, third) == std::max(first, second), "three versions have one order");
}

void check_settings(std::string_view text) {
  struct SameEverywhere final : Environment {
    std::optional<std::string> get(const char*) override { return value; }
    std::string value;
  } environment;
  environment.value = text;
  require(!(_sync_http_timeout_seconds(environment) <= 0) && !(_sync_manifest_version_http_timeout_seconds(environment) <= 0) &&
              _sync_parallel_timeout_seconds(environment, 1, 1).value_or(1) > 0,
          "a time is positive");
  require(_sync_http_chunk_bytes(environment) > 0 && _sync_http_response_read_bytes(environment) > 0, "sizes are positive");
  require(_sync_max_concurrency(environment) >= 1 && _sync_max_unchanged_checksum_repairs(environment) >= 0, "counts are in bounds");
  static_cast<void>(reuses_http_connections(environment));
  static_cast<void>(_sync_parallel_timeout_description(_sync_parallel_timeout_seconds(environment, 1, 1)));
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  const std::string first(input.line());
  const std::string_view second = input.line();
  check_text(input.rest());
  check_header(first);
  check_integers(first, second);
  check_real(first);
  check_versions(first, second, input.rest());
  check_settings(first);
  require(platform_name(first, second).find('_') != std::string::npos, "a platform has two names");
  return 0;
}
