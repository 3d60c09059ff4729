// The metadata operations as a client sees them: a private dbus-daemon, the
// real quorvifind indexing a temporary home, calls over the bus.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <chrono>
#include <thread>

#include "common/json.h"
#include "contentindex/document_maker.h"
#include "support/test_bus.h"

namespace quorvi::testing {
namespace {

using namespace std::chrono_literals;

class SpotlightServiceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(bus_.ok());
    docs_ = home_.path() + "/docs";
    quarterly_ = home_.write("docs/Quarterly Report.txt", "harvest festival numbers");
    notes_ = home_.write("docs/notes.md", "zephyr winds and 年度报告");
    pdf_ = home_.write("docs/paper.pdf", makePdf({"Zephyr gusts measured"}));
    home_.write(".local/share/recently-used.xbel",
                "<?xml version=\"1.0\"?><xbel version=\"1.0\" "
                "xmlns:bookmark=\"http://www.freedesktop.org/standards/desktop-bookmarks\"><bookmark href=\"file://" +
                    notes_ + "\" added=\"2024-01-01T00:00:00Z\" modified=\"2024-01-01T00:00:00Z\" "
                    "visited=\"2024-05-01T00:00:00Z\"><info><metadata owner=\"http://freedesktop.org\">"
                    "<bookmark:applications><bookmark:application name=\"gedit\" exec=\"&apos;gedit %u&apos;\" "
                    "modified=\"2024-05-01T00:00:00Z\" count=\"2\"/></bookmark:applications></metadata></info>"
                    "</bookmark></xbel>");
    // Long unused: only the recently-used list says notes.md was opened.
    for (const auto& path : {quarterly_, notes_, pdf_}) {
      timespec times[2] = {{1600000100, 0}, {1600000000, 0}};
      ::utimensat(AT_FDCWD, path.c_str(), times, 0);
    }
    // The system's MIME database, for kinds and their descriptions.
    service_ = std::make_unique<ServiceProcess>(
        bus_, home_.path(), std::map<std::string, std::string>{{"XDG_DATA_DIRS", "/usr/local/share:/usr/share"},
                                                               {"LANGUAGE", "en"}});
    ASSERT_TRUE(service_->ok()) << service_->output();
    client_ = bus_.connect();
    ASSERT_TRUE(client_);
  }

  BusClient::CallResult call(const std::string& member, const std::vector<std::string>& words) {
    return callMember(*client_, member, words, 30s);
  }
  std::optional<Json> json(const BusClient::CallResult& result, std::size_t index = 0) {
    if (!result.ok || result.values.size() <= index || !result.values[index].value) return std::nullopt;
    return Json::parse(*result.values[index].value);
  }
  void indexDocs() {
    ASSERT_TRUE(call("StartIndexFilesWithSearchScopes", {"[\"" + docs_ + "\"]"}).ok);
    auto deadline = std::chrono::steady_clock::now() + 60s;
    while (std::chrono::steady_clock::now() < deadline) {
      auto description = json(call("GetFileIndexResultDescriptionWithCompletion", {}));
      if (description && (*description)["isReady"] == true) return;
      std::this_thread::sleep_for(50ms);
    }
    FAIL() << "the file index never became ready";
  }
  std::string scopes() const { return "[\"" + docs_ + "\"]"; }

  TestBus bus_;
  TemporaryDirectory home_;
  std::string docs_, quarterly_, notes_, pdf_;
  std::unique_ptr<ServiceProcess> service_;
  std::unique_ptr<BusClient> client_;
};

TEST_F(SpotlightServiceTest, NameAndContentQueries) {
  indexDocs();
  auto byName = json(call("QuerySpotlightByNameWithKeywordSearchScopesMaxcountCompletion", {"quart rep", scopes(), "10"}));
  ASSERT_TRUE(byName);
  ASSERT_EQ(byName->size(), 1u) << byName->dump();
  EXPECT_EQ((*byName)[0].dump(),
            Json({{"nameOfDisplay", "Quarterly Report.txt"}, {"path", quarterly_}, {"contentType", "public.plain-text"},
                  {"isDir", false}, {"lastUsedTimestamp", (*byName)[0]["lastUsedTimestamp"]}})
                .dump());
  // Empty scopes: the query fails, which the operation answers as an empty list.
  auto noScopes = json(call("QuerySpotlightByNameWithKeywordSearchScopesMaxcountCompletion", {"quart", "[]", "10"}));
  ASSERT_TRUE(noScopes);
  EXPECT_TRUE(noScopes->empty());

  // The content index builds in the background: ask until it has the text.
  std::optional<Json> byContent;
  auto deadline = std::chrono::steady_clock::now() + 120s;
  while (std::chrono::steady_clock::now() < deadline) {
    byContent = json(call("QuerySpotlightByNameAndContentsWithKeywordSearchScopesMaxcountCompletion", {"zephyr", scopes(), "10"}));
    if (byContent && byContent->size() == 2) break;
    std::this_thread::sleep_for(100ms);
  }
  ASSERT_TRUE(byContent);
  ASSERT_EQ(byContent->size(), 2u) << byContent->dump();
  std::set<std::string> found = {(*byContent)[0]["path"], (*byContent)[1]["path"]};
  EXPECT_EQ(found, std::set<std::string>({notes_, pdf_}));
  auto chinese = json(call("QuerySpotlightByNameAndContentsWithKeywordSearchScopesMaxcountCompletion", {"报告", scopes(), "10"}));
  ASSERT_TRUE(chinese);
  ASSERT_EQ(chinese->size(), 1u);
  EXPECT_EQ((*chinese)[0]["path"], notes_);

  auto snapshot = json(call("GetPerformanceSnapshotWithCompletion", {}));
  ASSERT_TRUE(snapshot);
  ASSERT_TRUE(snapshot->contains("contentIndex")) << snapshot->dump();
  EXPECT_EQ((*snapshot)["contentIndex"]["documents"], 3);
  EXPECT_EQ((*snapshot)["contentIndex"]["started"], true);
}

TEST_F(SpotlightServiceTest, RecentFilesAndDocumentsOfAnApplication) {
  indexDocs();
  auto recent = json(call("GetRecentFilesWithSearchScopesCompletionHandler", {scopes()}));
  ASSERT_TRUE(recent);
  ASSERT_FALSE(recent->empty());
  EXPECT_EQ((*recent)[0]["path"], notes_) << recent->dump();  // the list's visit is the latest use
  for (const auto& item : *recent) EXPECT_EQ(item["isDir"], false);
  // Reading the documents for the content index is no use of them.
  for (std::size_t i = 1; i < recent->size(); ++i) EXPECT_LE((*recent)[i]["lastUsedTimestamp"], 1600000100.0);

  auto documents = call("GetRecentDocumentsWithBundleIdentifierCompletion", {"gedit"});
  ASSERT_TRUE(documents.ok);
  EXPECT_EQ(documents.values[0].value, "gedit");
  auto list = json(documents, 1);
  ASSERT_TRUE(list);
  ASSERT_EQ(list->size(), 1u);
  EXPECT_EQ((*list)[0]["path"], notes_);
  EXPECT_EQ((*list)[0]["name"], "notes.md");
  EXPECT_EQ((*list)[0]["date"], 1714521600.0 - 978307200.0);
  auto none = call("GetRecentDocumentsWithBundleIdentifierCompletion", {"nobody"});
  ASSERT_TRUE(none.ok);
  EXPECT_EQ(none.values[0].value, "nobody");
  EXPECT_FALSE(none.values[1].value);
}

TEST_F(SpotlightServiceTest, AttributeRecords) {
  auto file = call("GetFileAttributesWithPathCompletionHandler", {pdf_});
  auto record = json(file);
  ASSERT_TRUE(record);
  EXPECT_EQ(file.values[1].value, pdf_);
  EXPECT_EQ((*record)["contentType"], "PDF document");
  EXPECT_TRUE(record->contains("size"));
  auto missing = call("GetFileAttributesWithPathCompletionHandler", {docs_ + "/missing"});
  ASSERT_TRUE(missing.ok);
  EXPECT_FALSE(missing.values[0].value);
  EXPECT_EQ(missing.values[1].value, docs_ + "/missing");

  std::string entry = home_.write("apps/tool.desktop", "[Desktop Entry]\nType=Application\nName=Tool\nExec=sh\nCategories=Utility;\n");
  auto app = json(call("GetAppAttributesWithPathCompletionHandler", {entry}));
  ASSERT_TRUE(app);
  EXPECT_EQ((*app)["category"], "Utility");
  EXPECT_EQ((*app)["path"], entry);
}

}  // namespace
}  // namespace quorvi::testing
