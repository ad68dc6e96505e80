// What the tool says. That nobody listens any more (a full disk, a closed pipe, a terminal that hung up) never ends its work.
#pragma once

#include <cstdio>
#include <string_view>

namespace brackenfen::sync::distribution {

/// First of all: writing where nobody reads, or more than a file may hold, fails from then on and ends nothing, and no file
/// that is opened takes the place of a standard stream that was closed.
void prepare_streams();

/// A line, at once. The control characters that a name may hold are spelled out, for a terminal would obey them.
void say(std::FILE* stream, std::string_view line);

}  // namespace brackenfen::sync::distribution
