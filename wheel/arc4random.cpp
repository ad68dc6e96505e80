// Stands for the function of the same name that glibc has from 2.36 on and this compiler's static libstdc++ asks for: without
// it, the wheel would want a newer system for std::random_device alone. Hidden in the module, like all that is linked into it.

#include <sys/random.h>

#include <cerrno>
#include <cstdlib>

unsigned int arc4random() noexcept {
  unsigned int value = 0;
  while (::getrandom(&value, sizeof value, 0) != sizeof value) {
    if (errno != EINTR) std::abort();  // what the original does
  }
  return value;
}
