// Small rules of the distribution tool: ranges, kinds, paths.
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <string_view>

#include "tools/distribution/kinds.hpp"
#include "tools/distribution/range.hpp"
#include "tools/distribution/tree.hpp"

namespace brackenfen::sync::distribution {
namespace {

TEST(Range, answersAsHttpSays) {
  const RangeAnswer whole{RangeVerdict::Whole, {0, 100}};
  const RangeAnswer none{RangeVerdict::Unsatisfiable, {}};
  const auto part = [](std::int64_t first, std::int64_t length) { return RangeAnswer{RangeVerdict::Partial, {first, length}}; };
  struct Row {
    const char* header;
    RangeAnswer answer;
  };
  const Row rows[] = {
      {"bytes=0-9", part(0, 10)},
      {"bytes=10-", part(10, 90)},
      {"bytes=50-9999", part(50, 50)},
      {"bytes=-30", part(70, 30)},
      {"bytes=100-", none},
      {"bytes=-0", none},
      {"bytes=9-3", whole},
      {"bytes=0-1,5-6", whole},
      {"bytes=a-b", whole},
      {"bytes=-", whole},
      {"bytes=99999999999999999999-", whole},
      {"lines=1-2", whole},
  };
  for (const Row& row : rows) EXPECT_EQ(answer_range(row.header, 100), row.answer) << row.header;
  EXPECT_EQ(answer_range(std::nullopt, 100), whole);
  EXPECT_EQ(answer_range("bytes=0-", 0), none);
}

TEST(Kinds, followFromThePathAlone) {
  struct Row {
    const char* path;
    const char* kind;
  };
  const Row rows[] = {
      {"features/x", "feature"},
      {"found_signals/p/e/strategy_is/pnl.arrow", "data"},
      {"found_signals/signal_is/pnl.arrow", "found_signal_is_pnl"},
      {"named_universes/u/vocabulary.json", "vocabulary"},
      {"named_universes/u/v/vocabulary.json", "data"},
      {"sub/functions.json", "data"},
      {"vault-linux_x86_64.so", "vault_module"},
      {"vault_linux_x86_64.so", "data"},
      {"vault-linux_mips.so", "data"},
  };
  for (const Row& row : rows) EXPECT_EQ(classify_artifact(row.path).kind, row.kind) << row.path;
}

TEST(Paths, thatClientsCannotFetchAreNamed) {
  for (const std::string_view path : {"a/b.arrow", "a..b/c", "~x", "a+b=c&d;e:f@g,h!", "[x]"}) EXPECT_FALSE(path_objection(path)) << path;
  for (const std::string_view path :
       {"", "a//b", "/a", "a/", "a/../b", "./a", "a b", "a\tb", "a\\b", "a%20b", "a?b", "a#b", "\xc3\xa4", "a\x7f"}) {
    EXPECT_TRUE(path_objection(path)) << path;
  }
}

}  // namespace
}  // namespace brackenfen::sync::distribution
