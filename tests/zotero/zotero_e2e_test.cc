// The two Zotero members over a private bus, against the real quorvifind.
#include <gtest/gtest.h>

#include <filesystem>

#include "common/json.h"
#include "support/test_bus.h"
#include "zotero/zotero_fixture.h"

namespace quorvi {
namespace {

using namespace std::chrono_literals;

TEST(ZoteroOverTheBus, IndexThenPreviewFromTheCache) {
  testing::TestBus bus;
  ASSERT_TRUE(bus.ok());
  testing::TemporaryDirectory home;
  testing::ServiceProcess service(bus, home.path());
  ASSERT_TRUE(service.ok()) << service.output();
  auto client = bus.connect();
  ASSERT_TRUE(client);

  std::string folder = home.path() + "/Zotero";
  int64_t itemID = 0;
  {
    zotero_fixture::ZoteroLibraryFixture library(folder);
    itemID = library.addItem("journalArticle", {{"title", "Bus Paper"}, {"DOI", "10.1/bus"}});
  }

  auto preview = testing::callMember(*client, "GetZoteroPreviewWithItemIDCompletion", {std::to_string(itemID)});
  ASSERT_TRUE(preview.ok) << preview.errorMessage;
  EXPECT_FALSE(preview.values[0].value) << "no index yet: nil";

  auto missing = testing::callMember(*client, "IndexZoteroAtUseCacheIfAvailableCompletion",
                                     {home.path() + "/nowhere", "true"}, 30s);
  ASSERT_TRUE(missing.ok) << missing.errorMessage;
  EXPECT_FALSE(missing.values[0].value);
  EXPECT_EQ(missing.values[1].value, "Zotero Library Not Exist");

  auto index = testing::callMember(*client, "IndexZoteroAtUseCacheIfAvailableCompletion", {folder, "true"}, 30s);
  ASSERT_TRUE(index.ok) << index.errorMessage;
  ASSERT_TRUE(index.values[0].value);
  EXPECT_FALSE(index.values[1].value);
  Json groups = Json::parse(*index.values[0].value);
  ASSERT_EQ(groups.size(), 1u);
  EXPECT_EQ(groups[0]["entries"][0]["title"], "Bus Paper");
  EXPECT_EQ(groups[0]["entries"][0]["itemType"], "期刊文章");
  // The working copy lives in the service's cache folder, not beside the library.
  EXPECT_TRUE(std::filesystem::exists(home.path() + "/.cache/quorvifind/zotero/temp-zotero.sqlite"));
  EXPECT_FALSE(std::filesystem::exists(folder + "/temp-zotero.sqlite"));

  preview = testing::callMember(*client, "GetZoteroPreviewWithItemIDCompletion", {std::to_string(itemID)});
  ASSERT_TRUE(preview.ok && preview.values[0].value);
  Json attributes = Json::parse(*preview.values[0].value);
  ASSERT_EQ(attributes.size(), 2u);
  EXPECT_EQ(attributes[0]["field"], "ZOTERO_FIELD_TITLE");
  EXPECT_EQ(attributes[1]["value"], "10.1/bus");
}

}  // namespace
}  // namespace quorvi
