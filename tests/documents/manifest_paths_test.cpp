#include "sync/documents/manifest_paths.hpp"

#include <filesystem>

#include "sync/base/files/paths.hpp"
#include "sync/documents/local_files.hpp"
#include "sync/documents/own_files.hpp"
#include "sync/neighbours/transport_security.hpp"
#include "tests/documents/values.hpp"
#include "tests/support/failures.hpp"
#include "tests/support/temporary_directory.hpp"

namespace brackenfen::sync {
namespace {

using namespace std::string_literals;

void link(const TemporaryDirectory& directory, const std::string& name, const std::string& target) {
  std::filesystem::create_symlink(target, directory / name);
}

TEST(ManifestPaths, normaliseToOneForm) {
  const std::pair<std::string, const char*> rows[] = {
      {"a/b", "a/b"},         {" a/b\t", "a/b"},      {"\u00a0a\\b\u3000", "a/b"},
      {"a/./b", "a/b"},       {"a//b", "a/b"},        {"a/b/", "a/b"},
      {"./a", "a"},           {"C:/x", "C:/x"},       {"a b/ c", "a b/ c"},
      {"..a/b..", "..a/b.."}, {"a/.../b", "a/.../b"}, {"é/ü", "é/ü"},
      {"a/ /", "a/ "},        {"a\nb", "a\nb"},       {"./ a", " a"},
  };
  for (const auto& [path, normalised] : rows) {
    EXPECT_EQ(_safe_manifest_relative_path(path), normalised) << path;
    if (is_plain_relative_path(path)) {
      EXPECT_EQ(path, normalised);
    }
  }
}

TEST(ManifestPaths, refuseByTheFirstRuleBroken) {
  const std::pair<Value, std::string> rows[] = {
      {nullptr, "must be a non-empty relative path"},   {" \u2003\x1c", "must be a non-empty relative path"},
      {"/a\0b"s, "contains NUL byte: '/a\\x00b'"},      {"/etc/x", "must be relative: '/etc/x'"},
      {"..\\x", "contains unsafe segments: '..\\\\x'"}, {"a/../b", "contains unsafe segments: 'a/../b'"},
      {"a/..", "contains unsafe segments: 'a/..'"},     {"./", "contains unsafe segments: './'"},
  };
  for (const auto& [path, problem] : rows) {
    EXPECT_EQ(failure_of([&path = path] { return _safe_manifest_relative_path(path); }), "ManifestError: Manifest file path " + problem);
    if (path.is_text()) {
      EXPECT_FALSE(is_plain_relative_path(*path.if_text()));
    }
  }
}

TEST(ManifestPaths, ofTheLibrarysOwnFilesAreKnownInEverySpelling) {
  const TemporaryDirectory scratch;
  link(scratch, "self", ".");
  link(scratch, "state", "feature-rotation-state.json");
  OwnFiles own_files(scratch.path());
  for (const std::string path :
       {"manifest.json", "./manifest.json", "manifest.json/x", ".\\.sync_flock", "self/.consumer_count", "self//self/shuffle_seed.enc",
        "state", ".transition_era7.tmp/features/a", "features/a.arrow.tmp", "features.tmp/a"}) {
    EXPECT_THROW(static_cast<void>(own_files.refuse(path)), Error) << path;
    EXPECT_THROW(static_cast<void>(LocalFiles(scratch.path()).place(path)), Error) << path;
    const bool by_link = path.starts_with("self") || path == "state";
    EXPECT_EQ(failure_of([&] {
                return own_files.refuse_in(Document{{path, 1}}), "";
              }),
              by_link ? "" : "ManifestError: Manifest lists a file of the library's own: " + path);
  }
  for (const std::string path : {"signals_index.json", "functions.json", "features/manifest.json", "Manifest.json", "manifest.json.",
                                 "../x", ".transition_era7", "manifest.json2", "a.tmpl", "a.TMP"}) {
    EXPECT_EQ(failure_of([&] { return own_files.refuse_in(Document{{path, 1}}), own_files.refuse(path), ""; }), "") << path;
  }
  // Where one file answers to several spellings, each of them names it.
  scratch.write(".sync_flock", "");
  std::filesystem::create_hard_link(scratch / ".sync_flock", scratch / ".SYNC_FLOCK");
  for (const std::string path : {"Manifest.json", "MANIFEST.JSON./x", "a.Tmp"}) {
    EXPECT_THROW(OwnFiles(scratch.path()).refuse(path), Error) << path;
  }
}

TEST(ManifestPaths, stayInsideTheDirectoryAlsoThroughLinks) {
  const TemporaryDirectory scratch;
  scratch.write("data/real/file", "");
  scratch.write("data-beside/file", "");
  link(scratch, "data/inside", "real");
  link(scratch, "data/beside", scratch / "data-beside");
  link(scratch, "data/self", ".");
  link(scratch, "way-in", "data");

  const std::string data = scratch / "data";
  for (const std::string& data_dir : {data, data + "/", scratch / "way-in", scratch / "data/../data/./real/.."}) {
    EXPECT_EQ(_manifest_local_path(data_dir, "inside/file"), data + "/real/file");
    EXPECT_EQ(_manifest_local_path(data_dir, "new/file"), data + "/new/file");
    EXPECT_EQ(_manifest_local_path(data_dir, "self"), data);
    EXPECT_EQ(failure_of([&] { return _manifest_local_path(data_dir, " beside/x"); }),
              "ManifestError: Manifest file path escapes data directory: ' beside/x'");
  }
  EXPECT_EQ(_manifest_local_path("/", "etc"), "/etc");
}

/// All that is told of a file, or the text of a refusal.
template <typename LocalPath, typename Stat>
std::string answer(LocalPath local_path, Stat stat) {
  try {
    const std::optional<FileStat> found = stat();
    const std::string path = local_path();
    if (!found) return path + " missing";
    return path + json_of(List{found->size_bytes, found->mtime_ns, found->ctime_ns, found->inode, found->is_directory});
  } catch (const Error& error) {
    return error.text();
  }
}

TEST(LocalFiles, answerAsTheFullResolutionDoes) {
  const TemporaryDirectory scratch;
  std::vector<std::string> paths = {"top",           "a/b/one",   "a/b/two",    "a/b",          "a//b/one",     "gone",   "gone/file",
                                    "a/gone/file",   "top/file",  "inside/one", "a/linked",     "out/file",     "a/out",  "dangling",
                                    "loop/file",     "../x",      "/etc",       "a/b/../b/one", "self/a/b/one", "é/file", "inside/gone",
                                    "gone/out/file", "a\\b\\two", "",           "loop"};
  paths.insert(paths.end(), {std::string(300, 'x'), std::string(300, 'x') + "/y"});
  for (const char* file : {"top", "a/b/one", "a/b/two", "é/file"}) scratch.write("data/" + std::string(file), file);
  scratch.write("outside/file", "");
  link(scratch, "data/inside", "a/b");
  link(scratch, "data/a/linked", "b/two");
  link(scratch, "data/out", "../outside");
  link(scratch, "data/a/out", scratch / "outside/file");
  link(scratch, "data/dangling", "nowhere/at/all");
  link(scratch, "data/loop", "loop");
  link(scratch, "data/self", scratch / "data");
  link(scratch, "way-in", "data");
  for (int folder = 0; folder < 200; ++folder) {  // more than stay open, so that places are taken over
    paths.push_back("many/" + std::to_string(folder) + "/file");
    scratch.write("data/" + paths.back(), "");
  }

  for (const std::string& data_dir : {scratch / "data", scratch / "way-in", scratch / "nothing-here"}) {
    LocalFiles files(data_dir);
    for (int round = 0; round < 2; ++round) {
      for (const std::string& path : paths) {
        const auto full_path = [&] { return _manifest_local_path(data_dir, path); };
        const auto full_stat = [&] { return path_exists(full_path()) ? Files::real().stat(full_path()) : std::nullopt; };
        EXPECT_EQ(answer([&] { return files.local_path(path); }, [&] { return files.stat(path); }), answer(full_path, full_stat)) << path;
      }
    }
  }
}

TEST(LocalFiles, seeAFileThatComesAndGoes) {
  const TemporaryDirectory scratch;
  LocalFiles files(scratch.path());
  EXPECT_FALSE(files.stat("new/file"));
  scratch.write("new/file", "12345");
  EXPECT_EQ(files.stat("new/file")->size_bytes, 5);
  std::filesystem::remove(scratch / "new/file");
  EXPECT_FALSE(files.stat("new/file"));
  link(scratch, "new/file", "/etc/passwd");
  EXPECT_EQ(failure_of([&] { return files.stat("new/file"); }), "ManifestError: Manifest file path escapes data directory: 'new/file'");
}

TEST(ManifestUrl, joinsBaseAndPathAsTheyStandAndRefusesThePathBeforeTheBase) {
  const char* server = "https://host:8443/api//";
  const std::string not_absolute = "ManifestError: Manifest base_url must be an absolute data-file URL";
  const std::tuple<const char*, Value, const char*, std::string> rows[] = {
      {server, nullptr, "a b/ü", "https://host:8443/api/data/files/a b/ü"},
      {server, "  ", " a//b ", "https://host:8443/api/data/files/a/b"},
      {server, 7, "a", "https://host:8443/api/data/files/a"},
      {server, " https://cdn/x/ ", "a#b?c", "https://cdn/x/a#b?c"},
      {server, "/x", "a/..", "ManifestError: Manifest file path contains unsafe segments: 'a/..'"},
      {server, "/data/files", "a", not_absolute},
      {server, "https://[::1/x", "a", not_absolute},
      {"host", nullptr, "a", not_absolute},
      {server, "http://example.com/x", "a", "ManifestError: URL must use https, or http on this machine only: http://example.com"},
  };
  for (const auto& [origin, base, path, outcome] : rows) {
    std::string url;
    const auto join = [&, &of_server = origin, &base_url = base, &relative = path] {
      return url = _manifest_file_url(TransportSecurity::builtin(), of_server, relative, base_url);
    };
    EXPECT_EQ(failure_of(join) + url, outcome);
  }
}

TEST(ManifestUrl, isPublicUnlessItIsTheServersOwn) {
  const std::tuple<const char*, Value, bool> rows[] = {
      {"https://host", nullptr, false},
      {"https://host", " https://host/data/files/ ", false},
      {"https://host/api", "https://host/data/files", false},
      {"https://host/api", "https://host/api/data/files", true},
      {"https://host", "https://host:444/data/files", true},
      {"https://host", "https://u@host/data/files", true},
      {"https://host", "https://[::1/data/files", true},
  };
  for (const auto& [server, base_url, is_public] : rows) {
    EXPECT_EQ(_manifest_base_url_uses_public_download(server, base_url), is_public) << json_of(base_url);
  }
}

}  // namespace
}  // namespace brackenfen::sync
