// Two network namespaces joined by a wire that delays: each packet arrives half a round trip after it was sent. Nothing is
// lost, reordered or slowed down otherwise. Packets cross in the kernel's large segments, so that the wire costs little.
//
//   delayed_link ROUND_TRIP_MS
//
// Prints the two namespaces, as files for nsenter, when both ends ("wire" in each) exist, and holds them until its input is
// closed. Needs the right to make namespaces.
#include <fcntl.h>
#include <linux/if.h>
#include <linux/if_tun.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
constexpr std::size_t PACKET_BYTES = (64u << 10) + 256;  ///< the largest segment and its header

void require(bool done, const char* what) {
  if (done) return;
  std::perror(what);
  std::exit(1);
}

struct End {
  int packets = -1;  ///< what the kernel sends over its end is read here
  int space = -1;    ///< its network namespace
};

/// Moves the process into a new network namespace and makes an end of the wire there.
End make_end() {
  require(unshare(CLONE_NEWNET) == 0, "network namespace");
  End end;
  end.packets = open("/dev/net/tun", O_RDWR | O_NONBLOCK | O_CLOEXEC);
  require(end.packets >= 0, "/dev/net/tun");
  ifreq request{};
  std::strcpy(request.ifr_name, "wire");
  request.ifr_flags = IFF_TUN | IFF_NO_PI | IFF_VNET_HDR;
  require(ioctl(end.packets, TUNSETIFF, &request) == 0, "TUNSETIFF");
  require(ioctl(end.packets, TUNSETOFFLOAD, TUN_F_CSUM | TUN_F_TSO4) == 0, "TUNSETOFFLOAD");
  end.space = open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
  require(end.space >= 0, "/proc/self/ns/net");
  return end;
}

/// Carries packets one way, for ever.
void carry(int from, int to, Clock::duration delay) {
  struct Packet {
    Clock::time_point due;
    std::vector<char> bytes;
  };
  std::deque<Packet> under_way;
  std::vector<char> buffer(PACKET_BYTES);
  for (;;) {
    while (!under_way.empty() && under_way.front().due <= Clock::now()) {
      // A refusal (the other end is not up yet) is a lost packet, as on any wire.
      static_cast<void>(!write(to, under_way.front().bytes.data(), under_way.front().bytes.size()));
      under_way.pop_front();
    }
    timespec patience{};
    if (!under_way.empty()) {
      const auto left = std::chrono::nanoseconds(under_way.front().due - Clock::now()).count();
      patience.tv_nsec = std::clamp<long>(left, 0, 999'999'999);
    }
    pollfd arrival{from, POLLIN, 0};
    if (ppoll(&arrival, 1, under_way.empty() ? nullptr : &patience, nullptr) <= 0) continue;
    const ssize_t count = read(from, buffer.data(), buffer.size());
    if (count > 0) under_way.push_back({Clock::now() + delay, {buffer.begin(), buffer.begin() + count}});
  }
}

}  // namespace

int main(int count, char** arguments) {
  if (count < 2) return 2;
  const std::chrono::microseconds delay(std::atol(arguments[1]) * 1000 / 2);
  const End server = make_end();
  const End client = make_end();
  std::thread(carry, server.packets, client.packets, delay).detach();
  std::thread(carry, client.packets, server.packets, delay).detach();
  std::printf(R"({"server": "/proc/%d/fd/%d", "client": "/proc/%d/fd/%d"})"
              "\n",
              getpid(), server.space, getpid(), client.space);
  std::fflush(stdout);
  for (std::array<char, 16> ignored; read(STDIN_FILENO, ignored.data(), ignored.size()) > 0;) {
  }
  std::_Exit(0);  // the two threads have nothing to put in order
}
