// The grammar of faults; which fault decides a request, serve_test.py tells.
#include "tools/distribution/faults.hpp"

#include <gmock/gmock.h>

#include "tests/support/failures.hpp"

namespace brackenfen::sync::distribution {
namespace {

using testing::HasSubstr;

struct Row {
  const char* text;
  const char* meaning;
};

TEST(FaultGrammar, saysWhatIsWrong) {
  const Row rows[] = {
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
  for (const Row& row : rows) {
    EXPECT_THAT(failure_of([&] { return parse_fault(row.text); }), HasSubstr(row.meaning)) << row.text;
  }
}

TEST(FaultGrammar, namesTheLineOfAFile) {
  EXPECT_EQ(parse_fault_lines("# comment\n\n /x:reset \r\n*:status=500").size(), 2U);
  EXPECT_THAT(failure_of([] { return parse_fault_lines("/x:reset\n\n/y:oops\n"); }), HasSubstr(": line 3: bad fault '/y:oops'"));
}

}  // namespace
}  // namespace brackenfen::sync::distribution
