// Taking members and files out of documents that stay as they are: what every filter here is built of.
#pragma once

#include <utility>
#include <vector>

#include "sync/base/values/value.hpp"

namespace brackenfen::sync {

/// `section` without the files that `is_dropped(element)` picks, and without every entity that then has no
/// files, whether or not it had any before. An entry that is no document, or whose `files` is no list, stays.
/// The same document where nothing changed.
template <typename IsDropped>
[[nodiscard]] Document membership_without_files(const Document& section, IsDropped is_dropped) {
  std::vector<Member> kept_entities;
  kept_entities.reserve(section.size());
  bool changed = false;
  for (const auto& [entity, entry] : section) {
    const Document* entry_document = entry.if_document();
    const List* files = entry_document == nullptr ? nullptr : entry_document->get("files").if_list();
    if (files == nullptr) {
      kept_entities.push_back({entity, entry});
      continue;
    }
    std::vector<Value> kept_files;
    for (const Value& file : *files) {
      if (!is_dropped(file)) kept_files.push_back(file);
    }
    if (kept_files.empty()) {
      changed = true;
    } else if (kept_files.size() == files->size()) {
      kept_entities.push_back({entity, entry});
    } else {
      kept_entities.push_back({entity, entry_document->with("files", List(std::move(kept_files)))});
      changed = true;
    }
  }
  return changed ? Document(std::move(kept_entities)) : section;
}

/// `document` without the members that `is_dropped(key, value)` picks, which is asked once for each. The same
/// one, and nothing allocated, where it picks none.
template <typename IsDropped>
[[nodiscard]] Document without_members(const Document& document, IsDropped is_dropped) {
  const Member* member = document.begin();
  while (member != document.end() && !is_dropped(member->key, member->value)) ++member;
  if (member == document.end()) return document;
  std::vector<Member> kept(document.begin(), member);
  kept.reserve(document.size() - 1);
  for (++member; member != document.end(); ++member) {
    if (!is_dropped(member->key, member->value)) kept.push_back(*member);
  }
  return Document(std::move(kept));
}

}  // namespace brackenfen::sync
