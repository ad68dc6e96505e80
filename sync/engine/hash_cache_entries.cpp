// What the hash cache remembers: digests and fingerprints by relative path, and the table of them. No lock.
#include <array>
#include <iterator>

#include <fmt/compile.h>
#include <fmt/format.h>

#include "sync/base/error.hpp"
#include "sync/base/values/convert.hpp"
#include "sync/engine/hash_cache.hpp"

namespace brackenfen::sync {
namespace {

constexpr std::string_view DIGITS = "0123456789abcdef";
constexpr std::uint8_t INVALID = 0x80;

/// Whether an entry that is no plain fingerprint still says that the file has the digest: its numbers may be
/// given as texts or reals.
bool unusual_entry_holds(const Document& entry, const FileStat& stat, std::string_view expected_sha) {
  if (entry.get("sha256") != Value(expected_sha)) return false;
  const auto says = [&entry](std::string_view key, std::int64_t actual) {
    const Value* number = entry.find(key);
    return (number == nullptr ? Value(-1) : to_integer(*number)) == Value(actual);
  };
  try {
    return says("size_bytes", stat.size_bytes) && says("mtime_ns", stat.mtime_ns) && says("ctime_ns", stat.ctime_ns) &&
           says("inode", stat.inode);
  } catch (const Error&) {
    return false;  // a number that is none is a miss, never a failure
  }
}

}  // namespace

std::optional<HashCache::Digest> HashCache::Digest::from(std::string_view hex) noexcept {
  Digest digest;
  if (hex.size() != 2 * digest.bytes_.size()) return std::nullopt;
  static constexpr auto VALUES = [] {
    std::array<std::uint8_t, 256> values{};
    values.fill(INVALID);
    for (unsigned char digit = 0; digit < 16; ++digit) values[static_cast<unsigned char>(DIGITS[digit])] = digit;
    return values;
  }();
  unsigned seen = 0;
  const auto value_at = [&](std::size_t at) {
    const unsigned value = VALUES[static_cast<unsigned char>(hex[at])];
    seen |= value;
    return value;
  };
  for (std::size_t at = 0; at < digest.bytes_.size(); ++at) {
    digest.bytes_[at] = static_cast<unsigned char>(value_at(2 * at) << 4 | (value_at(2 * at + 1) & 0xF));
  }
  return seen < INVALID ? std::optional(digest) : std::nullopt;
}

bool HashCache::Digest::is(std::string_view hex) const noexcept {
  if (hex.size() != 2 * bytes_.size()) return false;
  int differing = 0;
  for (std::size_t at = 0; at < bytes_.size(); ++at)
    differing |= (DIGITS[bytes_[at] >> 4] ^ hex[2 * at]) | (DIGITS[bytes_[at] & 0xF] ^ hex[2 * at + 1]);
  return differing == 0;
}

std::string HashCache::Digest::hex() const {
  std::string hex;
  for (const unsigned char byte : bytes_) fmt::format_to(std::back_inserter(hex), FMT_COMPILE("{:02x}"), byte);
  return hex;
}

std::optional<HashCache::Fingerprint> HashCache::fingerprint_of(std::span<const Member> members) {
  std::optional<std::int64_t> size_bytes, mtime_ns, ctime_ns, inode;
  std::optional<Digest> digest;
  for (const auto& [key, value] : members) {
    const std::string_view name = key.view();
    if (name == "ctime_ns") {
      ctime_ns = value.if_integer();
    } else if (name == "inode") {
      inode = value.if_integer();
    } else if (name == "mtime_ns") {
      mtime_ns = value.if_integer();
    } else if (name == "sha256") {
      if (const std::optional<std::string_view> hex = value.if_text()) digest = Digest::from(*hex);
    } else if (name == "size_bytes") {
      size_bytes = value.if_integer();
    }
  }
  // Five members with five names: none of them is another, and none stands twice.
  if (members.size() != 5 || !size_bytes || !mtime_ns || !ctime_ns || !inode || !digest) return std::nullopt;
  return Fingerprint{*digest, *size_bytes, *mtime_ns, *ctime_ns, *inode};
}

HashCache::Entry HashCache::entry_from_document(const Document& document) {
  if (const std::optional<Fingerprint> fingerprint = fingerprint_of({document.begin(), document.end()})) return *fingerprint;
  return document;
}

void HashCache::Entries::reserve(std::size_t count) {
  items_.reserve(count);
  if (count > index_.capacity()) index_ = index_.grown_to(count);
}

PositionIndex::Place HashCache::Entries::locate(std::string_view path, std::uint32_t hash) const noexcept {
  return index_.locate(hash, [&](std::size_t position) { return items_[position].first.view() == path; });
}

const HashCache::Entry* HashCache::Entries::find(std::string_view path) const noexcept {
  const PositionIndex::Place place = locate(path, PositionIndex::hash_of(path));
  return place.found ? &items_[index_.position(place.slot)].second : nullptr;
}

void HashCache::Entries::put(Text path, Entry entry) {
  const std::uint32_t hash = PositionIndex::hash_of(path);
  PositionIndex::Place place = locate(path, hash);
  if (place.found) {
    items_[index_.position(place.slot)].second = std::move(entry);
    return;
  }
  if (items_.size() == index_.capacity()) {
    index_ = index_.grown_to(2 * items_.size() + 1);
    place = locate(path, hash);
  }
  items_.emplace_back(std::move(path), std::move(entry));
  index_.put(place.slot, hash, items_.size() - 1);
}

bool HashCache::holds(const Entries& entries, std::string_view file_path, const FileStat& stat, std::string_view expected_sha) {
  if (expected_sha.empty()) return false;
  const Entry* found = entries.find(file_path);
  if (found == nullptr) return false;
  const auto* known = std::get_if<Fingerprint>(found);
  if (known == nullptr) return unusual_entry_holds(std::get<Document>(*found), stat, expected_sha);
  return known->size_bytes == stat.size_bytes && known->mtime_ns == stat.mtime_ns && known->ctime_ns == stat.ctime_ns &&
         known->inode == stat.inode && known->sha256.is(expected_sha);
}

}  // namespace brackenfen::sync
