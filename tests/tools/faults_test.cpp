// The grammar of faults, and which fault decides a request.
#include "tools/distribution/faults.hpp"

#include <gtest/gtest.h>

#include <string>

#include "sync/base/error.hpp"
#include "sync/base/json.hpp"

namespace brackenfen::sync::distribution {
namespace {

/// What a fault does, in a fixed order, for comparison with a table.
std::string describe(const Fault& fault) {
  std::string text = fault.pattern;
  if (fault.status) text += " status " + std::to_string(*fault.status);
  if (!fault.words.empty()) text += " " + write_json(fault.words, JsonForm::Canonical);
  if (fault.delay_seconds > 0) text += " delay " + std::to_string(fault.delay_seconds).substr(0, 4);
  if (fault.drop_after_bytes) text += " drop " + std::to_string(*fault.drop_after_bytes);
  if (fault.reset) text += " reset";
  if (fault.drip_bytes_per_second) text += " drip " + std::to_string(*fault.drip_bytes_per_second);
  if (fault.wrong_bytes) text += " wrong";
  if (fault.ignore_range) text += " no-range";
  if (fault.refuse) text += " refuse";
  if (fault.times) text += " times " + std::to_string(*fault.times);
  if (fault.skip > 0) text += " skip " + std::to_string(fault.skip);
  if (fault.outage) {
    text += " from " + std::to_string(fault.outage->start_seconds).substr(0, 3) + " for " +
            std::to_string(fault.outage->duration_seconds).substr(0, 3);
  }
  return text;
}

struct Row {
  const char* text;
  const char* meaning;
};

TEST(FaultGrammar, readsEverySetting) {
  const Row rows[] = {
      {"/data/files/*:status=503", "/data/files/* status 503"},
      {"  *:delay=.25,times=3 ", "* delay 0.25 times 3"},
      {"/x:drop-after=0,reset,skip=2", "/x drop 0 reset skip 2"},
      {"/x:drip=1,wrong-bytes,no-range", "/x drip 1 wrong no-range"},
      {"*:outage=5+10", "* status 503 from 5.0 for 10."},
      {"*:outage=0.5+1e1,delay=1", "* delay 1.00 from 0.5 for 10."},
      {"*:refuse,outage=1+2", "* refuse from 1.0 for 2.0"},
      {"/x:retryable=false", "/x status 503 {\"retryable\":false}"},
      {"/x:error-code=db_down,reason=it is late: wait,status=500",
       "/x status 500 {\"error_code\":\"db_down\",\"reason\":\"it is late: wait\"}"},
  };
  for (const Row& row : rows) EXPECT_EQ(describe(parse_fault(row.text)), row.meaning) << row.text;
}

TEST(FaultGrammar, saysWhatIsWrong) {
  const Row rows[] = {
      {"", "a fault is PATTERN"},
      {"/x", "a fault is PATTERN"},
      {"x:reset", "a pattern starts with"},
      {"/x:", "there is no setting ''"},
      {"/x:reset,", "there is no setting ''"},
      {"/x:explode", "there is no setting 'explode'"},
      {"/x:status", "status needs a value"},
      {"/x:reset=1", "reset takes no value"},
      {"/x:status=99", "status=99 is not a status from 200 to 599"},
      {"/x:drop-after=-1", "drop-after=-1 is not a whole number from 0"},
      {"/x:drip=0", "drip=0 is not a whole number from 1"},
      {"/x:times=2x", "times=2x is not"},
      {"/x:times=99999999999999999999", "is not a whole number"},
      {"/x:delay=-1", "delay=-1 is not a number of seconds"},
      {"/x:delay=nan", "is not a number of seconds"},
      {"/x:outage=5", "outage=5 is not START+DURATION"},
      {"/x:retryable=maybe", "is not true or false"},
      {"/x:times=1", "nothing is to happen"},
      {"/x:refuse", "pattern must be *"},
      {"*:refuse,times=1", "cannot count"},
  };
  for (const Row& row : rows) {
    try {
      static_cast<void>(parse_fault(row.text));
      ADD_FAILURE() << row.text << " was accepted";
    } catch (const Error& error) {
      EXPECT_NE(error.text().find(row.meaning), std::string::npos) << row.text << ": " << error.text();
    }
  }
}

TEST(FaultGrammar, namesTheLineOfAFile) {
  EXPECT_EQ(parse_fault_lines("# comment\n\n /x:reset \r\n*:status=500").size(), 2U);
  try {
    static_cast<void>(parse_fault_lines("/x:reset\n\n/y:oops\n"));
    FAIL();
  } catch (const Error& error) {
    EXPECT_TRUE(error.text().starts_with("line 3: bad fault '/y:oops'")) << error.text();
  }
}

TEST(FaultTable, firstFaultThatAppliesDecides) {
  FaultTable table({parse_fault("/data/files/*.arrow:drip=5,times=1,skip=1"), parse_fault("/late:outage=1000+1"),
                    parse_fault("/data/*:reset"), parse_fault("*:refuse,outage=1000+1")},
                   "");
  const auto decide = [&](const char* path) {
    const std::shared_ptr<const Fault> fault = table.decide(path);
    return fault ? fault->text : "";
  };
  EXPECT_EQ(decide("/data/files/a/b.arrow"), "/data/*:reset");  // skipped once
  EXPECT_EQ(decide("/data/files/c.arrow"), "/data/files/*.arrow:drip=5,times=1,skip=1");
  EXPECT_EQ(decide("/data/files/c.arrow"), "/data/*:reset");  // used up
  EXPECT_EQ(decide("/late"), "");
  EXPECT_EQ(decide("/era/current"), "");
  EXPECT_FALSE(table.port_is_closed());
}

}  // namespace
}  // namespace brackenfen::sync::distribution
