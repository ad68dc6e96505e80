// One piece of work for each index of a list, on all cores, with the outcome of a plain loop.
#pragma once

#include <cstddef>
#include <functional>

namespace brackenfen::sync {

/// Does the work of one index; false ends the loop there.
using IndexWork = std::function<bool(std::size_t index)>;

/// Works on the indices below `count` as a loop from 0 upwards would that ends where the work answers false or throws.
/// Returns the index of the false answer, or `count`, and throws what the loop would have thrown: all indices below the
/// end have been worked on then, and some above may have been.
///
/// The calling thread takes part, and has as many others beside it as the process has cores, of which it waits for the
/// last. Each thread has a work of its own, from `make_work`, which must outlive the call; no work may touch Python.
/// Throws Interrupted where the calling thread is interrupted between two indices or inside its work; the others are
/// interrupted with it.
[[nodiscard]] std::size_t for_each_index(std::size_t count, const std::function<IndexWork()>& make_work);

}  // namespace brackenfen::sync
