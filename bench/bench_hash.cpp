// Hashing a file in the page cache, beside a bare loop that reads with the same block size into one EVP context.
// Limit: at least 95 % of the loop's bytes per second.
#include <openssl/evp.h>
#include <unistd.h>

#include "bench/dataset.hpp"
#include "sync/transport/files.hpp"

using namespace brackenfen::sync;

namespace {

constexpr std::size_t FILE_BYTES = 512u << 20;
constexpr std::size_t BLOCK_BYTES = 1u << 20;

void bare_loop(const std::string& path) {
  static EVP_MD* const digest = EVP_MD_fetch(nullptr, "SHA256", nullptr);
  static EVP_MD_CTX* const context = EVP_MD_CTX_new();
  static std::vector<char> block(BLOCK_BYTES);
  const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  EVP_DigestInit_ex2(context, digest, nullptr);
  ssize_t count;
  while ((count = read(file, block.data(), block.size())) > 0) EVP_DigestUpdate(context, block.data(), static_cast<std::size_t>(count));
  unsigned char out[EVP_MAX_MD_SIZE];
  EVP_DigestFinal_ex(context, out, nullptr);
  close(file);
}

}  // namespace

int main(int argc, char** argv) {
  const std::string path = join_path(argc > 1 ? argv[1] : ".", "hash.bin");
  if (!path_exists(path)) {
    const Descriptor file = open_file(path, O_WRONLY | O_CREAT | O_TRUNC);
    std::string block(BLOCK_BYTES, 'x');
    for (std::size_t written = 0; written < FILE_BYTES; written += block.size()) {
      block[written % block.size()] = static_cast<char>(written >> 20);
      write_all(file, block, path);
    }
  }
  double bare_seconds = 1e9;
  double ours_seconds = 1e9;
  for (int round = 0; round < 7; ++round) {  // one after the other, so that both see the same machine
    bare_seconds = std::min(bare_seconds, bench::best_seconds(1, [&] { bare_loop(path); }));
    ours_seconds = std::min(ours_seconds, bench::best_seconds(1, [&] { (void)_sha256_file(path); }));
  }
  const double mib = static_cast<double>(FILE_BYTES) / (1 << 20);
  std::printf(R"({"bare_mib_per_s": %.0f, "ours_mib_per_s": %.0f, "ratio": %.3f})"
              "\n",
              mib / bare_seconds, mib / ours_seconds, bare_seconds / ours_seconds);
}
