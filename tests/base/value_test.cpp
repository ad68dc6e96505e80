// What Python has no counterpart of; everything else is compared with Python itself, by tests/torture/differential.py.
#include "sync/base/values/value.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "sync/base/values/convert.hpp"
#include "sync/base/values/json.hpp"
#include "tests/support/failures.hpp"

namespace brackenfen::sync {
namespace {

TEST(Value, containersCompareByIdentityFirst) {
  const Value nan = std::nan("");
  EXPECT_TRUE(Value(List{nan}) == Value(List{nan}));
  EXPECT_TRUE((Document{{"a", 1}, {"b", nan}}) == (Document{{"b", nan}, {"a", true}}));
}

TEST(Value, assignmentFromWithinItselfIsSafe) {
  Value value = List{Value(List{"inner"})};
  value = (*value.if_list())[0];
  EXPECT_EQ(value, Value(List{"inner"}));
  value = Value((*value.if_list())[0]);
  EXPECT_EQ(value.if_text(), "inner");
}

TEST(DocumentChange, sharesWhatItDoesNotReplaceAndLeavesTheOriginal) {
  for (const int size : {3, 8, 9, 300}) {
    SCOPED_TRACE(size);
    std::vector<Member> members;
    for (int i = 0; i < size; ++i) members.push_back({"k" + std::to_string(i), List{i}});
    const Document original(members), replaced = original.with("k1", "new"), removed = original.without("k1");
    const Document added = original.with("fresh", 1).with("fresh", 2);
    const std::string last = members.back().key.str();

    EXPECT_EQ(original, Document(members));
    EXPECT_EQ(replaced.begin()[1].value, Value("new"));
    EXPECT_TRUE(replaced.find(last)->same_as(*original.find(last)));
    EXPECT_EQ(added.size(), original.size() + 1);
    EXPECT_EQ((added.end() - 1)->value, Value(2));
    EXPECT_EQ(removed.size(), original.size() - 1);
    EXPECT_FALSE(removed.contains("k1"));
    EXPECT_TRUE(removed.contains(last));
    EXPECT_EQ(removed.with("k1", List{1}), original);
    EXPECT_TRUE(original.without("absent").same_as(original));
  }
}

TEST(Value, nestingOfAnyDepthIsDestroyedWithoutRecursion) {
  Value nested;
  for (int i = 0; i < 1'000'000; ++i)
    nested = i % 2 == 0 ? Value(List{std::move(nested), i}) : Value(Document{{"inner", std::move(nested)}});
  EXPECT_THROW((void)to_quoted(nested), RuntimeError);
  EXPECT_THROW((void)write_json(nested, JsonForm::Canonical), ValueError);
  nested = nullptr;
  EXPECT_TRUE(nested.is_null());
}

TEST(ToInteger, narrowsAndForgivesWhereAsked) {
  EXPECT_EQ(Value(std::uint64_t{9223372036854775808U}), Value::integer_from_decimal("9223372036854775808"));
  EXPECT_EQ(to_int64("-9223372036854775808"), std::numeric_limits<std::int64_t>::min());
  EXPECT_THROW((void)to_int64("9223372036854775808"), OverflowError);
  for (const Value& none : {Value("x"), Value(), Value(std::nan("")), Value(HUGE_VAL)}) EXPECT_EQ(to_integer_or_absent(none), std::nullopt);
  EXPECT_EQ(to_integer_or_absent("7"), Value(7));
}

TEST(Json, refusesLoneSurrogatesAndWritesThemBack) {
  for (const char* document : {R"("\ud800")", R"("\ud800\u0041")"}) {
    EXPECT_EQ(failure_of([&] { return parse_json(document); }),
              "JSONDecodeError: Lone surrogate in \\uXXXX escape: line 1 column 2 (char 1)");  // the X stand for digits
  }
  // It sorts as its code point does: behind every other character below U+E000, before U+E000 and the emoji.
  const Document document{{"\U0001F600", 1}, {"\uE000", 2}, {"\xED\xA0\x80", 3}, {"\uD7FF", 4}};
  EXPECT_EQ(write_json(document, JsonForm::Canonical), R"({"\ud7ff":4,"\ud800":3,"\ue000":2,"\ud83d\ude00":1})");
  EXPECT_EQ(to_quoted("\xED\xA0\x80\xff"), "'\\ud800\\xff'");
}

}  // namespace
}  // namespace brackenfen::sync
