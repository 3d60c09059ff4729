// The service as a client sees it: a private dbus-daemon, the real
// quorvifind process, calls over the bus.
#include <gtest/gtest.h>
#include <systemd/sd-bus.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>
#include <thread>

#include "support/test_bus.h"

namespace quorvi::testing {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

class ServiceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(bus_.ok()) << "dbus-daemon did not start";
    home_.write(".config/quorvi/settings.json",
                R"({"com.quorvi.taskExecutablePath": ")" + home_.path() + R"(/helper"})");
    // The companion: records its arguments, prints what the task asks for.
    home_.write("helper",
                "#!/bin/sh\n"
                "printf '%s\\n' \"$@\" > \"$HOME/helper-args.$$\"\n"
                "case \"$1\" in\n"
                "  say) ;;\n"
                "  getInfo) printf 'info:%s' \"$2\" ;;\n"
                "  pngCompress) head -c \"$2\" /dev/zero ;;\n"
                "esac\n",
                true);
    service_ = std::make_unique<ServiceProcess>(bus_, home_.path());
    ASSERT_TRUE(service_->ok()) << service_->output();
    client_ = bus_.connect();
    ASSERT_TRUE(client_);
  }

  BusClient::CallResult call(const std::string& member, const std::vector<std::string>& words,
                             std::chrono::microseconds timeout = 10s) {
    return callMember(*client_, member, words, timeout);
  }

  // Argument files the companion wrote, one per launch.
  std::vector<std::string> helperLaunches() {
    std::vector<std::string> launches;
    for (auto& entry : fs::directory_iterator(home_.path())) {
      if (entry.path().filename().string().starts_with("helper-args.")) launches.push_back(readFile(entry.path()));
    }
    return launches;
  }

  TestBus bus_;
  TemporaryDirectory home_;
  std::unique_ptr<ServiceProcess> service_;
  std::unique_ptr<BusClient> client_;
};

// The contract as published for clients, written out independently of the
// service's own member table so that a drift in either shows here.
const std::vector<std::tuple<std::string, std::string, std::string>> kContract = {
    {"NeverReplyWithBlock", "", "bay"},
    {"StartIndexAppsWithSearchScopesCompletion", "as", "bay"},
    {"CheckAppIndexIsReadyWithCompletion", "", "b"},
    {"GetAppsWithCompletionHandler", "", "bay"},
    {"WorkspaceWillSleep", "", ""},
    {"WorkspaceDidAwake", "", ""},
    {"StartIndexFilesWithSearchScopes", "as", ""},
    {"FileIndexRemoveWithSearchScopes", "as", ""},
    {"FileIndexAddWithSearchScopes", "as", ""},
    {"GetFileIndexResultDescriptionWithCompletion", "", "baybs"},
    {"GetRecentFilesWithSearchScopesCompletionHandler", "as", "bay"},
    {"SearchFilesWithQueryMaxcountCompletion", "sx", "bay"},
    {"SearchFilesInQueryMaxcountCompletionHandler", "ssx", "bay"},
    {"SearchFoldersWithQueryMaxcountCompletionHandler", "sx", "bay"},
    {"ContainsFileAtCompletionHandler", "s", "b"},
    {"GetVSCodeWorkspacesWithCompletionHandler", "", "bay"},
    {"GetAllXcodeProjectsWithCompletionHandler", "", "bay"},
    {"GetDirectoryFilesSkipHiddenFilesCompletionHandler", "sb", "bay"},
    {"GetPerformanceSnapshotWithCompletion", "", "bay"},
    {"ExportEventLogsTo", "s", ""},
    {"QuerySpotlightByNameWithKeywordSearchScopesMaxcountCompletion", "sasx", "bay"},
    {"QuerySpotlightByNameAndContentsWithKeywordSearchScopesMaxcountCompletion", "sasx", "bay"},
    {"GetRecentDocumentsWithBundleIdentifierCompletion", "s", "bsbay"},
    {"GetAppAttributesWithPathCompletionHandler", "s", "baybs"},
    {"GetFileAttributesWithPathCompletionHandler", "s", "baybs"},
    {"ReadPasteboardWithFrontmostApplicationCompletionHandler", "s", "bay"},
    {"OcrWithImageIdentifierIsAccurateLevelCompletionHandler", "ayxb", "bsbayx"},
    {"IndexZoteroAtUseCacheIfAvailableCompletion", "sb", "baybs"},
    {"GetZoteroPreviewWithItemIDCompletion", "x", "bay"},
    {"SearchContactsWithQueryMaxcountCompletionHandler", "sx", "bay"},
    {"PerformQuorviTaskArguments", "sas", ""},
    {"PerformQuorviTaskArgumentsCompletionHandler", "sas", "bay"},
    {"GetRunningProcessesWithCompletion", "", "bay"},
};

TEST_F(ServiceTest, IntrospectionShowsEveryMemberWithItsSignature) {
  sd_bus_error error = SD_BUS_ERROR_NULL;
  sd_bus_message* reply = nullptr;
  ASSERT_GE(sd_bus_call_method(client_->bus(), kBusName, kObjectPath, "org.freedesktop.DBus.Introspectable",
                               "Introspect", &error, &reply, ""),
            0);
  const char* xml = nullptr;
  sd_bus_message_read(reply, "s", &xml);
  std::string text = xml;
  sd_bus_message_unref(reply);

  auto start = text.find("<interface name=\"com.quorvi.QuorviXPCServiceProtocol\">");
  ASSERT_NE(start, std::string::npos);
  std::string interface = text.substr(start, text.find("</interface>", start) - start);
  std::map<std::string, std::pair<std::string, std::string>> found;
  std::regex method(R"re(<method name="(\w+)">([\s\S]*?)</method>)re");
  std::regex arg(R"re(<arg type="(\w+)"(?: name="\w+")? direction="(in|out)"/>)re");
  for (std::sregex_iterator m(interface.begin(), interface.end(), method), end; m != end; ++m) {
    std::string body = (*m)[2];
    std::string in, out;
    for (std::sregex_iterator a(body.begin(), body.end(), arg); a != end; ++a) ((*a)[2] == "in" ? in : out) += (*a)[1];
    found[(*m)[1]] = {in, out};
  }
  ASSERT_EQ(found.size(), 33u);
  for (const auto& [name, in, out] : kContract) {
    ASSERT_TRUE(found.count(name)) << name;
    EXPECT_EQ(found[name].first, in) << name;
    EXPECT_EQ(found[name].second, out) << name;
  }
  EXPECT_NE(text.find("<interface name=\"com.quorvi\">"), std::string::npos);
  EXPECT_NE(text.find("<signal name=\"fileIndexStateDidChange\">"), std::string::npos);
  EXPECT_NE(text.find("<signal name=\"appIndexerStateDidChange\">"), std::string::npos);
}

TEST_F(ServiceTest, NeverAnsweringMembersEndOnlyByTheClientsTimeout) {
  for (const char* member : {"NeverReplyWithBlock", "ReadPasteboardWithFrontmostApplicationCompletionHandler"}) {
    auto started = std::chrono::steady_clock::now();
    std::vector<std::string> words;
    if (std::string(member).starts_with("Read")) words = {"com.example.app"};
    auto result = call(member, words, 700ms);
    EXPECT_FALSE(result.ok) << member;
    EXPECT_GE(std::chrono::steady_clock::now() - started, 650ms) << member;
    EXPECT_TRUE(result.errorName == "org.freedesktop.DBus.Error.NoReply" ||
                result.errorName == "org.freedesktop.DBus.Error.Timeout")
        << result.errorName;
  }
  EXPECT_TRUE(client_->ping().ok);  // and the service is none the worse
}

TEST_F(ServiceTest, MembersWithoutReplyAreAcknowledgedAtOnce) {
  const std::vector<std::pair<std::string, std::vector<std::string>>> calls = {
      {"WorkspaceWillSleep", {}},
      {"WorkspaceDidAwake", {}},
      {"FileIndexRemoveWithSearchScopes", {""}},
      {"ExportEventLogsTo", {home_.path() + "/ack.log"}},
      {"PerformQuorviTaskArguments", {"openDocument", ""}},
  };
  for (const auto& [member, words] : calls) {
    auto result = call(member, words, 2s);
    EXPECT_TRUE(result.ok) << member << ": " << result.errorName;
    EXPECT_TRUE(result.values.empty());
  }
  // Flagged "no reply expected", the call is simply carried out.
  ASSERT_TRUE(client_->callNoReply(*findMember("ExportEventLogsTo"),
                                   [&] {
                                     CallArguments a;
                                     argumentsFromWords("s", {home_.path() + "/silent.log"}, a, nullptr);
                                     return a;
                                   }()));
  for (int i = 0; i < 200 && !fs::exists(home_.path() + "/silent.log"); ++i) std::this_thread::sleep_for(10ms);
  EXPECT_TRUE(fs::exists(home_.path() + "/silent.log"));
}

TEST_F(ServiceTest, ExportOfAnEmptyEventLogWritesAnEmptyFile) {
  std::string target = home_.path() + "/events dir/log.txt";
  fs::create_directories(home_.path() + "/events dir");
  ASSERT_TRUE(call("ExportEventLogsTo", {"file://" + home_.path() + "/events%20dir/log.txt"}).ok);
  for (int i = 0; i < 200 && !fs::exists(target); ++i) std::this_thread::sleep_for(10ms);
  ASSERT_TRUE(fs::exists(target));
  EXPECT_EQ(fs::file_size(target), 0u);
  // An unwritable destination is ignored.
  EXPECT_TRUE(call("ExportEventLogsTo", {"/proc/no/such/place"}).ok);
  EXPECT_TRUE(client_->ping().ok);
}

TEST_F(ServiceTest, TasksPassTheirArgumentsAndKeepNilApartFromEmpty) {
  auto info = call("PerformQuorviTaskArgumentsCompletionHandler", {"getInfo", R"(["/tmp/a b", "", "--x"])"});
  ASSERT_TRUE(info.ok) << info.errorName;
  ASSERT_EQ(info.values.size(), 1u);
  EXPECT_EQ(info.values[0].value, "info:/tmp/a b");
  ASSERT_EQ(helperLaunches().size(), 1u);
  EXPECT_EQ(helperLaunches()[0], "getInfo\n/tmp/a b\n\n--x\n");

  auto silent = call("PerformQuorviTaskArgumentsCompletionHandler", {"say", ""});
  ASSERT_TRUE(silent.ok);
  ASSERT_TRUE(silent.values[0].value.has_value()) << "empty output must be empty bytes, not nil";
  EXPECT_EQ(*silent.values[0].value, "");

  auto unknown = call("PerformQuorviTaskArgumentsCompletionHandler", {"openDocument", "x"});
  ASSERT_TRUE(unknown.ok);
  EXPECT_FALSE(unknown.values[0].value.has_value());
  EXPECT_TRUE(call("PerformQuorviTaskArguments", {"getinfo", ""}).ok);
  std::this_thread::sleep_for(300ms);
  EXPECT_EQ(helperLaunches().size(), 2u) << "an unknown task must launch nothing";

  // Fire and forget with no arguments: exactly the task name.
  ASSERT_TRUE(call("PerformQuorviTaskArguments", {"openDocuement", ""}).ok);
  // The companion creates its file before it writes to it: wait for the words.
  std::multiset<std::string> launches;
  for (int i = 0; i < 500 && launches.count("openDocuement\n") == 0; ++i) {
    std::this_thread::sleep_for(10ms);
    launches.clear();
    for (auto& l : helperLaunches()) launches.insert(l);
  }
  EXPECT_EQ(launches.count("openDocuement\n"), 1u);
  EXPECT_EQ(launches.size(), 3u);
}

TEST_F(ServiceTest, LargeRepliesArriveWholeAndOversizedOnesAnswerNil) {
  auto big = call("PerformQuorviTaskArgumentsCompletionHandler", {"pngCompress", "[\"10000000\"]"}, 30s);
  ASSERT_TRUE(big.ok) << big.errorName << " " << big.errorMessage;
  ASSERT_TRUE(big.values[0].value);
  EXPECT_EQ(big.values[0].value->size(), 10000000u);

  auto huge = call("PerformQuorviTaskArgumentsCompletionHandler", {"pngCompress", "[\"70000000\"]"}, 60s);
  ASSERT_TRUE(huge.ok) << huge.errorName << " " << huge.errorMessage;
  EXPECT_FALSE(huge.values[0].value.has_value());
  // The connection survived: the daemon did not drop the service.
  EXPECT_TRUE(call("CheckAppIndexIsReadyWithCompletion", {}).ok);
}

TEST_F(ServiceTest, TwoConnectionsReachTheSameService) {
  auto second = bus_.connect();
  ASSERT_TRUE(second);
  auto owner = [](BusClient& c) {
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* reply = nullptr;
    uint32_t pid = 0;
    if (sd_bus_call_method(c.bus(), "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                           "GetConnectionUnixProcessID", &error, &reply, "s", kBusName) >= 0) {
      sd_bus_message_read(reply, "u", &pid);
    }
    sd_bus_message_unref(reply);
    sd_bus_error_free(&error);
    return pid;
  };
  EXPECT_EQ(owner(*client_), uint32_t(service_->pid()));
  EXPECT_EQ(owner(*second), uint32_t(service_->pid()));
  auto a = call("GetFileIndexResultDescriptionWithCompletion", {});
  auto b = callMember(*second, "GetFileIndexResultDescriptionWithCompletion", {});
  ASSERT_TRUE(a.ok && b.ok);
  EXPECT_EQ(a.values[0].value, b.values[0].value);
}

TEST_F(ServiceTest, ManyClientsAtOnceAreEachAnsweredOnce) {
  constexpr int kClients = 16, kCalls = 500;
  std::atomic<int> answered{0}, failed{0};
  std::vector<std::thread> threads;
  for (int c = 0; c < kClients; ++c) {
    threads.emplace_back([&, c] {
      auto client = bus_.connect();
      if (!client) {
        failed += kCalls;
        return;
      }
      for (int i = 0; i < kCalls; ++i) {
        // A mix of members answered on the bus thread and on workers.
        auto result = (i + c) % 3 == 0 ? callMember(*client, "CheckAppIndexIsReadyWithCompletion", {})
                      : (i + c) % 3 == 1 ? callMember(*client, "SearchFilesWithQueryMaxcountCompletion", {"x", "5"})
                                         : callMember(*client, "GetFileAttributesWithPathCompletionHandler", {"/"});
        if (result.ok && result.values.size() == (((i + c) % 3 == 2) ? 2u : 1u)) {
          answered++;
        } else {
          failed++;
        }
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(answered, kClients * kCalls);
  EXPECT_EQ(failed, 0) << "service output:\n" << service_->output();
}

TEST_F(ServiceTest, OddInputsNeverHurtTheService) {
  std::string mega(1 << 20, 'q');
  std::string binary = "\xff\xfe/\x01\x7f";
  const std::vector<std::pair<std::string, std::vector<std::string>>> calls = {
      {"SearchFilesWithQueryMaxcountCompletion", {mega, "9223372036854775807"}},
      {"SearchFilesWithQueryMaxcountCompletion", {"", "-9223372036854775808"}},
      {"SearchFilesInQueryMaxcountCompletionHandler", {"", "a", "-1"}},
      {"SearchFoldersWithQueryMaxcountCompletionHandler", {"|||  ｜", "0"}},
      {"ContainsFileAtCompletionHandler", {mega}},
      {"GetDirectoryFilesSkipHiddenFilesCompletionHandler", {"relative/../x", "true"}},
      {"GetFileAttributesWithPathCompletionHandler", {""}},
      {"GetAppAttributesWithPathCompletionHandler", {mega}},
      {"GetZoteroPreviewWithItemIDCompletion", {"-1"}},
      {"IndexZoteroAtUseCacheIfAvailableCompletion", {"/nonexistent", "true"}},
      {"SearchContactsWithQueryMaxcountCompletionHandler", {mega, "-5"}},
      {"QuerySpotlightByNameWithKeywordSearchScopesMaxcountCompletion", {"", "[\"\",\"relative\"]", "-1"}},
      {"GetRecentDocumentsWithBundleIdentifierCompletion", {mega}},
      {"OcrWithImageIdentifierIsAccurateLevelCompletionHandler", {mega, "-1", "true"}},
      {"PerformQuorviTaskArgumentsCompletionHandler", {mega, ""}},
      {"StartIndexAppsWithSearchScopesCompletion", {""}},
  };
  for (const auto& [member, words] : calls) {
    auto result = call(member, words, 5s);
    // Members that never answer for these inputs time out; all others answer.
    if (member != "StartIndexAppsWithSearchScopesCompletion") {
      EXPECT_TRUE(result.ok) << member << ": " << result.errorName << " " << result.errorMessage;
    }
    ASSERT_TRUE(service_->running()) << member << "\n" << service_->output();
  }
  // Text that is not UTF-8 is refused by the bus library before it reaches
  // the service; the service must simply go on.
  sd_bus_error error = SD_BUS_ERROR_NULL;
  sd_bus_call_method(client_->bus(), kBusName, kObjectPath, kInterfaceName, "ContainsFileAtCompletionHandler", &error,
                     nullptr, "s", binary.c_str());
  sd_bus_error_free(&error);
  // A call with the wrong signature is an error reply, not a crash.
  EXPECT_LT(sd_bus_call_method(client_->bus(), kBusName, kObjectPath, kInterfaceName,
                               "SearchFilesWithQueryMaxcountCompletion", &error, nullptr, "s", "only one"),
            0);
  sd_bus_error_free(&error);
  EXPECT_TRUE(client_->ping().ok);
  EXPECT_TRUE(service_->running());
}

TEST(ServiceActivationTest, TheFirstCallStartsTheServiceFromItsServiceFile) {
  TestBus bus;
  ASSERT_TRUE(bus.ok());
  TemporaryDirectory home;
  // The same file `cmake --install` puts into share/dbus-1/services, pointed
  // at the build tree's service.
  std::ofstream(bus.servicesDirectory() + "/com.quorvi.quorvifind.service")
      << "[D-BUS Service]\nName=com.quorvi.quorvifind\nExec=/usr/bin/env HOME=" << home.path()
      << " XDG_CONFIG_HOME=" << home.path() << "/.config " << serviceExecutable() << "\n";
  auto client = bus.connect();
  ASSERT_FALSE(client->serviceIsRunning());
  auto result = callMember(*client, "CheckAppIndexIsReadyWithCompletion", {}, 20s);
  ASSERT_TRUE(result.ok) << result.errorName << " " << result.errorMessage;
  EXPECT_TRUE(client->serviceIsRunning());
  pid_t pid = 0;
  sd_bus_error error = SD_BUS_ERROR_NULL;
  sd_bus_message* reply = nullptr;
  ASSERT_GE(sd_bus_call_method(client->bus(), "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                               "GetConnectionUnixProcessID", &error, &reply, "s", kBusName),
            0);
  sd_bus_message_read(reply, "u", &pid);
  sd_bus_message_unref(reply);
  // The activated service ends with its bus, even right after its start.
  client.reset();
  bus.stop();
  bool gone = false;
  for (int i = 0; i < 500 && !gone; ++i) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    gone = !std::getline(stat, line) || line.find(") Z") != std::string::npos;
    if (!gone) std::this_thread::sleep_for(10ms);
  }
  EXPECT_TRUE(gone) << "activated quorvifind " << pid << " outlived its bus";
}

TEST_F(ServiceTest, TheServiceEndsWhenItsBusGoesAway) {
  client_.reset();
  bus_.stop();
  EXPECT_TRUE(service_->waitForExit(10s)) << service_->output();
}

}  // namespace
}  // namespace quorvi::testing
