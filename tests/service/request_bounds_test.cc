// What a request past the bounds is answered, member by member, and what
// passes unchanged.
#include "service/request_bounds.h"

#include "service/bus_client.h"

#include <gtest/gtest.h>

namespace quorvi {
namespace {

CallArguments argumentsOf(const std::string& member, const std::vector<std::string>& words) {
  CallArguments arguments;
  std::string error;
  EXPECT_TRUE(argumentsFromWords(findMember(member)->inSignature, words, arguments, &error)) << error;
  return arguments;
}

std::optional<std::vector<ReplyValue>> bounded(const std::string& member, CallArguments& arguments) {
  return applyRequestBounds(*findMember(member), arguments);
}

std::optional<std::vector<ReplyValue>> bounded(const std::string& member, const std::vector<std::string>& words) {
  CallArguments arguments = argumentsOf(member, words);
  return bounded(member, arguments);
}

bool answersNil(const std::optional<std::vector<ReplyValue>>& values) {
  return values && values->size() == 1 && values->at(0).type == ReplyValue::Type::optionalBytes &&
         !values->at(0).text();
}

TEST(RequestBoundsTest, QueriesAreBoundedInBytesAndTerms) {
  const std::string longest(RequestBounds::kMaxQueryBytes, 'q');
  EXPECT_FALSE(bounded("SearchFilesWithQueryMaxcountCompletion", {longest, "10"}));
  EXPECT_TRUE(answersNil(bounded("SearchFilesWithQueryMaxcountCompletion", {longest + "q", "10"})));
  EXPECT_TRUE(answersNil(bounded("SearchFoldersWithQueryMaxcountCompletionHandler", {longest + "q", "10"})));
  EXPECT_TRUE(answersNil(bounded("SearchFilesInQueryMaxcountCompletionHandler", {"/home", longest + "q", "1"})));

  // Terms: AND groups and their OR alternatives together.
  std::string terms;
  for (std::size_t i = 0; i < RequestBounds::kMaxQueryTerms; ++i) terms += (i % 2 ? " t" : "|t") + std::to_string(i);
  EXPECT_FALSE(bounded("SearchFilesWithQueryMaxcountCompletion", {terms, "10"})) << terms;
  EXPECT_TRUE(answersNil(bounded("SearchFilesWithQueryMaxcountCompletion", {terms + " one-more", "10"})));
  EXPECT_TRUE(answersNil(bounded("SearchFilesWithQueryMaxcountCompletion", {terms + "|one-more", "10"})));
  // Blanks and bars alone are no terms.
  EXPECT_FALSE(bounded("SearchFilesWithQueryMaxcountCompletion", {std::string(900, ' ') + "||||", "10"}));

  // Other search texts (metadata queries, contacts) are bounded in bytes only.
  EXPECT_TRUE(answersNil(bounded("SearchContactsWithQueryMaxcountCompletionHandler", {longest + "q", "5"})));
  EXPECT_FALSE(bounded("SearchContactsWithQueryMaxcountCompletionHandler", {terms + " a b c", "5"}));
}

TEST(RequestBoundsTest, MaxcountIsLoweredToWhatOneReplyCarries) {
  for (const auto& [member, words, position] : std::vector<std::tuple<std::string, std::vector<std::string>, int>>{
           {"SearchFilesWithQueryMaxcountCompletion", {"a", "1000000000"}, 1},
           {"SearchFilesInQueryMaxcountCompletionHandler", {"/d", "a", "9223372036854775807"}, 2},
           {"SearchFoldersWithQueryMaxcountCompletionHandler", {"a", "10001"}, 1},
           {"QuerySpotlightByNameWithKeywordSearchScopesMaxcountCompletion", {"a", "", "1000000000"}, 2},
           {"SearchContactsWithQueryMaxcountCompletionHandler", {"a", "1000000000"}, 1}}) {
    CallArguments arguments = argumentsOf(member, words);
    EXPECT_FALSE(bounded(member, arguments)) << member;
    EXPECT_EQ(arguments.integer(position), RequestBounds::kMaxReplyRecords) << member;
  }
  // Within the cap, and below zero, maxcount is the component's affair.
  for (const char* count : {"20", "0", "-5", "10000"}) {
    CallArguments arguments = argumentsOf("SearchFilesWithQueryMaxcountCompletion", {"a", count});
    EXPECT_FALSE(bounded("SearchFilesWithQueryMaxcountCompletion", arguments));
    EXPECT_EQ(arguments.integer(1), std::stoll(count));
  }
}

TEST(RequestBoundsTest, PathsScopesAndTaskArgumentsAnswerEachMembersFailureShape) {
  const std::string longPath = "/" + std::string(RequestBounds::kMaxPathBytes, 'p');
  const std::string path = "/" + std::string(RequestBounds::kMaxPathBytes - 1, 'p');

  auto contains = bounded("ContainsFileAtCompletionHandler", {longPath});
  ASSERT_TRUE(contains);
  ASSERT_EQ(contains->size(), 1u);
  EXPECT_EQ(contains->at(0).type, ReplyValue::Type::flag);
  EXPECT_FALSE(contains->at(0).flag);
  EXPECT_FALSE(bounded("ContainsFileAtCompletionHandler", {path}));

  auto zotero = bounded("IndexZoteroAtUseCacheIfAvailableCompletion", {longPath, "true"});
  ASSERT_TRUE(zotero && zotero->size() == 2);
  EXPECT_FALSE(zotero->at(0).text());
  EXPECT_EQ(zotero->at(1).value, "Zotero Library Not Exist");

  auto attributes = bounded("GetFileAttributesWithPathCompletionHandler", {longPath});
  ASSERT_TRUE(attributes && attributes->size() == 2);
  EXPECT_FALSE(attributes->at(0).text());
  EXPECT_EQ(attributes->at(1).value, longPath);  // the key is echoed, as for any failure

  auto recent = bounded("GetRecentDocumentsWithBundleIdentifierCompletion", {longPath});
  ASSERT_TRUE(recent && recent->size() == 2);
  EXPECT_EQ(recent->at(0).value, longPath);
  EXPECT_FALSE(recent->at(1).text());

  EXPECT_TRUE(answersNil(bounded("GetDirectoryFilesSkipHiddenFilesCompletionHandler", {longPath, "true"})));
  EXPECT_TRUE(answersNil(bounded("SearchFilesInQueryMaxcountCompletionHandler", {longPath, "a", "1"})));

  // Members without reply values are dropped: an empty answer list.
  std::string manyScopes = "[";
  for (std::size_t i = 0; i <= RequestBounds::kMaxScopes; ++i) manyScopes += std::string(i ? "," : "") + "\"/s\"";
  manyScopes += "]";
  auto start = bounded("StartIndexFilesWithSearchScopes", {manyScopes});
  ASSERT_TRUE(start);
  EXPECT_TRUE(start->empty());
  EXPECT_TRUE(bounded("FileIndexAddWithSearchScopes", {"[\"" + longPath + "\"]"}));
  EXPECT_FALSE(bounded("FileIndexAddWithSearchScopes", {"[\"" + path + "\", \"/b\"]"}));
  EXPECT_TRUE(answersNil(bounded("QuerySpotlightByNameWithKeywordSearchScopesMaxcountCompletion",
                                 {"a", manyScopes, "5"})));

  std::string manyArguments = "[";
  for (std::size_t i = 0; i <= RequestBounds::kMaxTaskArguments; ++i) manyArguments += std::string(i ? "," : "") + "\"a\"";
  manyArguments += "]";
  EXPECT_TRUE(answersNil(bounded("PerformQuorviTaskArgumentsCompletionHandler", {"getInfo", manyArguments})));
  auto fireAndForget = bounded("PerformQuorviTaskArguments", {"getInfo", manyArguments});
  ASSERT_TRUE(fireAndForget);
  EXPECT_TRUE(fireAndForget->empty());
  std::string bigArgument = "[\"" + std::string(RequestBounds::kMaxTaskArgumentBytes, 'x') + "\"]";
  EXPECT_TRUE(answersNil(bounded("PerformQuorviTaskArgumentsCompletionHandler", {"getInfo", bigArgument})));
  EXPECT_FALSE(bounded("PerformQuorviTaskArgumentsCompletionHandler", {"getInfo", "[\"a\", \"\", \"b\"]"}));
}

}  // namespace
}  // namespace quorvi
