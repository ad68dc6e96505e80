#include "sync/rotation/search_consumers.hpp"

#include <algorithm>
#include <utility>

#include "sync/base/text/text.hpp"
#include "sync/base/values/convert.hpp"

namespace brackenfen::sync {
namespace {

constexpr const char* UNIVERSE_ATTRIBUTES[] = {"named_universe", "_named_universe", "universe", "_universe"};

}  // namespace

void SearchConsumers::register_rotation_search_consumer(SearchConsumerRef consumer) {
  MutexLock lock(mutex_);
  const bool known = std::ranges::any_of(consumers_, [&](const SearchConsumerRef& other) { return other->is(*consumer); });
  if (!known) consumers_.push_back(std::move(consumer));
}

void SearchConsumers::unregister_rotation_search_consumer(const RotationSearchConsumer& consumer) {
  SearchConsumerRef removed;  // goes after the lock: it is an object of the host
  MutexLock lock(mutex_);
  const auto found = std::ranges::find_if(consumers_, [&](const SearchConsumerRef& other) { return other->is(consumer); });
  if (found == consumers_.end()) return;
  removed = std::move(*found);
  consumers_.erase(found);
}

std::vector<SearchConsumerRef> SearchConsumers::snapshot() const {
  MutexLock lock(mutex_);
  return consumers_;
}

void SearchConsumers::clear() {
  std::vector<SearchConsumerRef> removed;
  MutexLock lock(mutex_);
  removed.swap(consumers_);
}

std::optional<std::string> _rotation_consumer_named_universe(const RotationSearchConsumer& consumer) {
  for (const char* name : UNIVERSE_ATTRIBUTES) {
    const std::optional<std::string> text = consumer.attribute(name);
    if (text && !strip(*text).empty()) return std::string(strip(*text));
  }
  return std::nullopt;
}

Document _rotation_vocabulary_for_consumer(const ArtifactRotation& rotation, const Value& vocabulary,
                                           const RotationSearchConsumer& consumer) {
  const Document* loaded = vocabulary.if_document();
  if (loaded == nullptr) throw rotation.vocabulary_scope_error("running search rotation refresh requires loaded vocabulary");
  if (loaded->contains("features")) return *loaded;

  std::vector<Member> members;
  for (const Member& member : *loaded) {
    const Document* document = member.value.if_document();
    if (document != nullptr && document->contains("features")) members.push_back(member);
  }
  if (members.empty()) throw rotation.vocabulary_scope_error("running search rotation refresh requires vocabulary documents with features");
  const Document vocabularies(std::move(members));
  if (const std::optional<std::string> universe = _rotation_consumer_named_universe(consumer)) {
    if (const Document* document = vocabularies.get(*universe).if_document()) return *document;
    throw rotation.vocabulary_scope_error("running search consumer requested unknown vocabulary universe: " + to_quoted(*universe));
  }
  if (vocabularies.size() == 1) return *vocabularies.begin()->value.if_document();
  throw rotation.vocabulary_scope_error("running search consumer must declare named_universe when multiple vocabularies are loaded");
}

void _deliver_rotation_search_refresh_payloads(const std::vector<SearchRefreshPayload>& refresh_payloads) {
  for (const SearchRefreshPayload& payload : refresh_payloads) payload.refresh(payload.rotation_state, payload.vocabulary);
}

}  // namespace brackenfen::sync
