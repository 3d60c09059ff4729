// The content database: words found whatever their case, accents or script,
// renames and removals, and what a crash leaves.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

#include "contentindex/content_store.h"
#include "support/test_bus.h"

namespace quorvi::testing {
namespace {

class ContentStoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    store_ = ContentStore::open(path(), ContentStore::Mode::write);
    ASSERT_TRUE(store_);
  }
  std::string path() const { return dir_.path() + "/content.sqlite3"; }
  void put(const std::string& path, const std::string& text, int64_t time = 1) {
    ASSERT_TRUE(store_->write({{path, {time, 1}, text}}));
  }
  std::vector<std::string> find(const std::string& expression, std::size_t limit = 100) {
    std::vector<std::string> paths;
    EXPECT_TRUE(store_->search(expression, limit, [&](const ContentHit& hit) {
      paths.push_back(hit.path);
      return true;
    }));
    return paths;
  }
  std::vector<std::string> word(const std::string& w, bool prefix = true) { return find(ftsTermOfWord(w, prefix)); }

  TemporaryDirectory dir_;
  std::unique_ptr<ContentStore> store_;
};

TEST_F(ContentStoreTest, WordsAreFoundByPrefixWithoutCaseOrAccents) {
  put("/d/a.txt", "Quarterly REVENUE report, Café crème");
  put("/d/b.txt", "nothing here");
  EXPECT_EQ(word("quarter"), std::vector<std::string>{"/d/a.txt"});
  EXPECT_TRUE(word("quarter", false).empty());  // a whole word only when asked
  EXPECT_EQ(word("quarterly", false), std::vector<std::string>{"/d/a.txt"});
  EXPECT_EQ(word("revenue"), std::vector<std::string>{"/d/a.txt"});
  EXPECT_EQ(word("cafe"), std::vector<std::string>{"/d/a.txt"});
  EXPECT_EQ(word("CRÈME"), std::vector<std::string>{"/d/a.txt"});
  EXPECT_TRUE(word("port").empty());  // not at the start of a word
}

TEST_F(ContentStoreTest, ChineseIsFoundByAnyPartOfAWord) {
  put("/d/zh.txt", "我们的年度报告书已经完成。Q3报告");
  put("/d/other.txt", "报纸和书");
  EXPECT_EQ(word("报告"), std::vector<std::string>({"/d/zh.txt"}));
  EXPECT_EQ(word("年度"), std::vector<std::string>({"/d/zh.txt"}));
  EXPECT_EQ(word("告书"), std::vector<std::string>({"/d/zh.txt"}));
  EXPECT_EQ(word("q3"), std::vector<std::string>({"/d/zh.txt"}));
  EXPECT_TRUE(word("报书").empty());  // characters must be adjacent
  auto both = word("报");
  std::sort(both.begin(), both.end());
  EXPECT_EQ(both, std::vector<std::string>({"/d/other.txt", "/d/zh.txt"}));
}

TEST_F(ContentStoreTest, QueryTextNeverBreaksTheExpression) {
  put("/d/a.txt", "alpha \"quoted\" AND OR NOT NEAR(x) * ^");
  for (std::string w : {"\"quoted", "AND", "NEAR(x)", "a\"b", "^", "*", "\"", "("}) {
    std::string term = ftsTermOfWord(w, true);
    if (term.empty()) continue;
    std::vector<std::string> paths;
    EXPECT_TRUE(store_->search(term, 10, [&](const ContentHit& hit) {
      paths.push_back(hit.path);
      return true;
    })) << w;
  }
  EXPECT_EQ(word("and"), std::vector<std::string>{"/d/a.txt"});
  EXPECT_TRUE(ftsTermOfWord("*^()", true).empty());
}

TEST_F(ContentStoreTest, NewestFirstAndOnlyAdmittedHitsCount) {
  for (int i = 0; i < 5; ++i) put("/d/" + std::to_string(i) + ".txt", "shared word", i);
  EXPECT_EQ(word("shared"), std::vector<std::string>({"/d/4.txt", "/d/3.txt", "/d/2.txt", "/d/1.txt", "/d/0.txt"}));
  std::vector<std::string> seen, kept;
  ASSERT_TRUE(store_->search(ftsTermOfWord("shared", true), 2, [&](const ContentHit& hit) {
    seen.push_back(hit.path);
    bool admit = hit.path != "/d/4.txt";
    if (admit) kept.push_back(hit.path);
    return admit;
  }));
  EXPECT_EQ(kept, std::vector<std::string>({"/d/3.txt", "/d/2.txt"}));
  EXPECT_EQ(seen.size(), 3u);
}

TEST_F(ContentStoreTest, RewrittenRemovedAndMovedDocuments) {
  put("/d/a/x.txt", "old words");
  put("/d/a/y.txt", "more words");
  put("/d/ab/z.txt", "words next door");
  put("/d/a/x.txt", "new text");
  EXPECT_TRUE(word("old").empty());
  EXPECT_EQ(word("new"), std::vector<std::string>{"/d/a/x.txt"});
  EXPECT_EQ(store_->documentCount(), 3);

  ASSERT_TRUE(store_->move("/d/a", "/d/c"));
  EXPECT_EQ(word("new"), std::vector<std::string>{"/d/c/x.txt"});
  EXPECT_EQ(word("next"), std::vector<std::string>{"/d/ab/z.txt"});  // a neighbour with a longer name stays
  ASSERT_TRUE(store_->move("/d/c/y.txt", "/d/c/x.txt"));            // onto an existing document
  EXPECT_TRUE(word("new").empty());
  EXPECT_EQ(word("more"), std::vector<std::string>{"/d/c/x.txt"});

  ASSERT_TRUE(store_->removeUnder("/d/c"));
  EXPECT_TRUE(word("more").empty());
  EXPECT_EQ(store_->documentCount(), 1);
  ASSERT_TRUE(store_->remove({"/d/ab/z.txt"}));
  EXPECT_EQ(store_->documentCount(), 0);
  EXPECT_TRUE(word("words").empty());
}

TEST_F(ContentStoreTest, FailedDocumentsAreRememberedWithoutText) {
  ASSERT_TRUE(store_->write({{"/d/broken.pdf", {7, 9}, std::nullopt}}));
  auto stored = store_->document("/d/broken.pdf");
  ASSERT_TRUE(stored);
  EXPECT_FALSE(stored->hasText);
  EXPECT_EQ(stored->stamp, (DocumentStamp{7, 9}));
  EXPECT_EQ(store_->documentsWithTextCount(), 0);
}

TEST_F(ContentStoreTest, AWriterKilledMidTransactionLeavesTheLastCommit) {
  put("/d/kept.txt", "committed words");
  store_.reset();
  pid_t child = ::fork();
  if (child == 0) {
    auto store = ContentStore::open(path(), ContentStore::Mode::write);
    sqlite3_exec(store->handle(), "BEGIN IMMEDIATE", nullptr, nullptr, nullptr);
    sqlite3_exec(store->handle(), "INSERT INTO documents(path, modificationTime, size, hasText) VALUES('/d/half', 1, 1, 1)",
                 nullptr, nullptr, nullptr);
    sqlite3_exec(store->handle(), "INSERT INTO content(rowid, text) VALUES(last_insert_rowid(), 'uncommitted')", nullptr,
                 nullptr, nullptr);
    ::_exit(0);  // dies holding the transaction
  }
  int status = 0;
  ::waitpid(child, &status, 0);
  store_ = ContentStore::open(path(), ContentStore::Mode::write);
  ASSERT_TRUE(store_);
  EXPECT_EQ(store_->documentCount(), 1);
  EXPECT_TRUE(word("uncommitted").empty());
  EXPECT_EQ(word("committed"), std::vector<std::string>{"/d/kept.txt"});
  sqlite3_stmt* check = nullptr;
  sqlite3_prepare_v2(store_->handle(), "PRAGMA integrity_check", -1, &check, nullptr);
  ASSERT_EQ(sqlite3_step(check), SQLITE_ROW);
  EXPECT_STREQ(reinterpret_cast<const char*>(sqlite3_column_text(check, 0)), "ok");
  sqlite3_finalize(check);
}

TEST_F(ContentStoreTest, ADamagedFileIsReplacedByAnEmptyIndex) {
  store_.reset();
  dir_.write("content.sqlite3", std::string(8192, 'x'));
  dir_.write("content.sqlite3-wal", "");
  store_ = ContentStore::open(path(), ContentStore::Mode::write);
  ASSERT_TRUE(store_);
  EXPECT_EQ(store_->documentCount(), 0);
  put("/d/a.txt", "works again");
  EXPECT_EQ(word("works"), std::vector<std::string>{"/d/a.txt"});
  // A reader never replaces anything.
  EXPECT_FALSE(ContentStore::open(dir_.path() + "/none.sqlite3", ContentStore::Mode::read));
}

}  // namespace
}  // namespace quorvi::testing
