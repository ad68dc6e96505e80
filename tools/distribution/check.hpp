// Whether the documents among the artifacts are right for the era they are published in. A mistake here would
// otherwise show up in every client.
#pragma once

#include <cstdint>
#include <vector>

#include "tools/distribution/tree.hpp"

namespace brackenfen::sync::distribution {

/// Throws Error naming the file and what is wrong with it: a vocabulary, catalogue or index that is no JSON
/// object or of another era, a vocabulary of another universe than its path's, an index that names files
/// which are not there.
void check_documents(const std::vector<SourceFile>& files, std::int64_t era);

}  // namespace brackenfen::sync::distribution
