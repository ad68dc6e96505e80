// Lists of paths that go from hand to hand: plan, state, result.
#pragma once

#include <algorithm>
#include <cstddef>
#include <initializer_list>
#include <iterator>
#include <memory>
#include <utility>
#include <vector>

#include "sync/base/values/value.hpp"

namespace brackenfen::sync {

/// Immutable, and shared by reference: a copy costs one increment however long the list is. Any thread may read.
class TextList {
 public:
  using value_type = Text;
  using const_iterator = const Text*;

  TextList() noexcept = default;
  TextList(std::vector<Text> texts) : texts_(std::make_shared<const std::vector<Text>>(std::move(texts))) {}
  TextList(std::initializer_list<Text> texts) : TextList(std::vector<Text>(texts)) {}

  [[nodiscard]] const Text* begin() const noexcept { return texts_ ? texts_->data() : nullptr; }
  [[nodiscard]] const Text* end() const noexcept { return begin() + size(); }
  [[nodiscard]] std::size_t size() const noexcept { return texts_ ? texts_->size() : 0; }
  [[nodiscard]] bool empty() const noexcept { return size() == 0; }
  [[nodiscard]] const Text& operator[](std::size_t index) const { return (*texts_)[index]; }

  friend bool operator==(const TextList& left, const TextList& right) noexcept {
    return left.texts_ == right.texts_ || std::equal(left.begin(), left.end(), right.begin(), right.end());
  }

 private:
  std::shared_ptr<const std::vector<Text>> texts_;  // null for none
};

/// The texts that `is_kept` answers true for, which is asked once for each in their order. The same list, and nothing
/// allocated, where those are all.
template <typename IsKept>
[[nodiscard]] TextList kept_of(const TextList& texts, IsKept is_kept) {
  const Text* const first_dropped = std::find_if_not(texts.begin(), texts.end(), is_kept);
  if (first_dropped == texts.end()) return texts;
  std::vector<Text> kept(texts.begin(), first_dropped);
  std::copy_if(first_dropped + 1, texts.end(), std::back_inserter(kept), is_kept);
  return kept;
}

}  // namespace brackenfen::sync
