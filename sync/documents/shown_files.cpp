#include "sync/documents/shown_files.hpp"

#include <algorithm>
#include <limits>

#include "sync/base/values/convert.hpp"
#include "sync/transport/activity.hpp"

namespace brackenfen::sync {

std::int64_t shown_size(const Document& entry) {
  const Value* const stated = entry.find("size_bytes");
  const std::optional<Value> size = stated != nullptr ? to_integer_or_absent(*stated) : std::nullopt;
  return size ? std::max<std::int64_t>(size->if_integer().value_or(0), 0) : 0;
}

std::int64_t sum_of_sizes(std::int64_t left, std::int64_t right) noexcept {
  std::int64_t sum = 0;
  return __builtin_add_overflow(left, right, &sum) ? std::numeric_limits<std::int64_t>::max() : sum;
}

void AnnouncedFiles::add(const Document* entry) {
  ++files_;
  if (entry != nullptr) bytes_ = sum_of_sizes(bytes_, shown_size(*entry));
}

void AnnouncedFiles::announce() const { Operation::expect(files_, bytes_); }

void announce_files(const Document& entries) {
  AnnouncedFiles files;
  for (const Member& member : entries) files.add(member.value.if_document());
  files.announce();
}

}  // namespace brackenfen::sync
