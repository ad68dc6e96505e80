// The era that authentication and the search tracker last heard of, for as long as they lag behind the directory.
//
// manifest.json moves to the new era before they are told of it. A transition that ends between the two, by a failure or
// a kill, leaves this note, by which the next one knows that the data did advance: with the manifest alone it would look
// like one within the era.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "sync/base/values/value.hpp"
#include "sync/transport/files.hpp"

namespace brackenfen::sync {

inline constexpr const char* TOLD_ERA_FILENAME = ".told_era";

/// What the note of `data_dir` says, where it holds for data of era `era_number`: another era, or null for none. Absent
/// without a note, with one that cannot be read, and with one of a transition that never came to its commit.
[[nodiscard]] std::optional<Value> era_told_before(std::string_view data_dir, const Value& era_number);

/// Leaves the note, of an integer or null. A failure is a warning in the log: it stands in nobody's way.
void note_told_era(std::string_view data_dir, const Value& told_era);

/// Takes it back. A failure is a warning in the log.
void forget_told_era(Files& files, std::string_view data_dir);

}  // namespace brackenfen::sync
