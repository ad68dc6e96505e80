// The checks of a whole directory. needs_sync over 100,000 matching files, warm: at most 2.5 times a bare loop of one
// statx per file, beside the request. verify of files in the page cache: at least 90 % of a bare loop that reads and hashes
// the same files on all cores at once.
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "bench/dataset.hpp"
#include "bench/memory_server.hpp"
#include "sync/base/threads/parallel.hpp"
#include "sync/engine/sync_manager.hpp"

using namespace brackenfen::sync;

namespace {

constexpr int SMALL_FILES = 100000;
constexpr int LARGE_FILES = 120;
constexpr std::size_t LARGE_FILE_BYTES = 8u << 20;
constexpr std::size_t BLOCK_BYTES = 1u << 20;
constexpr int ROUNDS = 7;

/// One thread for each core; each takes the next path, reads it in blocks and hashes them.
void hash_on_all_cores(const std::vector<std::string>& paths) {
  static EVP_MD* const algorithm = EVP_MD_fetch(nullptr, "SHA256", nullptr);
  std::atomic<std::size_t> next{0};
  const auto work = [&] {
    EVP_MD_CTX* const context = EVP_MD_CTX_new();
    std::vector<char> block(BLOCK_BYTES);
    unsigned char digest[EVP_MAX_MD_SIZE];
    for (std::size_t index; (index = next.fetch_add(1)) < paths.size();) {
      const int file = open(paths[index].c_str(), O_RDONLY | O_CLOEXEC);
      EVP_DigestInit_ex2(context, algorithm, nullptr);
      ssize_t count;
      while ((count = read(file, block.data(), block.size())) > 0) EVP_DigestUpdate(context, block.data(), static_cast<std::size_t>(count));
      EVP_DigestFinal_ex(context, digest, nullptr);
      close(file);
    }
    EVP_MD_CTX_free(context);
  };
  std::vector<std::thread> threads;
  for (unsigned number = 0; number < std::thread::hardware_concurrency(); ++number) threads.emplace_back(work);
  for (std::thread& thread : threads) thread.join();
}

void statx_each(const std::vector<std::string>& paths) {
  struct statx found;
  for (const std::string& path : paths) {
    if (statx(AT_FDCWD, path.c_str(), 0, STATX_BASIC_STATS, &found) != 0) std::abort();
  }
}

Document make_large_files(const std::string& directory) {
  std::vector<Member> files;
  for (int index = 0; index < LARGE_FILES; ++index) {
    const std::string path = bench::feature_path(index);
    const std::string content(LARGE_FILE_BYTES, static_cast<char>('a' + index % 26));
    if (!path_exists(join_path(directory, path))) bench::make_file(directory, path, content);
    files.push_back({path, Value(Document{{"kind", "feature"}, {"size_bytes", content.size()}, {"sha256", _sha256(content)}})});
  }
  bench::make_era_files(directory);
  return bench::manifest_of(std::move(files), 1);
}

std::shared_ptr<SyncManager> manager_of(const std::string& directory, bench::MemoryServer& server, const Document& manifest) {
  server.publish(manifest);
  auto manager = server.manager_of(directory);
  static_cast<void>(manager->sync());  // fills the hash cache
  return manager;
}

std::vector<std::string> local_paths(const std::string& directory, int count) {
  std::vector<std::string> paths;
  for (int index = 0; index < count; ++index) paths.push_back(join_path(real_path(directory), bench::feature_path(index)));
  return paths;
}

struct Pair {
  double bare = 1e9;
  double ours = 1e9;

  /// One after the other, so that both see the same machine.
  template <typename Bare, typename Ours>
  Pair(Bare&& bare_loop, Ours&& our_call) {
    for (int round = 0; round < ROUNDS; ++round) {
      bare = std::min(bare, bench::best_seconds(1, bare_loop) * 1e3);
      ours = std::min(ours, bench::best_seconds(1, our_call) * 1e3);
    }
  }
};

void expect(bool as_expected, const char* otherwise) {
  if (!as_expected) std::fprintf(stderr, "%s\n", otherwise);
}

}  // namespace

int main(int argc, char** argv) {
  const std::string root = argc > 1 ? argv[1] : ".";
  const std::string small_directory = join_path(root, "pass");  // the one that bench_pass uses
  const std::string large_directory = join_path(root, "large");
  make_directories(small_directory);
  bench::make_files(small_directory, SMALL_FILES);
  make_directories(large_directory);

  bench::MemoryServer small_server, large_server;
  const auto small = manager_of(small_directory, small_server, bench::make_manifest(SMALL_FILES, 1));
  const auto large = manager_of(large_directory, large_server, make_large_files(large_directory));
  const std::vector<std::string> small_paths = local_paths(small_directory, SMALL_FILES);
  const std::vector<std::string> large_paths = local_paths(large_directory, LARGE_FILES);

  const Pair needs([&] { statx_each(small_paths); }, [&] { expect(!small->needs_sync(), "a pass is needed"); });
  const Pair verify_large([&] { hash_on_all_cores(large_paths); }, [&] { expect(large->verify().valid, "a file is damaged"); });
  const Pair verify_small([&] { hash_on_all_cores(small_paths); }, [&] { expect(small->verify().valid, "a file is damaged"); });
  const double mib = static_cast<double>(LARGE_FILES * LARGE_FILE_BYTES) / (1 << 20);
  std::printf(R"({"needs_sync_ms": %.1f, "bare_statx_ms": %.1f, "needs_sync_ratio": %.2f, )", needs.ours, needs.bare,
              needs.ours / needs.bare);
  std::printf(R"("verify_mib_per_s": %.0f, "bare_mib_per_s": %.0f, "verify_ratio": %.3f, )", mib / verify_large.ours * 1e3,
              mib / verify_large.bare * 1e3, verify_large.bare / verify_large.ours);
  std::printf(R"("verify_small_ms": %.0f, "bare_small_ms": %.0f, "verify_small_ratio": %.3f})"
              "\n",
              verify_small.ours, verify_small.bare, verify_small.bare / verify_small.ours);
}
