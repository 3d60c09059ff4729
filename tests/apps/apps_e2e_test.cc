// #2, #3, #4 and the appIndexerStateDidChange signal as a client sees them:
// the real quorvifind on a private bus, desktop entries in its temporary
// XDG folders.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <future>

#include "app_fixture.h"
#include "apps/app_entry.h"
#include "common/json.h"
#include "support/test_bus.h"

namespace quorvi::testing {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

std::string entryText(const std::string& name, const std::string& extra = "") {
  return "[Desktop Entry]\nType=Application\nName=" + name + "\nExec=/bin/true\n" + extra;
}

class AppsOverTheBus : public ::testing::Test {
 protected:
  void start() {
    ASSERT_TRUE(bus_.ok());
    service_ = std::make_unique<ServiceProcess>(bus_, home_.path(), std::map<std::string, std::string>{
                                                                        {"LANG", "zh_CN.UTF-8"},
                                                                        {"LANGUAGE", ""},
                                                                        {"LC_ALL", ""},
                                                                        {"XDG_CURRENT_DESKTOP", "GNOME"}});
    ASSERT_TRUE(service_->ok()) << service_->output();
    client_ = bus_.connect();
    ASSERT_TRUE(client_);
    ASSERT_TRUE(client_->subscribe("appIndexerStateDidChange"));
  }
  std::string userApplications() const { return home_.path() + "/.local/share/applications"; }
  std::string systemApplications() const { return home_.path() + "/.system-share/applications"; }
  // The entries #4 answers (empty for nil).
  std::optional<Json> apps() {
    auto result = callMember(*client_, "GetAppsWithCompletionHandler", {});
    EXPECT_TRUE(result.ok) << result.errorName;
    if (!result.ok || !result.values[0].value) return std::nullopt;
    return Json::parse(*result.values[0].value);
  }
  static const Json* withPath(const Json& list, const std::string& path) {
    for (const auto& entry : list) {
      if (entry["path"] == path) return &entry;
    }
    return nullptr;
  }

  TestBus bus_;
  TemporaryDirectory home_;
  std::unique_ptr<ServiceProcess> service_;
  std::unique_ptr<BusClient> client_;
};

TEST_F(AppsOverTheBus, ScanReplyReadinessListAndSignal) {
  std::string browser = home_.write(".system-share/applications/org.example.Browser.desktop",
                                    entryText("Browser", "Name[zh_CN]=浏览器\nMimeType=x-scheme-handler/https;\n"));
  std::string panel = home_.write(".system-share/applications/gnome-sound-panel.desktop",
                                  entryText("Sound", "NoDisplay=true\nX-GNOME-Settings-Panel=sound\n"));
  home_.write(".system-share/applications/hidden.desktop", entryText("Hidden", "NoDisplay=true\n"));
  start();

  auto ready = callMember(*client_, "CheckAppIndexIsReadyWithCompletion", {});
  ASSERT_TRUE(ready.ok);
  EXPECT_FALSE(ready.values[0].flag);
  EXPECT_FALSE(apps());  // nil before any scan

  auto reply = callMember(*client_, "StartIndexAppsWithSearchScopesCompletion", {"[\"~/Applications\"]"}, 60s);
  ASSERT_TRUE(reply.ok) << reply.errorName << " " << reply.errorMessage;
  ASSERT_TRUE(reply.values[0].value);
  Json list = Json::parse(*reply.values[0].value);
  ASSERT_EQ(list.size(), 2u) << list.dump();
  const Json* entry = withPath(list, browser);
  ASSERT_TRUE(entry);
  std::vector<std::string> keys;
  for (const auto& [key, value] : entry->items()) keys.push_back(key);
  EXPECT_EQ(keys, (std::vector<std::string>{"path", "bundleIdentifier", "category", "nameOfDisplay", "hasPinyin",
                                            "matchs", "timestampOfLastUsed", "fmatchs", "urlSchemes"}));
  EXPECT_EQ((*entry)["bundleIdentifier"], "org.example.Browser.desktop");
  EXPECT_EQ((*entry)["nameOfDisplay"], "浏览器");  // the service speaks zh-Hans here
  EXPECT_EQ((*entry)["hasPinyin"], true);
  EXPECT_EQ((*entry)["urlSchemes"], Json::array({"https"}));
  ASSERT_TRUE(withPath(list, panel));
  EXPECT_EQ((*withPath(list, panel))["category"], 1);
  EXPECT_FALSE(withPath(list, panel)->contains("urlSchemes"));

  ASSERT_TRUE(client_->waitForSignal("appIndexerStateDidChange", 0, 10s));
  ready = callMember(*client_, "CheckAppIndexIsReadyWithCompletion", {});
  EXPECT_TRUE(ready.values[0].flag);
  EXPECT_EQ(apps(), list);
  // One signal per scan.
  std::this_thread::sleep_for(300ms);
  client_->waitForSignal("appIndexerStateDidChange", 1, 100ms);
  EXPECT_EQ(client_->signalCount("appIndexerStateDidChange"), 1);
}

TEST_F(AppsOverTheBus, AppsInstalledEditedAndRemovedWhileRunning) {
  home_.write(".system-share/applications/base.desktop", entryText("Base"));
  fs::create_directories(userApplications());
  start();
  auto reply = callMember(*client_, "StartIndexAppsWithSearchScopesCompletion", {"[]"}, 60s);
  ASSERT_TRUE(reply.ok && reply.values[0].value);
  auto seen = [&](const std::function<bool(const Json&)>& predicate) {
    return waitUntil([&] {
      auto list = apps();
      return list && predicate(*list);
    }, 15s);
  };
  std::string installed = userApplications() + "/org.example.New.desktop";
  auto started = std::chrono::steady_clock::now();
  home_.write(".local/share/applications/org.example.New.desktop", entryText("New App"));
  ASSERT_TRUE(seen([&](const Json& list) { return withPath(list, installed) != nullptr; })) << service_->output();
  double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  RecordProperty("install_seen_after_seconds", std::to_string(seconds));
  std::printf("an installed entry was in #4 after %.2f s\n", seconds);
  home_.write(".local/share/applications/org.example.New.desktop", entryText("New App", "Name[zh_CN]=新应用\n"));
  ASSERT_TRUE(seen([&](const Json& list) {
    const Json* entry = withPath(list, installed);
    return entry && (*entry)["nameOfDisplay"] == "新应用";
  }));
  fs::remove(installed);
  ASSERT_TRUE(seen([&](const Json& list) { return withPath(list, installed) == nullptr; }));
  // The scan and each change that altered the list were announced.
  EXPECT_TRUE(client_->waitForSignal("appIndexerStateDidChange", 3, 5s));
}

TEST_F(AppsOverTheBus, AScanThatFindsNothingNeverReplies) {
  start();
  auto second = bus_.connect();
  ASSERT_TRUE(second);
  auto pending = std::async(std::launch::async, [&] {
    return callMember(*second, "StartIndexAppsWithSearchScopesCompletion", {"[]"}, 5s);
  });
  ASSERT_TRUE(client_->waitForSignal("appIndexerStateDidChange", 0, 30s));  // the scan finished
  auto result = pending.get();
  EXPECT_FALSE(result.ok);  // the client gave up waiting
  EXPECT_TRUE(result.errorName == "org.freedesktop.DBus.Error.Timeout" ||
              result.errorName == "org.freedesktop.DBus.Error.NoReply")
      << result.errorName;
  EXPECT_TRUE(callMember(*client_, "CheckAppIndexIsReadyWithCompletion", {}).values[0].flag);
  EXPECT_FALSE(apps());  // ready, but empty: nil
}

}  // namespace
}  // namespace quorvi::testing
