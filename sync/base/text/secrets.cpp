#include "sync/base/text/secrets.hpp"

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <memory>
#include <utility>
#include <vector>

#include "sync/base/threads/snapshot.hpp"
#include "sync/base/threads/stack_room.hpp"

namespace brackenfen::sync {
namespace {

constexpr std::size_t SHORTEST_BYTES = 6;
constexpr std::size_t MOST_SECRETS = 8;

struct Secret {
  std::string token;
  std::vector<std::string> packed;  ///< what base64 makes of it
};
using Secrets = std::vector<Secret>;

/// Leaked. Null before the first one.
Snapshot<const Secrets>& known() {
  static Snapshot<const Secrets>& secrets = *new Snapshot<const Secrets>;
  return secrets;
}
[[maybe_unused]] static const auto& made_at_load = known();  // see at_fork_child

/// How many bytes at the beginning of `text` spell `character`: as it is, percent-encoded, or behind backslashes, as JSON may
/// have it, and the JSON of that. 0 for none.
std::size_t spelled(std::string_view text, char character) {
  if (text.starts_with(character)) return 1;
  const std::size_t slashes = std::min(text.find_first_not_of('\\'), text.size());
  if (text.substr(slashes).starts_with(character)) return slashes + 1;
  unsigned byte = 0;
  const bool is_encoded = text.size() > 2 && text[0] == '%' && std::from_chars(&text[1], &text[1] + 2, byte, 16).ptr == &text[1] + 2;
  return is_encoded && static_cast<char>(byte) == character ? 3 : 0;
}

/// The same for all of the token. Which characters are encoded differs from one encoder to the next, so any may be.
std::size_t spelled(std::string_view text, std::string_view token) {
  std::size_t length = 0;
  for (const char character : token) {
    const std::size_t more = spelled(text.substr(length), character);
    if (more == 0) return 0;
    length += more;
  }
  return length;
}

/// Those characters of a base64 text that follow from the token alone, where `offset` bytes stand before it.
std::string base64_part(std::string_view token, std::size_t offset, std::string_view last_two) {
  std::string alphabet;
  for (const auto& [first, last] : {std::pair('A', 'Z'), std::pair('a', 'z'), std::pair('0', '9')}) {
    for (char character = first; character <= last; ++character) alphabet += character;
  }
  alphabet += last_two;
  const std::string bytes = std::string(offset, '\0') + std::string(token);
  const auto bit = [&](std::size_t index) { return unsigned{static_cast<unsigned char>(bytes[index / 8])} >> (7 - index % 8) & 1U; };
  std::string part;
  for (std::size_t start = (offset * 8 + 5) / 6 * 6; start + 6 <= bytes.size() * 8; start += 6) {
    unsigned sextet = 0;
    for (std::size_t index = start; index < start + 6; ++index) sextet = sextet << 1U | bit(index);
    part += alphabet[sextet];
  }
  return part;
}

Secret secret_of(std::string_view token) {
  Secret secret{std::string(token), {}};
  for (const std::size_t offset : {0U, 1U, 2U}) {
    for (const char* last_two : {"+/", "-_"}) {
      std::string part = base64_part(token, offset, last_two);
      const bool is_new = std::find(secret.packed.begin(), secret.packed.end(), part) == secret.packed.end();
      if (is_new && part.size() >= SHORTEST_BYTES) secret.packed.push_back(std::move(part));
    }
  }
  return secret;
}

bool mask_in_place(std::string& text, const Secrets& secrets) {
  bool found = false;
  const auto mask = [&](std::size_t at, std::size_t length) {
    text.replace(at, length, length, '*');
    found = true;
    return at + length;
  };
  for (const Secret& secret : secrets) {
    // Backslashes before the first character give nothing away, and each of a million would be a beginning.
    const char first[] = {secret.token.front(), '%'};
    for (std::size_t at = 0; (at = text.find_first_of(first, at, sizeof first)) != std::string::npos;) {
      const std::size_t length = spelled(std::string_view(text).substr(at), secret.token);
      at = length == 0 ? at + 1 : mask(at, length);
    }
    for (const std::string& form : secret.packed) {
      for (std::size_t at = 0; (at = text.find(form, at)) != std::string::npos;) at = mask(at, form.size());
    }
  }
  return found;
}

Value masked(const Value& value, const Secrets& secrets) {
  if (const auto text = value.if_text()) {
    std::string copy(*text);
    return mask_in_place(copy, secrets) ? Value(copy) : value;
  }
  if (const List* const list = value.if_list()) {
    if (!has_stack_room()) return List();  // rather than what may hold a secret
    std::vector<Value> elements;
    for (const Value& element : *list) elements.push_back(masked(element, secrets));
    return List(std::move(elements));
  }
  if (const Document* const document = value.if_document()) {
    if (!has_stack_room()) return Document();
    std::vector<Member> members;
    for (const Member& member : *document) {
      std::string key(member.key.str());
      mask_in_place(key, secrets);
      members.push_back({key, masked(member.value, secrets)});
    }
    return Document(std::move(members));
  }
  return value;
}

}  // namespace

void remember_secret(std::string_view token) {
  if (token.size() < SHORTEST_BYTES) return;
  const std::shared_ptr<const Secrets> before = known().get();
  if (before && before->front().token == token) return;
  auto after = std::make_shared<Secrets>();
  after->push_back(secret_of(token));
  for (std::size_t index = 0; before && index < before->size() && after->size() < MOST_SECRETS; ++index) {
    if ((*before)[index].token != token) after->push_back((*before)[index]);
  }
  known().set(std::move(after));
}

std::string mask_secrets(std::string text) {
  if (const std::shared_ptr<const Secrets> secrets = known().get()) mask_in_place(text, *secrets);
  return text;
}

Value mask_secrets(const Value& value) {
  const std::shared_ptr<const Secrets> secrets = known().get();
  return secrets ? masked(value, *secrets) : value;
}

}  // namespace brackenfen::sync
