// Small rules of the distribution tool: ranges, kinds, paths, the grammar of faults.
#include <gmock/gmock.h>

#include <optional>
#include <string>
#include <string_view>

#include "tests/support/failures.hpp"
#include "tools/distribution/faults.hpp"
#include "tools/distribution/kinds.hpp"
#include "tools/distribution/range.hpp"
#include "tools/distribution/tree.hpp"

namespace brackenfen::sync::distribution {
namespace {

TEST(Range, answersAsHttpSays) {
  const RangeAnswer whole{RangeVerdict::Whole, {0, 100}};
  const RangeAnswer none{RangeVerdict::Unsatisfiable, {}};
  const auto part = [](std::int64_t first, std::int64_t length) { return RangeAnswer{RangeVerdict::Partial, {first, length}}; };
  const std::pair<const char*, RangeAnswer> rows[] = {
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
  for (const auto& [header, answer] : rows) EXPECT_EQ(answer_range(header, 100), answer) << header;
  EXPECT_EQ(answer_range(std::nullopt, 100), whole);
  EXPECT_EQ(answer_range("bytes=0-", 0), none);
}

TEST(Kinds, followFromThePathAlone) {
  const std::pair<const char*, const char*> rows[] = {
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
  for (const auto& [path, kind] : rows) EXPECT_EQ(classify_artifact(path).kind, kind) << path;
}

TEST(Paths, thatClientsCannotFetchAreNamed) {
  for (const std::string_view path : {"a/b.arrow", "a..b/c", "~x", "a+b=c&d;e:f@g,h!", "[x]"}) EXPECT_FALSE(path_objection(path)) << path;
  for (const std::string_view path :
       {"", "a//b", "/a", "a/", "a/../b", "./a", "a b", "a\tb", "a\\b", "a%20b", "a?b", "a#b", "\xc3\xa4", "a\x7f"}) {
    EXPECT_TRUE(path_objection(path)) << path;
  }
}

TEST(FaultGrammar, saysWhatIsWrong) {
  const std::pair<const char*, const char*> rows[] = {
      {"", "a fault is PATTERN"},
      {"/x", "a fault is PATTERN"},
      {"x:reset", "a pattern starts with"},
      {"/x:explode", "there is no setting 'explode'"},
      {"/x:status", "status needs a value"},
      {"/x:reset=1", "reset takes no value"},
      {"/x:status=99", "status=99 is not a status from 200 to 599"},
      {"/x:drop-after=-1", "drop-after=-1 is not a whole number from 0"},
      {"/x:drip=0", "drip=0 is not a whole number from 1"},
      {"/x:times=99999999999999999999", "is not a whole number"},
      {"/x:delay=nan", "is not a number of seconds"},
      {"/x:outage=5", "outage=5 is not START+DURATION"},
      {"/x:retryable=maybe", "is not true or false"},
      {"/x:times=1", "nothing is to happen"},
      {"/x:refuse", "pattern must be *"},
      {"*:refuse,times=1", "cannot count"},
  };
  for (const auto& [text, meaning] : rows) {
    EXPECT_THAT(failure_of([&fault = text] { return parse_fault(fault); }), testing::HasSubstr(meaning)) << text;
  }
}

TEST(FaultGrammar, namesTheLineOfAFile) {
  EXPECT_EQ(parse_fault_lines("# comment\n\n /x:reset \r\n*:status=500").size(), 2U);
  EXPECT_THAT(failure_of([] { return parse_fault_lines("/x:reset\n\n/y:oops\n"); }), testing::HasSubstr(": line 3: bad fault '/y:oops'"));
}

}  // namespace
}  // namespace brackenfen::sync::distribution
