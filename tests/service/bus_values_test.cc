#include "service/bus_values.h"

#include <gtest/gtest.h>

#include "service/bus_client.h"
#include "service/members.h"

namespace quorvi {
namespace {

TEST(MembersTest, TableFollowsTheNamingRule) {
  const auto& members = allMembers();
  ASSERT_EQ(members.size(), 33u);
  for (std::size_t i = 0; i < members.size(); ++i) {
    const auto& m = members[i];
    EXPECT_EQ(m.number, int(i) + 1);
    // Each selector label capitalised, colons dropped.
    std::string expected;
    bool upper = true;
    for (char c : m.selector) {
      if (c == ':') {
        upper = true;
        continue;
      }
      expected += upper ? char(std::toupper(c)) : c;
      upper = false;
    }
    EXPECT_EQ(m.member, expected);
    EXPECT_EQ(splitSignature(m.inSignature).size(), m.inNames.size()) << m.member;
  }
  EXPECT_EQ(findMember("performQuorviTask:arguments:")->number, 31);
  EXPECT_EQ(findMember("PerformQuorviTaskArgumentsCompletionHandler")->number, 32);
  EXPECT_EQ(findMember("nope"), nullptr);
}

TEST(BusValuesTest, SignaturesSplitIntoValueKinds) {
  EXPECT_EQ(splitSignature("sasx"), (std::vector<std::string>{"s", "as", "x"}));
  EXPECT_EQ(splitSignature("ayxb"), (std::vector<std::string>{"ay", "x", "b"}));
  using T = ReplyValue::Type;
  EXPECT_EQ(replyValueTypes("bsbayx"), (std::vector<T>{T::optionalString, T::optionalBytes, T::integer}));
  EXPECT_EQ(replyValueTypes("b"), (std::vector<T>{T::flag}));
  EXPECT_EQ(replyValueTypes("baybs"), (std::vector<T>{T::optionalBytes, T::optionalString}));
}

TEST(BusValuesTest, InvalidUtf8IsMendedNotDropped) {
  EXPECT_EQ(validUtf8("plain"), "plain");
  EXPECT_EQ(validUtf8("报告"), "报告");
  EXPECT_EQ(validUtf8("a\xff" "b"), "a\xEF\xBF\xBD" "b");
  EXPECT_EQ(validUtf8(std::string("a\0b", 3)), "a\xEF\xBF\xBD" "b");
  EXPECT_EQ(validUtf8("\xC0\xAF"), "\xEF\xBF\xBD\xEF\xBF\xBD");  // overlong
  EXPECT_EQ(validUtf8("\xED\xA0\x80"), "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD");  // surrogate
  EXPECT_EQ(validUtf8("\xE6\x8A"), "\xEF\xBF\xBD\xEF\xBF\xBD");  // cut short
}

TEST(BusValuesTest, WordsBecomeTypedArguments) {
  CallArguments args;
  std::string error;
  ASSERT_TRUE(argumentsFromWords("sasxb", {"q", R"(["/a","b,c"])", "-5", "true"}, args, &error)) << error;
  EXPECT_EQ(args.text(0), "q");
  EXPECT_EQ(args.strings(1), (std::vector<std::string>{"/a", "b,c"}));
  EXPECT_EQ(args.integer(2), -5);
  EXPECT_TRUE(args.flag(3));
  CallArguments list;
  ASSERT_TRUE(argumentsFromWords("as", {"a,b"}, list, &error));
  EXPECT_EQ(list.strings(0), (std::vector<std::string>{"a", "b"}));
  CallArguments empty;
  ASSERT_TRUE(argumentsFromWords("as", {""}, empty, &error));
  EXPECT_TRUE(empty.strings(0).empty());
  CallArguments bad;
  EXPECT_FALSE(argumentsFromWords("x", {"12abc"}, bad, &error));
  EXPECT_FALSE(argumentsFromWords("b", {"maybe"}, bad, &error));
  EXPECT_FALSE(argumentsFromWords("s", {}, bad, &error));
  EXPECT_FALSE(argumentsFromWords("x", {"99999999999999999999"}, bad, &error));
}

}  // namespace
}  // namespace quorvi
