// List and Document: how they are built, changed, compared and destroyed.
#include <algorithm>

#include "sync/base/immortal.hpp"
#include "sync/base/threads/stack_room.hpp"
#include "sync/base/values/value.hpp"
#include "sync/base/values/value_nodes.hpp"

namespace brackenfen::sync {

namespace detail {
namespace {

static_assert(sizeof(Text) == sizeof(void*) && sizeof(List) == sizeof(void*) && sizeof(Document) == sizeof(void*));
static_assert(alignof(Value) <= alignof(ListNode) && alignof(Member) <= alignof(DocumentNode));

/// Dead containers of the running thread that wait for their turn: destroying one puts its children here
/// instead of recursing into them, so nesting of any depth needs no stack.
struct Graveyard {
  const ListNode* lists;
  const DocumentNode* documents;
  bool being_cleared;
};
constinit thread_local Graveyard graveyard{nullptr, nullptr, false};

void destroy(const ListNode* node) noexcept {
  std::destroy_n(node->elements(), node->size);
  node->~ListNode();
  ::operator delete(const_cast<ListNode*>(node));
}

void destroy(const DocumentNode* node) noexcept {
  std::destroy_n(node->members(), node->size);
  if (node->index != nullptr && drop_reference(node->index->references)) delete node->index;
  node->~DocumentNode();
  ::operator delete(const_cast<DocumentNode*>(node));
}

void clear_graveyard() noexcept {
  if (graveyard.being_cleared) return;
  graveyard.being_cleared = true;
  while (graveyard.lists != nullptr || graveyard.documents != nullptr) {
    if (const ListNode* const list = graveyard.lists) {
      graveyard.lists = list->next_dead;
      destroy(list);
    }
    if (const DocumentNode* const document = graveyard.documents) {
      graveyard.documents = document->next_dead;
      destroy(document);
    }
  }
  graveyard.being_cleared = false;
}

void release(const ListNode* node) noexcept {
  if (node == nullptr || !drop_reference(node->references)) return;
  node->next_dead = std::exchange(graveyard.lists, node);
  clear_graveyard();
}

void release(const DocumentNode* node) noexcept {
  if (node == nullptr || !drop_reference(node->references)) return;
  node->next_dead = std::exchange(graveyard.documents, node);
  clear_graveyard();
}

/// Owns a document under construction until it is finished.
class DocumentBuilder {
 public:
  explicit DocumentBuilder(std::size_t capacity) : node_(DocumentNode::create(capacity)) {}
  DocumentBuilder(const DocumentBuilder&) = delete;
  DocumentBuilder& operator=(const DocumentBuilder&) = delete;
  ~DocumentBuilder() { release(node_); }
  [[nodiscard]] DocumentNode* operator->() const noexcept { return node_; }
  [[nodiscard]] DocumentNode* finish() noexcept { return std::exchange(node_, nullptr); }

 private:
  DocumentNode* node_;
};

/// Fills `node` from `members`: a repeated key sets the value of its first position.
void fill(DocumentNode& node, std::span<Member> members) {
  if (members.size() > MEMBERS_WITHOUT_INDEX) {
    auto* const index = new KeyIndex(members.size());
    node.index = index;
    for (Member& member : members) {
      const std::uint32_t hash = PositionIndex::hash_of(member.key);
      const KeyIndex::Place place = index->locate(member.key.view(), hash, node.members());
      if (place.found) {
        node.members()[index->position(place.slot)].value = std::move(member.value);
      } else {
        index->put(place.slot, hash, node.size);
        node.append(std::move(member.key), std::move(member.value));
      }
    }
    return;
  }
  for (Member& member : members) {
    Member* const end = node.members() + node.size;
    Member* const found = std::find_if(node.members(), end, [&](const Member& seen) { return seen.key == member.key; });
    if (found == end) {
      node.append(std::move(member.key), std::move(member.value));
    } else {
      found->value = std::move(member.value);
    }
  }
}

/// What Python's containers ask of their elements: the very same object, or an equal one. They are different where they are
/// nested so deep that the stack ends.
bool same_or_equal(const Value& left, const Value& right) noexcept { return left.same_as(right) || left == right; }

}  // namespace
}  // namespace detail

// List

List::List(std::span<Value> elements) {
  if (elements.empty()) return;
  detail::ListNode* const node = detail::ListNode::create(elements.size());
  std::uninitialized_move(elements.begin(), elements.end(), node->elements());
  node_ = node;
}

List::List(const List& other) noexcept : node_(other.node_) {
  if (node_ != nullptr) detail::add_reference(node_->references);
}

List& List::operator=(const List& other) noexcept {
  List copy(other);
  std::swap(node_, copy.node_);
  return *this;
}

List& List::operator=(List&& other) noexcept {
  List taken(std::move(other));
  std::swap(node_, taken.node_);
  return *this;
}

List::~List() { detail::release(node_); }

std::size_t List::size() const noexcept { return node_ == nullptr ? 0 : node_->size; }
const Value* List::begin() const noexcept { return node_ == nullptr ? nullptr : node_->elements(); }
const Value* List::end() const noexcept { return begin() + size(); }

bool operator==(const List& left, const List& right) noexcept {
  return left.same_as(right) ||
         (has_stack_room() && std::equal(left.begin(), left.end(), right.begin(), right.end(), detail::same_or_equal));
}

// Document

Document::Document(std::span<Member> members) {
  if (members.empty()) return;
  detail::DocumentBuilder builder(members.size());
  detail::fill(*builder.operator->(), members);
  node_ = builder.finish();
}

Document::Document(const Document& other) noexcept : node_(other.node_) {
  if (node_ != nullptr) detail::add_reference(node_->references);
}

Document& Document::operator=(const Document& other) noexcept {
  Document copy(other);
  std::swap(node_, copy.node_);
  return *this;
}

Document& Document::operator=(Document&& other) noexcept {
  Document taken(std::move(other));
  std::swap(node_, taken.node_);
  return *this;
}

Document::~Document() { detail::release(node_); }

std::size_t Document::size() const noexcept { return node_ == nullptr ? 0 : node_->size; }
const Member* Document::begin() const noexcept { return node_ == nullptr ? nullptr : node_->members(); }
const Member* Document::end() const noexcept { return begin() + size(); }

const Member* Document::find_member(std::string_view key) const noexcept { return node_ == nullptr ? nullptr : node_->locate(key); }

const Value* Document::find(std::string_view key) const noexcept {
  const Member* const member = find_member(key);
  return member == nullptr ? nullptr : &member->value;
}

const Value& Document::get(std::string_view key) const noexcept {
  static const Immortal<Value> null;
  const Value* const value = find(key);
  return value == nullptr ? *null : *value;
}

Document Document::with(Text key, Value value) const {
  const Member* const replaced = node_ == nullptr ? nullptr : node_->locate(key);
  detail::DocumentBuilder builder(size() + (replaced == nullptr ? 1 : 0));
  for (const Member& member : *this) builder->append(member.key, &member == replaced ? value : member.value);
  if (replaced == nullptr) {
    builder->append(std::move(key), std::move(value));
    builder->build_index();
  } else if (node_->index != nullptr) {
    detail::add_reference(node_->index->references);
    builder->index = node_->index;
  }
  return Document(builder.finish());
}

Document Document::without(std::string_view key) const {
  const Member* const removed = node_ == nullptr ? nullptr : node_->locate(key);
  if (removed == nullptr) return *this;
  if (size() == 1) return {};
  detail::DocumentBuilder builder(size() - 1);
  for (const Member& member : *this) {
    if (&member != removed) builder->append(member.key, member.value);
  }
  builder->build_index();
  return Document(builder.finish());
}

bool operator==(const Document& left, const Document& right) noexcept {
  if (left.same_as(right)) return true;
  if (left.size() != right.size() || !has_stack_room()) return false;
  return std::all_of(left.begin(), left.end(), [&](const Member& member) {
    const Value* const other = right.find(member.key);
    return other != nullptr && detail::same_or_equal(member.value, *other);
  });
}

}  // namespace brackenfen::sync
