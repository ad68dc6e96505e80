// Looking up keys that come in about the order in which a document holds them.
#pragma once

#include <string_view>

#include "sync/base/values/value.hpp"

namespace brackenfen::sync {

/// Answers as Document::find does. A key that stands where the last one left off costs a comparison, any other
/// a hashed look-up: two manifests of one data set list their files in the same order but for a few.
/// One thread; the document must outlive the cursor.
class MemberCursor {
 public:
  /// `document` may be null: no key is found then.
  explicit MemberCursor(const Document* document) noexcept
      : document_(document), next_(document ? document->begin() : nullptr), end_(document ? document->end() : nullptr) {}

  [[nodiscard]] const Member* find_member(std::string_view key) noexcept {
    const Member* found = next_ != end_ && is_next(key) ? next_ : document_ ? document_->find_member(key) : nullptr;
    if (found) next_ = found + 1;
    return found;
  }
  [[nodiscard]] const Value* find(std::string_view key) noexcept {
    const Member* found = find_member(key);
    return found ? &found->value : nullptr;
  }

 private:
  [[nodiscard]] bool is_next(std::string_view key) const noexcept {
    const std::string_view next = next_->key.view();
    return next.size() == key.size() && (next.data() == key.data() || next == key);  // mostly they share their text
  }

  const Document* document_;
  const Member* next_;
  const Member* end_;
};

}  // namespace brackenfen::sync
