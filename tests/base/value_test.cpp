#include "sync/base/value.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "sync/base/json.hpp"

namespace brackenfen::sync {
namespace {

Value big(const char* decimal) { return Value::integer_from_decimal(decimal); }

TEST(Value, comparesNumbersAsPythonDoes) {
  const double two_to_63 = 9223372036854775808.0;
  const struct {
    Value left;
    Value right;
    bool equal;
  } rows[] = {
      {1, 1.0, true},
      {1, true, true},
      {0.0, false, true},
      {-0.0, 0, true},
      {2, true, false},
      {1, "1", false},
      {nullptr, false, false},
      {std::nan(""), std::nan(""), false},
      {std::int64_t{9007199254740993}, 9007199254740992.0, false},
      {std::numeric_limits<std::int64_t>::max(), two_to_63, false},
      {std::numeric_limits<std::int64_t>::min(), -two_to_63, true},
      {big("9223372036854775808"), two_to_63, true},
      {std::uint64_t{9223372036854775808U}, big("9223372036854775808"), true},
      {big("1000000000000000000000000000000"), 1e30, false},
      {big("1000000000000000019884624838656"), 1e30, true},
      {big("9223372036854775808"), std::numeric_limits<double>::infinity(), false},
      {big("-000123"), -123, true},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(write_json(List{row.left, row.right}, JsonForm::Canonical));
    EXPECT_EQ(row.left == row.right, row.equal);
    EXPECT_EQ(row.right == row.left, row.equal);
  }
}

TEST(Value, containersCompareByIdentityFirst) {
  const Value nan = std::nan("");
  EXPECT_FALSE(nan == nan);
  EXPECT_TRUE(Value(List{nan}) == Value(List{nan}));
  EXPECT_TRUE((Document{{"a", 1}, {"b", nan}}) == (Document{{"b", nan}, {"a", true}}));
  EXPECT_FALSE((Document{{"a", 1}}) == (Document{{"a", 1}, {"b", 2}}));
  EXPECT_FALSE((List{1, 2}) == (List{2, 1}));
}

TEST(Value, emptyAndZeroAreFalse) {
  for (const Value& value : {Value(), Value(false), Value(0), Value(-0.0), Value(""), Value(List()), Value(Document())})
    EXPECT_FALSE(value.truthy());
  for (const Value& value : {Value(true), Value(-1), Value(std::nan("")), Value("0"), Value(List{Value()}), big("-99999999999999999999")}) {
    EXPECT_TRUE(value.truthy());
  }
}

TEST(Value, assignmentFromWithinItselfIsSafe) {
  Value value = List{Value(List{"inner"})};
  value = (*value.if_list())[0];
  EXPECT_EQ(value, Value(List{"inner"}));
  value = Value((*value.if_list())[0]);
  EXPECT_EQ(value.if_text(), "inner");
}

TEST(Document, repeatedKeysKeepTheFirstPositionAndTheLastValue) {
  for (const int distinct : {3, 100}) {
    std::vector<Member> members;
    for (int round = 0; round < 2; ++round) {
      for (int i = 0; i < distinct; ++i) members.push_back({"key" + std::to_string(i), round * 1000 + i});
    }
    const Document document(std::move(members));
    ASSERT_EQ(document.size(), static_cast<std::size_t>(distinct));
    for (int i = 0; i < distinct; ++i) {
      EXPECT_EQ(document.begin()[i].key.view(), "key" + std::to_string(i));
      EXPECT_EQ(document.get("key" + std::to_string(i)), Value(1000 + i));
    }
    EXPECT_TRUE(document.get("absent").is_null());
  }
}

class DocumentChange : public ::testing::TestWithParam<int> {
 protected:
  Document document() const {
    std::vector<Member> members;
    for (int i = 0; i < GetParam(); ++i) members.push_back({"k" + std::to_string(i), List{i}});
    return Document(std::move(members));
  }
};

TEST_P(DocumentChange, sharesWhatItDoesNotReplaceAndLeavesTheOriginal) {
  const Document original = document();
  const Document replaced = original.with("k1", "new");
  const Document added = original.with("fresh", 1).with("fresh", 2);
  const Document removed = original.without("k1");
  const auto last = "k" + std::to_string(GetParam() - 1);

  EXPECT_EQ(original, document());
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
INSTANTIATE_TEST_SUITE_P(Sizes, DocumentChange, ::testing::Values(3, 8, 9, 300));

TEST(Value, nestingOfAnyDepthIsDestroyedWithoutRecursion) {
  Value nested;
  for (int i = 0; i < 1'000'000; ++i)
    nested = i % 2 == 0 ? Value(List{std::move(nested), i}) : Value(Document{{"inner", std::move(nested)}});
  nested = nullptr;
  EXPECT_TRUE(nested.is_null());
}

}  // namespace
}  // namespace brackenfen::sync
