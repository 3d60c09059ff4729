// #30 over a private bus against the real quorvifind, with address books in
// the places a Linux desktop keeps them, changed while the service runs.
#include <gtest/gtest.h>

#include <filesystem>
#include <thread>

#include "common/json.h"
#include "contacts/contacts_fixture.h"
#include "support/test_bus.h"

namespace quorvi {
namespace {

using contacts_fixture::vcard;
using namespace std::chrono_literals;

class ContactsOverTheBus : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(bus_.ok());
    client_ = bus_.connect();
    ASSERT_TRUE(client_);
  }

  void startService() {
    service_ = std::make_unique<testing::ServiceProcess>(bus_, home_.path());
    ASSERT_TRUE(service_->ok()) << service_->output();
  }

  // The names in the reply, or {"nil"} when the reply has no data.
  std::vector<std::string> search(const std::string& query, int64_t maxcount = 20) {
    auto reply = testing::callMember(*client_, "SearchContactsWithQueryMaxcountCompletionHandler",
                                     {query, std::to_string(maxcount)}, 30s);
    EXPECT_TRUE(reply.ok) << reply.errorMessage;
    if (!reply.ok) return {"failed"};
    if (!reply.values[0].value) return {"nil"};
    std::vector<std::string> names;
    for (const auto& entry : Json::parse(*reply.values[0].value)) {
      names.push_back(entry["name"].get<std::string>() + " " + entry["contact"].get<std::string>());
    }
    return names;
  }

  // Searches until the answer is the expected one (changes take a moment).
  bool eventually(const std::string& query, const std::vector<std::string>& expected) {
    auto deadline = std::chrono::steady_clock::now() + 30s;
    while (std::chrono::steady_clock::now() < deadline) {
      if (search(query) == expected) return true;
      std::this_thread::sleep_for(50ms);
    }
    return false;
  }

  testing::TestBus bus_;
  testing::TemporaryDirectory home_;
  std::unique_ptr<BusClient> client_;
  std::unique_ptr<testing::ServiceProcess> service_;
};

TEST_F(ContactsOverTheBus, FindsPeopleInEveryKindOfAddressBookAndFollowsChanges) {
  home_.write(".config/quorvi/settings.json", R"({"com.quorvi.contactsFolders": ["~/Sync/cards"]})");
  home_.write(".local/share/contacts/personal/zhang.vcf",
              "BEGIN:VCARD\r\nVERSION:3.0\r\nUID:zhang\r\nFN:张伟\r\nNICKNAME:Wei\r\n"
              "TEL;TYPE=CELL:+86 138-1234-5678\r\nEMAIL:zhang.wei@example.com\r\nEND:VCARD\r\n");
  home_.write("Sync/cards/export.vcf", vcard("", "Exported Erin", {"555 0199"}));
  contacts_fixture::EvolutionBook evolution(home_.path() + "/.local/share/evolution/addressbook/system/contacts.db");
  evolution.add("pas-1", vcard("pas-1", "Evo Eve", {}, {"eve@example.org"}));
  contacts_fixture::backdateFolders(home_.path());
  startService();

  EXPECT_EQ(search("zw"), (std::vector<std::string>{"张伟 +86 138-1234-5678", "张伟 zhang.wei@example.com"}))
      << "pinyin initials";
  EXPECT_EQ(search("13812345678"), std::vector<std::string>{"张伟 +86 138-1234-5678"}) << "digits alone";
  EXPECT_EQ(search("wei 138"), std::vector<std::string>{"张伟 +86 138-1234-5678"});
  EXPECT_EQ(search("erin"), std::vector<std::string>{"Exported Erin 555 0199"}) << "a folder from the settings";
  EXPECT_EQ(search("eve@"), std::vector<std::string>{"Evo Eve eve@example.org"}) << "Evolution's book";
  EXPECT_EQ(search("zhang", 1).size(), 1u);
  EXPECT_EQ(search("nobody"), std::vector<std::string>{"nil"});

  auto raw = testing::callMember(*client_, "SearchContactsWithQueryMaxcountCompletionHandler", {"erin", "5"});
  ASSERT_TRUE(raw.ok && raw.values[0].value);
  EXPECT_EQ(Json::parse(*raw.values[0].value)[0].dump(),
            R"({"identifier":")" +
                Json::parse(*raw.values[0].value)[0]["identifier"].get<std::string>() +
                R"(","name":"Exported Erin","contact":"555 0199","contactType":0,"hasAvatarData":false})")
      << "no nickname key, no match texts";

  // Changes while the service runs: a card added to the vdir, a card added
  // to Evolution's book, a folder taken out of the settings.
  home_.write(".local/share/contacts/personal/new.vcf", vcard("new", "Newcomer Nia", {"777"}));
  EXPECT_TRUE(eventually("nia", {"Newcomer Nia 777"})) << service_->output();
  evolution.add("pas-2", vcard("pas-2", "Evo Evan", {"888"}));
  EXPECT_TRUE(eventually("evan", {"Evo Evan 888"})) << service_->output();
  home_.write(".config/quorvi/settings.json", R"({"com.quorvi.contactsFolders": []})");
  EXPECT_TRUE(eventually("erin", {"nil"})) << service_->output();
  std::filesystem::remove(home_.path() + "/.local/share/contacts/personal/zhang.vcf");
  EXPECT_TRUE(eventually("zw", {"nil"})) << service_->output();
}

TEST_F(ContactsOverTheBus, NoAddressBookAnswersNilAndANegativeCountToo) {
  startService();
  EXPECT_EQ(search(""), std::vector<std::string>{"nil"});
  EXPECT_EQ(search("a", -1), std::vector<std::string>{"nil"});
  // The contacts folder appears after the first search.
  home_.write(".local/share/contacts/first.vcf", vcard("f", "First Fay", {"1"}));
  EXPECT_TRUE(eventually("fay", {"First Fay 1"}));
  EXPECT_EQ(search("fay", -1), std::vector<std::string>{"nil"});
}

}  // namespace
}  // namespace quorvi
