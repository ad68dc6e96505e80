// Whatever a server sends, a pass ends in a commit that verifies, or in a named error with nothing else in the directory
// than what was promised, and no token anywhere. Input: the answers, one for each connection, with a line "---" between
// two; one that does not begin with "HTTP/" is the body of a plain 200.
#include <arpa/inet.h>
#include <sys/socket.h>

#include <deque>
#include <mutex>
#include <thread>

#include "sync/base/text/text.hpp"
#include "tests/fuzz/managers.hpp"

namespace {

/// One connection after the other. It is the proxy too, so that nothing leaves the machine.
class Server {
 public:
  Server() : listener_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{.sin_family = AF_INET, .sin_port = 0, .sin_addr = {htonl(INADDR_LOOPBACK)}, .sin_zero = {}};
    socklen_t length = sizeof address;
    auto* const where = reinterpret_cast<sockaddr*>(&address);
    require(::bind(listener_.get(), where, length) == 0 && ::listen(listener_.get(), 64) == 0, "a server can be set up");
    require(::getsockname(listener_.get(), where, &length) == 0, "a server has an address");
    url = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port));
    ENVIRONMENT.set("https_proxy", url);
    std::thread([this] {
      for (;;) serve(Descriptor(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC)));
    }).detach();
  }
  void script(std::string_view text) {
    const std::lock_guard lock(mutex_);
    const auto answers = split(text, "\n---\n");
    answers_.assign(answers.begin(), answers.end());
  }
  bool is_at_end() {
    const std::lock_guard lock(mutex_);
    return answers_.empty();
  }
  std::string url;

 private:
  void serve(const Descriptor& peer) {
    char buffer[4096];
    std::string request;
    for (ssize_t count = 0; request.find("\r\n\r\n") == std::string::npos; request.append(buffer, static_cast<std::size_t>(count)))
      if (count = ::recv(peer.get(), buffer, sizeof buffer, 0); count <= 0) return;
    require(!request.starts_with("CONNECT ") || request.find(TOKEN) == std::string::npos, "no token for a proxy");
    const std::string answer = next();
    static_cast<void>(::send(peer.get(), answer.data(), answer.size(), MSG_NOSIGNAL));  // whole, being short
  }
  std::string next() {
    const std::lock_guard lock(mutex_);
    if (answers_.empty()) return {};
    const std::string answer(answers_.front());
    answers_.pop_front();
    return answer.starts_with("HTTP/") ? answer : "HTTP/1.1 200 OK\r\nX-Era-Id: 7\r\nConnection: close\r\n\r\n" + answer;
  }

  Descriptor listener_;
  std::mutex mutex_;
  std::deque<std::string> answers_;
};

bool is_promised(std::string_view name, const Value& files) {
  const Document* const entries = files.if_document();
  const std::string_view own[] = {"manifest.json", ".sync_hash_cache.json", "sync-progress.json", "feature-rotation-state.json"};
  return name.ends_with(".tmp") || name.starts_with("shuffle_seed.enc") || std::ranges::find(own, name) != std::end(own) ||
         entries == nullptr || std::ranges::any_of(*entries, [&](const Member& file) {
           return file.key.view().find(name.substr(name.rfind('/') + 1)) != std::string::npos;
         });
}

/// A file whose size is not stated is fetched and kept, and verify() then takes it for a damaged one.
bool states_all_sizes(const Value& files) {
  const Document* const entries = files.if_document();
  return entries == nullptr || std::ranges::all_of(*entries, [](const Member& file) {
           const Document* const entry = file.value.if_document();
           return entry == nullptr || entry->get("size_bytes").if_real();
         });
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static Server& server = *new Server;
  const std::string_view text = Input(data, size).rest();
  server.script(text);
  const TemporaryDirectory data_dir;
  const auto manager = open_manager(data_dir.path(), server.url);
  const bool ended =
      ends_well([&] { return manager->sync(); }, [] { return server.is_at_end(); }, error_class::SyncError, error_class::OSError,
                error_class::AttributeError, error_class::TypeError, error_class::ValueError, neighbours().auth().auth_error_class());
  const auto manifest = manager->get_manifest();
  require(!ended || !manifest || !states_all_sizes(manifest->files()) || manager->verify().valid, "what was committed verifies");
  require(data_dir.contains("manifest.json") == (manifest != nullptr), "a commit is in memory and on disk");
  for (const std::string& name : data_dir.files()) {
    require(!manifest || is_promised(name, manifest->files()), "a file is the manifest's or ours");
    require(text.find(TOKEN) != std::string::npos || data_dir.read(name).find(TOKEN) == std::string::npos, "no file holds the token");
  }
  return 0;
}
