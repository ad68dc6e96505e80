// What a publication tells in the end: on standard output what it did, on standard error what clients will stumble on.
#pragma once

#include <string>
#include <vector>

#include "tools/distribution/publish.hpp"

namespace brackenfen::sync::distribution {

void print_report(const PublishReport& report);
void print_warnings(const std::vector<std::string>& warnings);

}  // namespace brackenfen::sync::distribution
