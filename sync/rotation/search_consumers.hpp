// The searches that run on a directory's data and want to know when their scope changes.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "sync/base/threads/mutex.hpp"
#include "sync/neighbours/artifact_rotation.hpp"

namespace brackenfen::sync {

/// Tells one search its new scope. Called on the syncing thread, outside all leaf locks; it must not need the pass lock.
using SearchRefresh = std::function<void(const RotationStateRef& rotation_state, const ScopedVocabulary& vocabulary)>;

class RotationSearchConsumer {
 public:
  virtual ~RotationSearchConsumer() = default;
  /// Whether both are the same search. Calls nothing of the host.
  [[nodiscard]] virtual bool is(const RotationSearchConsumer& other) const noexcept = 0;
  /// Its `refresh_rotation_scope`; empty where it has none that can be called.
  [[nodiscard]] virtual SearchRefresh refresh_rotation_scope() const = 0;
  /// The text form of an attribute; absent where it is missing or null.
  [[nodiscard]] virtual std::optional<std::string> attribute(const char* name) const = 0;
};
using SearchConsumerRef = std::shared_ptr<RotationSearchConsumer>;

/// Those of one manager, in the order of their registration. Any thread.
class SearchConsumers {
 public:
  /// A search that is registered already stays where it is.
  void register_rotation_search_consumer(SearchConsumerRef consumer) EXCLUDES(mutex_);
  /// A search that is not registered is ignored.
  void unregister_rotation_search_consumer(const RotationSearchConsumer& consumer) EXCLUDES(mutex_);
  [[nodiscard]] std::vector<SearchConsumerRef> snapshot() const EXCLUDES(mutex_);
  /// As EraCallbacks::visit_each.
  template <typename Visit>
  [[nodiscard]] int visit_each(const Visit& visit) const EXCLUDES(mutex_) {
    MutexLock lock(mutex_);
    for (const SearchConsumerRef& consumer : consumers_)
      if (const int stop = visit(consumer); stop != 0) return stop;
    return 0;
  }
  void clear() EXCLUDES(mutex_);

 private:
  mutable Mutex mutex_;
  std::vector<SearchConsumerRef> consumers_ GUARDED_BY(mutex_);
};

/// The universe that a search declares: the first of four attributes that holds more than blanks.
[[nodiscard]] std::optional<std::string> _rotation_consumer_named_universe(const RotationSearchConsumer& consumer);

/// The one of the loaded vocabularies that a search works with. Throws what `rotation` calls a VocabularyScopeError.
[[nodiscard]] Document _rotation_vocabulary_for_consumer(const ArtifactRotation& rotation, const Value& vocabulary,
                                                         const RotationSearchConsumer& consumer);

struct SearchRefreshPayload {
  SearchRefresh refresh;
  RotationStateRef rotation_state;
  ScopedVocabulary vocabulary;
};

/// Calls each in order; the first error ends it.
void _deliver_rotation_search_refresh_payloads(const std::vector<SearchRefreshPayload>& refresh_payloads);

}  // namespace brackenfen::sync
