// The wait of an outage, in the sync-progress.json that people look at.
#pragma once

#include <string>

#include "sync/transport/seams.hpp"

namespace brackenfen::sync {

/// Puts the wait into the sync-progress.json of the context's data directory, keeping what a pass wrote there. What is kept
/// is remembered as text, since an outage repeats this for each wait: a file list of 100,000 entries is read and written
/// anew only where another than this function has written since. Any thread; the last write wins.
void _write_sync_backoff_progress_json(const Seams& seams, const Document& event);

/// Frees what is remembered of the file, which is gone.
void forget_backoff_progress(const std::string& path);

}  // namespace brackenfen::sync
