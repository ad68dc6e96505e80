#include "tools/distribution/say.hpp"

#include <fcntl.h>
#include <fmt/core.h>
#include <unistd.h>

#include <csignal>
#include <string>

namespace brackenfen::sync::distribution {

void prepare_streams() {
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGXFSZ, SIG_IGN);
  int opened = 0;
  do opened = ::open("/dev/null", O_RDWR);
  while (opened >= 0 && opened <= STDERR_FILENO);
  if (opened >= 0) ::close(opened);
}

void say(std::FILE* stream, std::string_view line) {
  std::string shown;
  for (const char character : line) {
    const auto byte = static_cast<unsigned char>(character);
    const bool is_second_of_c1 = byte >= 0x80 && byte < 0xa0 && shown.ends_with('\xc2');
    if (byte >= 0x20 && byte != 0x7f && !is_second_of_c1) {
      shown += character;
      continue;
    }
    if (is_second_of_c1) shown.pop_back();
    shown += fmt::format("\\x{:02x}", byte);
  }
  shown += '\n';
  std::fwrite(shown.data(), 1, shown.size(), stream);
  std::fflush(stream);
}

}  // namespace brackenfen::sync::distribution
