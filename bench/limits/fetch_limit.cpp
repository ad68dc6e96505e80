// The least that a verified download costs: threads that take the next file in turn, receive it, hash it, write it under a
// staging name and rename it. No retries, no ranges, no deadlines, no manifest, and any failure ends the program.
//
//   fetch_limit LIST URL DIRECTORY THREADS [keep]
//
// LIST holds what sha256sum prints, one file a line. URL is what stands before each path, with http or https and a numeric
// IPv4 address. A connection serves one request or, with `keep`, all requests of its thread. TLS sessions are resumed, and
// SSL_CERT_FILE names whom to trust.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace {

constexpr std::size_t BLOCK_BYTES = 256u << 10;

[[noreturn]] void fail(const std::string& what) {
  std::fprintf(stderr, "fetch_limit: %s (%s)\n", what.c_str(), std::strerror(errno));
  std::_Exit(1);
}

struct File {
  std::string digest, path;
};

struct Server {
  explicit Server(std::string_view url) : secure(url.starts_with("https://")) {
    url.remove_prefix(url.find("//") + 2);
    const std::size_t colon = url.find(':'), slash = url.find('/');
    if (colon == url.npos || slash == url.npos) fail("the URL needs a port and a path");
    host = url.substr(0, colon);
    prefix = url.substr(slash);
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(std::atoi(std::string(url.substr(colon + 1)).c_str())));
    if (inet_pton(AF_INET, host.c_str(), &address.sin_addr) != 1) fail("no address: " + host);
  }
  bool secure;
  std::string host, prefix;
  sockaddr_in address{};
};

/// One connection at a time to the server, plain or TLS. Each thread has its own.
class Connection {
 public:
  explicit Connection(const Server& server) : server_(server) {
    if (!server.secure) return;
    context_ = SSL_CTX_new(TLS_client_method());
    SSL_CTX_set_default_verify_paths(context_);
    SSL_CTX_set_verify(context_, SSL_VERIFY_PEER, nullptr);
    SSL_CTX_set_session_cache_mode(context_, SSL_SESS_CACHE_CLIENT | SSL_SESS_CACHE_NO_INTERNAL);
    SSL_CTX_set_app_data(context_, this);
    SSL_CTX_sess_set_new_cb(context_, [](SSL* tls, SSL_SESSION* session) {
      auto* const self = static_cast<Connection*>(SSL_CTX_get_app_data(SSL_get_SSL_CTX(tls)));
      SSL_SESSION_free(self->session_);
      self->session_ = session;  // it is ours, as the 1 says
      return 1;
    });
  }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;
  ~Connection() {
    close();
    SSL_SESSION_free(session_);
    SSL_CTX_free(context_);
  }

  void open() {
    if (socket_ >= 0) return;
    socket_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int yes = 1;
    setsockopt(socket_, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
    if (connect(socket_, reinterpret_cast<const sockaddr*>(&server_.address), sizeof server_.address) != 0) fail("connect");
    if (!server_.secure) return;
    tls_ = SSL_new(context_);
    SSL_set_fd(tls_, socket_);
    X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(tls_), server_.host.c_str());
    if (session_ != nullptr) SSL_set_session(tls_, session_);
    if (SSL_connect(tls_) != 1) fail("TLS handshake");
  }
  void close() {
    if (tls_ != nullptr) {
      SSL_set_shutdown(tls_, SSL_SENT_SHUTDOWN | SSL_RECEIVED_SHUTDOWN);  // or its session would count as broken off
      SSL_free(tls_);
    }
    if (socket_ >= 0) ::close(socket_);
    tls_ = nullptr;
    socket_ = -1;
  }
  void send(std::string_view text) {
    while (!text.empty()) {
      const auto count = tls_ != nullptr ? SSL_write(tls_, text.data(), static_cast<int>(text.size()))
                                         : ::send(socket_, text.data(), text.size(), MSG_NOSIGNAL);
      if (count <= 0) fail("send");
      text.remove_prefix(static_cast<std::size_t>(count));
    }
  }
  std::size_t receive(char* buffer, std::size_t size) {
    const auto count = tls_ != nullptr ? SSL_read(tls_, buffer, static_cast<int>(size)) : recv(socket_, buffer, size, 0);
    if (count <= 0) fail("the server closed the connection early");
    return static_cast<std::size_t>(count);
  }

 private:
  const Server& server_;
  SSL_CTX* context_ = nullptr;
  SSL_SESSION* session_ = nullptr;
  SSL* tls_ = nullptr;
  int socket_ = -1;
};

class Worker {
 public:
  Worker(const Server& server, bool keep) : server_(server), keep_(keep), connection_(server), block_(BLOCK_BYTES) {}
  ~Worker() { EVP_MD_CTX_free(hash_); }
  Worker(const Worker&) = delete;
  Worker& operator=(const Worker&) = delete;

  void fetch(const File& wanted) {
    connection_.open();
    connection_.send("GET " + server_.prefix + wanted.path + " HTTP/1.1\r\nHost: " + server_.host +
                     (keep_ ? "\r\n\r\n" : "\r\nConnection: close\r\n\r\n"));
    const std::string staging = wanted.path + ".tmp";
    const int file = ::open(staging.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (file < 0) fail(staging);
    EVP_DigestInit_ex2(hash_, algorithm(), nullptr);
    std::size_t filled = 0, body = 0;
    std::size_t left = read_headers(filled, body);
    take(file, block_.data() + body, std::min(filled - body, left));
    left -= std::min(filled - body, left);
    while (left > 0) {
      const std::size_t count = connection_.receive(block_.data(), std::min(block_.size(), left));
      take(file, block_.data(), count);
      left -= count;
    }
    ::close(file);
    if (last_) connection_.close();
    if (digest() != wanted.digest) fail("checksum failure for " + wanted.path);
    if (rename(staging.c_str(), wanted.path.c_str()) != 0) fail("rename");
  }

 private:
  static const EVP_MD* algorithm() {
    static EVP_MD* const sha256 = EVP_MD_fetch(nullptr, "SHA256", nullptr);
    return sha256;
  }
  /// Fills the block past the headers and returns the length of the body, which begins at `body`.
  std::size_t read_headers(std::size_t& filled, std::size_t& body) {
    std::string_view text;
    std::size_t end;
    do {
      filled += connection_.receive(block_.data() + filled, block_.size() - filled);
      text = {block_.data(), filled};
      end = text.find("\r\n\r\n");
    } while (end == text.npos);
    body = end + 4;
    if (!text.starts_with("HTTP/1.1 200")) fail(std::string(text.substr(0, text.find('\r'))));
    const std::size_t length = text.find("Content-Length: ");
    if (length >= end) fail("no Content-Length");
    last_ = text.substr(0, end).find("\r\nConnection: close") != text.npos;
    return std::strtoull(text.data() + length + 16, nullptr, 10);
  }
  void take(int file, const char* data, std::size_t size) {
    EVP_DigestUpdate(hash_, data, size);
    if (write(file, data, size) != static_cast<ssize_t>(size)) fail("write");
  }
  std::string digest() {
    unsigned char bytes[EVP_MAX_MD_SIZE];
    unsigned int size = 0;
    EVP_DigestFinal_ex(hash_, bytes, &size);
    std::string text;
    for (unsigned int index = 0; index < size; ++index) {
      text += "0123456789abcdef"[bytes[index] >> 4];
      text += "0123456789abcdef"[bytes[index] & 15];
    }
    return text;
  }

  const Server& server_;
  const bool keep_;
  bool last_ = false;  ///< the server closes the connection after this response
  Connection connection_;
  std::vector<char> block_;
  EVP_MD_CTX* const hash_ = EVP_MD_CTX_new();
};

std::vector<File> read_list(const char* path) {
  std::ifstream list(path);
  std::vector<File> files;
  for (std::string digest, name; list >> digest >> name;) files.push_back({digest, name});
  if (files.empty()) fail(std::string("no files in ") + path);
  return files;
}

void make_folders(const std::vector<File>& files) {
  std::set<std::string> made;
  for (const File& file : files) {
    for (std::size_t slash = 0; (slash = file.path.find('/', slash)) != file.path.npos; ++slash) {
      if (made.insert(file.path.substr(0, slash)).second) mkdir(file.path.substr(0, slash).c_str(), 0755);
    }
  }
}

}  // namespace

int main(int count, char** arguments) {
  if (count < 5) fail("usage: fetch_limit LIST URL DIRECTORY THREADS [keep]");
  const std::vector<File> files = read_list(arguments[1]);
  const Server server(arguments[2]);
  if (chdir(arguments[3]) != 0) fail(arguments[3]);
  make_folders(files);
  std::atomic<std::size_t> next{0};
  std::vector<std::thread> threads;
  for (int number = 0; number < std::atoi(arguments[4]); ++number) {
    threads.emplace_back([&, keep = count > 5] {
      Worker worker(server, keep);
      for (std::size_t index; (index = next.fetch_add(1)) < files.size();) worker.fetch(files[index]);
    });
  }
  for (std::thread& thread : threads) thread.join();
}
