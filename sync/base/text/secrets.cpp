#include "sync/base/text/secrets.hpp"

#include <algorithm>
#include <cctype>
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
  std::vector<std::string> forms;  // the token first
};
using Secrets = std::vector<Secret>;

/// Leaked. Null before the first one.
Snapshot<const Secrets>& known() {
  static Snapshot<const Secrets>& secrets = *new Snapshot<const Secrets>;
  return secrets;
}
[[maybe_unused]] static const auto& made_at_load = known();  // see at_fork_child

std::string percent_encoded(std::string_view token, const char* digits) {
  std::string encoded;
  for (const char character : token) {
    const auto byte = static_cast<unsigned char>(character);
    const bool unreserved = byte < 0x80 && (std::isalnum(byte) != 0 || std::string_view("-._~").find(character) != std::string_view::npos);
    if (unreserved) {
      encoded += character;
    } else {
      encoded.append({'%', digits[byte >> 4U], digits[byte & 15U]});
    }
  }
  return encoded;
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
  Secret secret{std::string(token), {std::string(token)}};
  const auto add = [&](std::string form) {
    if (form.size() >= SHORTEST_BYTES && std::find(secret.forms.begin(), secret.forms.end(), form) == secret.forms.end()) {
      secret.forms.push_back(std::move(form));
    }
  };
  for (const char* digits : {"0123456789ABCDEF", "0123456789abcdef"}) add(percent_encoded(token, digits));
  for (const std::size_t offset : {0U, 1U, 2U}) {
    for (const char* last_two : {"+/", "-_"}) add(base64_part(token, offset, last_two));
  }
  return secret;
}

bool mask_in_place(std::string& text, const Secrets& secrets) {
  bool found = false;
  for (const Secret& secret : secrets) {
    for (const std::string& form : secret.forms) {
      for (std::size_t at = text.find(form); at != std::string::npos; at = text.find(form, at + form.size())) {
        text.replace(at, form.size(), form.size(), '*');
        found = true;
      }
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
