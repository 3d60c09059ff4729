// The contacts index: its search rules, its cache, and loads queued behind
// one another rather than waited for.
#include "contacts/contacts_searchable_indexer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <thread>

#include "contacts/contacts_fixture.h"
#include "support/test_bus.h"

namespace quorvi {
namespace {

using contacts_fixture::vcard;
using namespace std::chrono_literals;

ContactItem item(const std::string& name, const std::string& contact) {
  ContactItem entry;
  entry.identifier = name;
  entry.name = name;
  entry.contact = contact;
  entry.matchs = {name, contact};
  entry.cmatchs = name + " " + contact;
  return entry;
}

std::vector<std::string> namesIn(const OptionalBytes& data) {
  std::vector<std::string> names;
  if (data) {
    for (const auto& entry : Json::parse(*data)) names.push_back(entry["name"]);
  }
  return names;
}

TEST(ContactsSearch, KeywordGroupsCountsAndNil) {
  std::vector<ContactItem> items = {item("anna", "111"), item("bob", "222"), item("anna b", "333"),
                                    item("carl", "anna@example.com")};
  using Names = std::vector<std::string>;
  auto search = [&](std::string_view query, int64_t maxcount) {
    return namesIn(ContactsSearchableIndexer::searchItems(items, query, maxcount));
  };
  EXPECT_EQ(search("anna", 10), (Names{"anna", "anna b", "carl"}));
  EXPECT_EQ(search("anna 3", 10), (Names{"anna b"})) << "AND across terms";
  EXPECT_EQ(search("bob|carl", 10), (Names{"bob", "carl"})) << "OR within a term";
  EXPECT_EQ(search("bob｜carl", 10), (Names{"bob", "carl"})) << "the full-width bar too";
  EXPECT_EQ(search("anna", 2), (Names{"anna", "anna b"}));
  EXPECT_EQ(search("  \t ", 3), (Names{"anna", "bob", "anna b"})) << "white space matches every entry";
  EXPECT_EQ(search("bob", 0), Names{}) << "0 stops after the first entry examined";
  EXPECT_EQ(search("anna", 0), Names{"anna"});
  EXPECT_FALSE(ContactsSearchableIndexer::searchItems(items, "zed", 10)) << "no hit is nil, not []";
  EXPECT_FALSE(ContactsSearchableIndexer::searchItems(items, "anna", -1)) << "a negative count answers nil";
  EXPECT_FALSE(ContactsSearchableIndexer::searchItems({}, "", 10)) << "no entries is nil";
  EXPECT_EQ(search("Anna", 10), Names{}) << "matching is byte-exact: clients send lower case";
}

// Collects the answers of asynchronous searches.
class Answers {
 public:
  ContactsSearchableIndexer::Completion add() {
    return [this](OptionalBytes data) {
      std::lock_guard guard(mutex_);
      answers_.push_back(std::move(data));
      changed_.notify_all();
    };
  }
  std::vector<OptionalBytes> wait(std::size_t count) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, 30s, [&] { return answers_.size() >= count; });
    return answers_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<OptionalBytes> answers_;
};

class ContactsIndexerTest : public ::testing::Test {
 protected:
  ContactsIndexerTest() : events_(eventOptions(home_.path())) {}

  static FileEvents::Options eventOptions(const std::string& home) {
    FileEvents::Options options;
    options.stateDirectory = home + "/state";
    return options;
  }

  std::shared_ptr<ContactsSearchableIndexer> makeIndexer(const std::string& relativeBooks = "contacts") {
    ContactsSearchableIndexer::Options options;
    std::string books = home_.path() + "/" + relativeBooks;
    options.sources = [books, this] {
      ++sourceCalls_;
      AddressBookSources sources;
      sources.vcardPaths = {books};
      return sources;
    };
    options.fileEvents = &events_;
    options.watcherIdentifier = "contacts-test";
    return ContactsSearchableIndexer::make(std::move(options));
  }

  testing::TemporaryDirectory home_;
  FileEvents events_;
  std::atomic<int> sourceCalls_{0};
};

TEST_F(ContactsIndexerTest, SearchesWhileAbsentQueueBehindOneLoad) {
  home_.write("contacts/a.vcf", vcard("a", "Anna", {"+1 555 0100"}));
  contacts_fixture::backdateFolders(home_.path());
  auto indexer = makeIndexer();
  EXPECT_FALSE(indexer->items()) << "nothing is loaded before the first search";

  Answers answers;
  for (int i = 0; i < 6; ++i) indexer->search("anna", 10, answers.add());
  auto replies = answers.wait(6);
  ASSERT_EQ(replies.size(), 6u);
  for (const auto& reply : replies) EXPECT_EQ(namesIn(reply), std::vector<std::string>{"Anna"});
  EXPECT_EQ(indexer->loadCount(), 1u) << "the queued searches found the first load's entries";
  ASSERT_TRUE(indexer->items());

  // With entries in memory the answer comes on the calling thread.
  bool answeredAtOnce = false;
  indexer->search("15550100", 10, [&](OptionalBytes data) { answeredAtOnce = namesIn(data).size() == 1; });
  EXPECT_TRUE(answeredAtOnce);
}

TEST_F(ContactsIndexerTest, TheEntriesStayUntilDroppedAndTheNextSearchLoadsAgain) {
  home_.write("contacts/a.vcf", vcard("a", "Anna", {"1"}));
  contacts_fixture::backdateFolders(home_.path());
  auto indexer = makeIndexer();
  Answers first;
  indexer->search("anna", 10, first.add());
  ASSERT_EQ(first.wait(1).size(), 1u);
  Answers cached;
  indexer->search("anna", 10, cached.add());
  EXPECT_EQ(namesIn(cached.wait(1)[0]), std::vector<std::string>{"Anna"});
  EXPECT_EQ(indexer->loadCount(), 1u) << "nothing changed: the entries in memory answer";

  // (The watcher may drop them too when it sees the new file; either way
  // the one search after the drop loads once.)
  home_.write("contacts/b.vcf", vcard("b", "Anna Two", {"2"}));
  indexer->dropItems();
  EXPECT_FALSE(indexer->items());
  Answers fresh;
  indexer->search("anna", 10, fresh.add());
  EXPECT_EQ(namesIn(fresh.wait(1)[0]), (std::vector<std::string>{"Anna", "Anna Two"}));
  EXPECT_EQ(indexer->loadCount(), 2u);
  EXPECT_EQ(sourceCalls_.load(), 2) << "the sources (settings) are asked again at every load";
}

// Waits (up to a generous limit for a loaded machine) until the condition holds.
template <typename Condition>
bool eventually(Condition&& condition) {
  auto deadline = std::chrono::steady_clock::now() + 20s;
  while (std::chrono::steady_clock::now() < deadline) {
    if (condition()) return true;
    std::this_thread::sleep_for(10ms);
  }
  return condition();
}

TEST_F(ContactsIndexerTest, AChangedVdirDropsTheEntries) {
  home_.write("contacts/work/a.vcf", vcard("a", "Anna", {"1"}));
  contacts_fixture::backdateFolders(home_.path());
  auto indexer = makeIndexer();
  Answers first;
  indexer->search("anna", 10, first.add());
  ASSERT_EQ(first.wait(1).size(), 1u);
  events_.waitUntilIdle();
  ASSERT_TRUE(indexer->items());

  // A card rewritten in place, a card added in a new collection folder.
  home_.write("contacts/work/a.vcf", vcard("a", "Anna Renamed", {"1"}));
  ASSERT_TRUE(eventually([&] { return !indexer->items(); })) << "the rewrite was not noticed";
  Answers renamed;
  indexer->search("anna", 10, renamed.add());
  EXPECT_EQ(namesIn(renamed.wait(1)[0]), std::vector<std::string>{"Anna Renamed"});
  events_.waitUntilIdle();

  home_.write("contacts/home/b.vcf", vcard("b", "Anna Home", {"2"}));
  ASSERT_TRUE(eventually([&] { return !indexer->items(); })) << "the new folder was not noticed";
  Answers added;
  indexer->search("anna", 10, added.add());
  EXPECT_EQ(namesIn(added.wait(1)[0]), (std::vector<std::string>{"Anna Home", "Anna Renamed"}));
}

TEST_F(ContactsIndexerTest, AFolderThatAppearsLaterIsWatched) {
  auto indexer = makeIndexer();
  Answers none;
  indexer->search("", 10, none.add());
  EXPECT_FALSE(none.wait(1)[0]) << "no folder yet";
  events_.waitUntilIdle();

  home_.write("contacts/late/a.vcf", vcard("a", "Late Anna", {"1"}));
  ASSERT_TRUE(eventually([&] { return !indexer->items(); }));
  Answers late;
  indexer->search("late", 10, late.add());
  EXPECT_EQ(namesIn(late.wait(1)[0]), std::vector<std::string>{"Late Anna"});
}

TEST_F(ContactsIndexerTest, FoldersSeveralLevelsDeepAppearingRightAfterTheFirstSearch) {
  auto indexer = makeIndexer(".local/share/contacts");
  Answers none;
  indexer->search("", 10, none.add());
  EXPECT_FALSE(none.wait(1)[0]);
  // No wait for the watches: the folders may appear while they are being set.
  home_.write(".local/share/contacts/a.vcf", vcard("a", "Deep Anna", {"1"}));
  ASSERT_TRUE(eventually([&] { return !indexer->items(); }));
  Answers deep;
  indexer->search("deep", 10, deep.add());
  EXPECT_EQ(namesIn(deep.wait(1)[0]), std::vector<std::string>{"Deep Anna"});
}

TEST_F(ContactsIndexerTest, EmptyAddressBooksAndNegativeCountsAnswerNil) {
  auto indexer = makeIndexer();
  Answers answers;
  indexer->search("", 10, answers.add());
  auto replies = answers.wait(1);
  ASSERT_EQ(replies.size(), 1u);
  EXPECT_FALSE(replies[0]) << "no address book: nil";
  ASSERT_TRUE(indexer->items());
  EXPECT_TRUE(indexer->items()->empty());

  bool called = false, hadData = true;
  indexer->search("x", -5, [&](OptionalBytes data) { called = true, hadData = data.has_value(); });
  EXPECT_TRUE(called);
  EXPECT_FALSE(hadData);
}

}  // namespace
}  // namespace quorvi
