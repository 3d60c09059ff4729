// KRunner and GNOME Shell as they call the service: a private dbus-daemon,
// the real quorvifind process, the hosts' own methods with the hosts'
// signatures, and a stand-in default application (registered in the test's
// own XDG folders) that records what it was asked to open.
#include <gtest/gtest.h>
#include <systemd/sd-bus.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <thread>

#include "../zotero/zotero_fixture.h"
#include "support/test_bus.h"

namespace quorvi::testing {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

constexpr const char* kBus = "com.quorvi.quorvifind";
constexpr const char* kRunnerPath = "/com/quorvi/quorvifind/krunner";
constexpr const char* kRunner = "org.kde.krunner1";
constexpr const char* kShellPath = "/com/quorvi/quorvifind/SearchProvider";
constexpr const char* kShell = "org.gnome.Shell.SearchProvider2";

struct Match {
  std::string id, text, icon;
  int32_t type = 0;
  double relevance = 0;
  std::map<std::string, std::string> strings;
  std::map<std::string, std::vector<std::string>> lists;
};

std::vector<std::string> readStrv(sd_bus_message* m) {
  std::vector<std::string> out;
  char** strv = nullptr;
  if (sd_bus_message_read_strv(m, &strv) >= 0) {
    for (char** s = strv; s && *s; ++s) {
      out.push_back(*s);
      free(*s);
    }
    free(strv);
  }
  return out;
}

// Reads one a{sv} whose values are s or as.
void readProperties(sd_bus_message* m, std::map<std::string, std::string>& strings,
                    std::map<std::string, std::vector<std::string>>& lists) {
  sd_bus_message_enter_container(m, 'a', "{sv}");
  while (sd_bus_message_enter_container(m, 'e', "sv") > 0) {
    const char* key = nullptr;
    sd_bus_message_read(m, "s", &key);
    std::string name = key;
    char type;
    const char* contents = nullptr;
    sd_bus_message_peek_type(m, &type, &contents);
    if (std::string(contents) == "s") {
      const char* value = nullptr;
      sd_bus_message_read(m, "v", "s", &value);
      strings[name] = value;
    } else if (std::string(contents) == "as") {
      sd_bus_message_enter_container(m, 'v', "as");
      lists[name] = readStrv(m);
      sd_bus_message_exit_container(m);
    } else if (std::string(contents) == "(sv)") {
      // A serialized GIcon: ('themed', <['name', ...]>), kept as "themed:name".
      const char* kind = nullptr;
      sd_bus_message_enter_container(m, 'v', "(sv)");
      sd_bus_message_enter_container(m, 'r', "sv");
      sd_bus_message_read(m, "s", &kind);
      sd_bus_message_enter_container(m, 'v', "as");
      auto names = readStrv(m);
      sd_bus_message_exit_container(m);
      sd_bus_message_exit_container(m);
      sd_bus_message_exit_container(m);
      strings[name] = std::string(kind) + ":" + (names.empty() ? "" : names[0]);
    } else {
      sd_bus_message_skip(m, "v");
    }
    sd_bus_message_exit_container(m);
  }
  sd_bus_message_exit_container(m);
}

// The methods of one interface in introspection XML: name -> (in, out)
// signatures, whatever the order of the attributes.
std::map<std::string, std::pair<std::string, std::string>> methodsOf(const std::string& xml,
                                                                      const std::string& interface) {
  std::map<std::string, std::pair<std::string, std::string>> methods;
  auto start = xml.find("<interface name=\"" + interface + "\"");
  if (start == std::string::npos) return methods;
  std::string body = xml.substr(start, xml.find("</interface>", start) - start);
  body = std::regex_replace(body, std::regex("<!--[\\s\\S]*?-->"), "");
  std::regex method(R"re(<method name="(\w+)"\s*(/>|>([\s\S]*?)</method>))re");
  std::regex arg(R"re(<arg\b([^>]*)>)re");
  std::regex type(R"re(type="([^"]+)")re"), direction(R"re(direction="(in|out)")re");
  for (std::sregex_iterator m(body.begin(), body.end(), method), end; m != end; ++m) {
    std::string args = (*m)[3];
    std::string in, out;
    for (std::sregex_iterator a(args.begin(), args.end(), arg); a != end; ++a) {
      std::string attributes = (*a)[1];
      std::smatch t, d;
      std::regex_search(attributes, t, type);
      bool isIn = !std::regex_search(attributes, d, direction) || d[1] == "in";
      (isIn ? in : out) += t[1].str();
    }
    methods[(*m)[1]] = {in, out};
  }
  return methods;
}

class DesktopTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(bus_.ok()) << "dbus-daemon did not start";
    const std::string& home = home_.path();
    // The stand-in default application: one line per launch with what it got.
    home_.write("recorder", "#!/bin/sh\nprintf '%s\\n' \"$*\" >> \"$HOME/opened\"\n", true);
    home_.write(".local/share/applications/recorder.desktop",
                "[Desktop Entry]\nType=Application\nName=Recorder\nExec=" + home +
                    "/recorder %u\nMimeType=text/plain;inode/directory;x-scheme-handler/zotero;"
                    "x-scheme-handler/mailto;\n");
    home_.write(".config/mimeapps.list",
                "[Default Applications]\ntext/plain=recorder.desktop\ninode/directory=recorder.desktop\n"
                "x-scheme-handler/zotero=recorder.desktop\nx-scheme-handler/mailto=recorder.desktop\n");
    // An application of the app index, launched by its desktop entry.
    home_.write(".system-share/applications/org.example.Reporter.desktop",
                "[Desktop Entry]\nType=Application\nName=Reporter\nKeywords=charts;\nIcon=office-chart-bar\nExec=" + home +
                    "/recorder launched-reporter\n");
    home_.write("docs/report.txt", "quarterly");
    home_.write("docs/reports/notes.txt", "");
    home_.write("docs/annual report 2024.txt", "");
    home_.write("docs/misreported.txt", "");
    home_.write("docs/other/unrelated.txt", "");
    service_ = std::make_unique<ServiceProcess>(
        bus_, home, std::map<std::string, std::string>{{"XDG_DATA_DIRS", home + "/.system-share:/usr/share"}});
    ASSERT_TRUE(service_->ok()) << service_->output();
    client_ = bus_.connect();
    ASSERT_TRUE(client_);
  }

  void TearDown() override {
    if (HasFailure() && service_) std::cerr << service_->output();
  }

  void indexDocs() {
    ASSERT_TRUE(client_->subscribe("fileIndexStateDidChange"));
    int seen = client_->signalCount("fileIndexStateDidChange");
    ASSERT_TRUE(callMember(*client_, "StartIndexFilesWithSearchScopes", {home_.path() + "/docs"}).ok);
    // Indexing, then done: wait for the description to be there.
    for (int i = 0; i < 200; ++i) {
      auto description = callMember(*client_, "GetFileIndexResultDescriptionWithCompletion", {});
      // (data, text): the text reads "#fs ends N in T s" once a run is over.
      if (description.ok && description.values.size() == 2 && description.values[1].text() &&
          !description.values[1].text()->empty())
        return;
      // Wait for the next change (or a while), not for one already seen:
      // the first signal comes as the run starts, before its description.
      client_->waitForSignal("fileIndexStateDidChange", seen, 100ms);
      seen = client_->signalCount("fileIndexStateDidChange");
    }
    FAIL() << "the file index did not finish";
  }

  sd_bus_message* callHost(const char* path, const char* interface, const char* method, const char* signature,
                           ...) {
    sd_bus_message* call = nullptr;
    sd_bus_message_new_method_call(client_->bus(), &call, kBus, path, interface, method);
    va_list args;
    va_start(args, signature);
    int r = sd_bus_message_appendv(call, signature, args);
    va_end(args);
    EXPECT_GE(r, 0);
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* reply = nullptr;
    r = sd_bus_call(client_->bus(), call, 10'000'000, &error, &reply);
    EXPECT_GE(r, 0) << method << ": " << (error.message ? error.message : "");
    sd_bus_error_free(&error);
    sd_bus_message_unref(call);
    return r >= 0 ? reply : nullptr;
  }

  std::vector<Match> match(const std::string& query) {
    std::vector<Match> matches;
    sd_bus_message* reply = callHost(kRunnerPath, kRunner, "Match", "s", query.c_str());
    if (!reply) return matches;
    sd_bus_message_enter_container(reply, 'a', "(sssida{sv})");
    while (sd_bus_message_enter_container(reply, 'r', "sssida{sv}") > 0) {
      Match m;
      const char *id, *text, *icon;
      sd_bus_message_read(reply, "sssid", &id, &text, &icon, &m.type, &m.relevance);
      m.id = id, m.text = text, m.icon = icon;
      readProperties(reply, m.strings, m.lists);
      sd_bus_message_exit_container(reply);
      matches.push_back(std::move(m));
    }
    sd_bus_message_unref(reply);
    return matches;
  }

  std::vector<std::string> strvCall(const char* method, const std::vector<std::string>& previous,
                                    const std::vector<std::string>& terms) {
    sd_bus_message* call = nullptr;
    sd_bus_message_new_method_call(client_->bus(), &call, kBus, kShellPath, kShell, method);
    if (std::string(method) == "GetSubsearchResultSet") sd_bus_message_append_strv(call, toStrv(previous).data());
    sd_bus_message_append_strv(call, toStrv(terms).data());
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* reply = nullptr;
    int r = sd_bus_call(client_->bus(), call, 10'000'000, &error, &reply);
    EXPECT_GE(r, 0) << method << ": " << (error.message ? error.message : "");
    sd_bus_error_free(&error);
    sd_bus_message_unref(call);
    std::vector<std::string> ids = r >= 0 ? readStrv(reply) : std::vector<std::string>();
    sd_bus_message_unref(reply);
    return ids;
  }

  std::vector<std::map<std::string, std::string>> metas(const std::vector<std::string>& ids) {
    std::vector<std::map<std::string, std::string>> out;
    sd_bus_message* call = nullptr;
    sd_bus_message_new_method_call(client_->bus(), &call, kBus, kShellPath, kShell, "GetResultMetas");
    sd_bus_message_append_strv(call, toStrv(ids).data());
    sd_bus_message* reply = nullptr;
    int r = sd_bus_call(client_->bus(), call, 10'000'000, nullptr, &reply);
    sd_bus_message_unref(call);
    EXPECT_GE(r, 0);
    if (r < 0) return out;
    sd_bus_message_enter_container(reply, 'a', "a{sv}");
    while (true) {
      std::map<std::string, std::string> strings;
      std::map<std::string, std::vector<std::string>> lists;
      if (sd_bus_message_at_end(reply, false) > 0) break;
      readProperties(reply, strings, lists);
      out.push_back(strings);
    }
    sd_bus_message_unref(reply);
    return out;
  }

  static std::vector<char*> toStrv(const std::vector<std::string>& strings) {
    std::vector<char*> strv;
    for (const auto& s : strings) strv.push_back(const_cast<char*>(s.c_str()));
    strv.push_back(nullptr);
    return strv;
  }

  std::string introspect(const char* path) {
    sd_bus_message* reply = callHost(path, "org.freedesktop.DBus.Introspectable", "Introspect", "");
    const char* xml = "";
    if (reply) sd_bus_message_read(reply, "s", &xml);
    std::string text = xml;
    sd_bus_message_unref(reply);
    return text;
  }

  // The lines the stand-in application wrote, once there are at least n.
  std::vector<std::string> opened(std::size_t n) {
    std::vector<std::string> lines;
    for (int i = 0; i < 1000; ++i) {
      lines.clear();
      std::istringstream in(readFile(home_.path() + "/opened"));
      for (std::string line; std::getline(in, line);) lines.push_back(line);
      if (lines.size() >= n) break;
      std::this_thread::sleep_for(10ms);
    }
    return lines;
  }

  TestBus bus_;
  TemporaryDirectory home_;
  std::unique_ptr<ServiceProcess> service_;
  std::unique_ptr<BusClient> client_;
};

TEST_F(DesktopTest, ObjectsHaveTheHostsOwnSignatures) {
  std::string krunnerXml = readFile("/var/cache/quorvifind/kf5_org.kde.krunner1.xml");
  std::string shellXml = readFile("/usr/share/dbus-1/interfaces/org.gnome.ShellSearchProvider2.xml");
  ASSERT_FALSE(krunnerXml.empty()) << "tools/setup.sh fetches KRunner's interface file";
  ASSERT_FALSE(shellXml.empty()) << "gnome-shell-common is not installed (tools/setup.sh)";
  // KRunner's file writes Config's map as "{sv}" and lets its Qt annotation
  // (QVariantMap) make it the a{sv} that travels.
  krunnerXml = std::regex_replace(krunnerXml, std::regex("type=\"\\{sv\\}\""), "type=\"a{sv}\"");

  auto hostRunner = methodsOf(krunnerXml, kRunner);
  auto hostShell = methodsOf(shellXml, kShell);
  ASSERT_EQ(hostRunner.size(), 5u);
  ASSERT_EQ(hostShell.size(), 5u);
  EXPECT_EQ(methodsOf(introspect(kRunnerPath), kRunner), hostRunner);
  EXPECT_EQ(methodsOf(introspect(kShellPath), kShell), hostShell);
}

TEST_F(DesktopTest, PublishedInterfaceIsWhatTheServiceIntrospects) {
  std::string published = readFile(sourceDirectory() + "/src/desktop/data/com.quorvi.QuorviXPCServiceProtocol.xml");
  std::string live = introspect("/com/quorvi/quorvifind");
  auto element = [](const std::string& xml, const std::string& name) {
    auto start = xml.find("<interface name=\"" + name + "\">");
    if (start == std::string::npos) return std::string();
    auto end = xml.find("</interface>", start);
    return std::regex_replace(xml.substr(start, end - start), std::regex("\\s+"), " ");
  };
  for (const char* name : {"com.quorvi.QuorviXPCServiceProtocol", "com.quorvi"}) {
    ASSERT_FALSE(element(published, name).empty()) << name;
    EXPECT_EQ(element(published, name), element(live, name)) << name;
  }
}

TEST_F(DesktopTest, KRunnerMatchesPutExactAndPrefixNamesFirst) {
  indexDocs();
  auto matches = match("report");
  ASSERT_GE(matches.size(), 4u);
  std::vector<std::string> names;
  for (const auto& m : matches) names.push_back(m.text);
  // The equal name (without its extension) first, then the folder that
  // starts with the word, then the name where it starts a word, then the rest.
  EXPECT_EQ(names, (std::vector<std::string>{"report.txt", "reports", "annual report 2024.txt", "misreported.txt"}));
  EXPECT_EQ(matches[0].type, 100);
  EXPECT_EQ(matches[1].type, 30);
  EXPECT_EQ(matches[1].strings.at("category"), "Folders");
  EXPECT_EQ(matches[1].icon, "folder");
  for (std::size_t i = 1; i < matches.size(); ++i) EXPECT_GE(matches[i - 1].relevance, matches[i].relevance);
  for (const auto& m : matches) {
    EXPECT_GT(m.relevance, 0.0);
    EXPECT_LE(m.relevance, 1.0);
  }
  const Match& file = matches[0];
  EXPECT_EQ(file.strings.at("subtext"), home_.path() + "/docs");
  EXPECT_EQ(file.strings.at("category"), "Files");
  EXPECT_EQ(file.lists.at("urls"), std::vector<std::string>{"file://" + home_.path() + "/docs/report.txt"});
  EXPECT_EQ(file.lists.at("actions"), (std::vector<std::string>{"open", "openFolder", "copyPath"}));
  EXPECT_EQ(file.icon, "text-plain");
  // A name with a blank is matched by both words, in any order.
  auto both = match("2024 ANNUAL");
  ASSERT_EQ(both.size(), 1u);
  EXPECT_EQ(both[0].text, "annual report 2024.txt");
  EXPECT_TRUE(match("nothing-is-named-so").empty());
  EXPECT_TRUE(match("   ").empty());
}

TEST_F(DesktopTest, KRunnerActionsAndConfigAndRun) {
  indexDocs();
  sd_bus_message* reply = callHost(kRunnerPath, kRunner, "Actions", "");
  ASSERT_TRUE(reply);
  std::vector<std::string> actions;
  sd_bus_message_enter_container(reply, 'a', "(sss)");
  const char *id, *text, *icon;
  while (sd_bus_message_read(reply, "(sss)", &id, &text, &icon) > 0) actions.push_back(std::string(id) + "|" + text);
  sd_bus_message_unref(reply);
  EXPECT_EQ(actions, (std::vector<std::string>{"open|Open", "openFolder|Open containing folder", "copyPath|Copy path"}));

  auto matches = match("report.txt");
  ASSERT_FALSE(matches.empty());
  ASSERT_EQ(matches[0].text, "report.txt");
  // Run answers at once and opens on a worker: one at a time, to know the order.
  sd_bus_message_unref(callHost(kRunnerPath, kRunner, "Run", "ss", matches[0].id.c_str(), ""));
  ASSERT_EQ(opened(1).size(), 1u);
  sd_bus_message_unref(callHost(kRunnerPath, kRunner, "Run", "ss", matches[0].id.c_str(), "openFolder"));
  auto lines = opened(2);
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0], home_.path() + "/docs/report.txt");
  EXPECT_EQ(lines[1], home_.path() + "/docs");
  // Unknown matches and actions are logged, never fatal; Teardown is harmless.
  sd_bus_message_unref(callHost(kRunnerPath, kRunner, "Run", "ss", "file:/no/such/thing", "open"));
  sd_bus_message_unref(callHost(kRunnerPath, kRunner, "Run", "ss", "bogus", ""));
  sd_bus_message_unref(callHost(kRunnerPath, kRunner, "Run", "ss", matches[0].id.c_str(), "launchRockets"));
  sd_bus_message_unref(callHost(kRunnerPath, kRunner, "Teardown", ""));
  EXPECT_FALSE(match("report").empty());
  EXPECT_TRUE(service_->running());
}

// Klipper as Plasma runs it, reduced to the one call the runner makes:
// setClipboardContents on /klipper, recorded.
struct FakeKlipper {
  static int onSet(sd_bus_message* m, void* userdata, sd_bus_error*) {
    const char* text = nullptr;
    sd_bus_message_read(m, "s", &text);
    static_cast<FakeKlipper*>(userdata)->contents.push_back(text ? text : "");
    return sd_bus_reply_method_return(m, "");
  }
  static constexpr sd_bus_vtable kVtable[] = {
      SD_BUS_VTABLE_START(0),
      SD_BUS_METHOD("setClipboardContents", "s", "", onSet, 0),
      SD_BUS_VTABLE_END,
  };
  std::vector<std::string> contents;
};

TEST_F(DesktopTest, CopyPathPutsThePathOnKlippersClipboard) {
  indexDocs();
  auto klipperBus = bus_.connect();
  ASSERT_TRUE(klipperBus);
  FakeKlipper klipper;
  sd_bus_slot* slot = nullptr;
  ASSERT_GE(sd_bus_add_object_vtable(klipperBus->bus(), &slot, "/klipper", "org.kde.klipper.klipper",
                                     FakeKlipper::kVtable, &klipper),
            0);
  ASSERT_GE(sd_bus_request_name(klipperBus->bus(), "org.kde.klipper", 0), 0);

  auto matches = match("annual report");
  ASSERT_FALSE(matches.empty());
  sd_bus_message_unref(callHost(kRunnerPath, kRunner, "Run", "ss", matches[0].id.c_str(), "copyPath"));
  for (int i = 0; i < 500 && klipper.contents.empty(); ++i) {
    sd_bus_process(klipperBus->bus(), nullptr);
    sd_bus_wait(klipperBus->bus(), 10'000);
  }
  EXPECT_EQ(klipper.contents, std::vector<std::string>{home_.path() + "/docs/annual report 2024.txt"});
  EXPECT_TRUE(readFile(home_.path() + "/opened").empty()) << "copying opened something";
  sd_bus_slot_unref(slot);
}

TEST_F(DesktopTest, ShellSearchNarrowsAndActivates) {
  indexDocs();
  auto initial = strvCall("GetInitialResultSet", {}, {"rep"});
  ASSERT_EQ(initial.size(), 4u);
  auto narrowed = strvCall("GetSubsearchResultSet", initial, {"report", "2024"});
  ASSERT_EQ(narrowed, std::vector<std::string>{"file:" + home_.path() + "/docs/annual report 2024.txt"});
  // A subsearch never brings what the previous set did not have.
  EXPECT_TRUE(strvCall("GetSubsearchResultSet", narrowed, {"notes"}).empty());
  EXPECT_TRUE(strvCall("GetSubsearchResultSet", {"file:/made/up.txt"}, {"up"}).empty());

  auto found = metas(narrowed);
  ASSERT_EQ(found.size(), 1u);
  EXPECT_EQ(found[0]["id"], narrowed[0]);
  EXPECT_EQ(found[0]["name"], "annual report 2024.txt");
  EXPECT_EQ(found[0]["description"], home_.path() + "/docs");
  EXPECT_EQ(found[0]["gicon"], "text-plain");
  EXPECT_EQ(found[0]["icon"], "themed:text-plain");
  // Unknown identifiers have no metas.
  EXPECT_EQ(metas({"zotero:NOSUCHKEY", "nonsense"}).size(), 0u);

  sd_bus_message_unref(callHost(kShellPath, kShell, "ActivateResult", "sasu", narrowed[0].c_str(), 1, "2024", 0u));
  auto lines = opened(1);
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0], home_.path() + "/docs/annual report 2024.txt");

  // "Search in the application": the entry GNOME's registration names is
  // started with the terms, each one argument (quotes and blanks kept).
  home_.write("argv", "#!/bin/sh\nprintf '[%s]' \"$@\" > \"$HOME/launched.tmp\"\nmv \"$HOME/launched.tmp\" \"$HOME/launched\"\n",
              true);
  home_.write(".local/share/applications/com.quorvi.quorvifind.desktop",
              "[Desktop Entry]\nType=Application\nName=Quorvi Find\nExec=" + home_.path() +
                  "/argv search\nTerminal=false\n");
  sd_bus_message_unref(callHost(kShellPath, kShell, "LaunchSearch", "asu", 2, "it's", "a b", 0u));
  std::string launched;
  for (int i = 0; i < 500 && launched.empty(); ++i) {
    std::this_thread::sleep_for(10ms);
    launched = readFile(home_.path() + "/launched");
  }
  EXPECT_EQ(launched, "[search][--interactive][it's][a b]");
  EXPECT_TRUE(service_->running());
}

TEST_F(DesktopTest, QueriesPastTheLaunchersBoundsFindNothingAndHarmNothing) {
  indexDocs();
  std::string words;
  for (int i = 0; i < 32; ++i) words += "r ";
  EXPECT_FALSE(match(words).empty());  // 32 words: the most a query may have
  EXPECT_TRUE(match(words + "r").empty());
  EXPECT_TRUE(match("report" + std::string(1100, ' ')).empty());
  EXPECT_TRUE(match(std::string(5000, 'r')).empty());
  EXPECT_TRUE(strvCall("GetInitialResultSet", {}, std::vector<std::string>(33, "r")).empty());
  auto initial = strvCall("GetInitialResultSet", {}, {"report"});
  ASSERT_FALSE(initial.empty());
  // Only the first identifiers of a huge set are looked at.
  std::vector<std::string> many(100000, "file:/no/such/file");
  many.insert(many.end(), initial.begin(), initial.end());
  EXPECT_TRUE(strvCall("GetSubsearchResultSet", many, {"report"}).empty());
  EXPECT_TRUE(metas(many).empty());
  EXPECT_EQ(strvCall("GetSubsearchResultSet", initial, {"report"}), initial);
  EXPECT_TRUE(service_->running());
}

TEST_F(DesktopTest, ApplicationsContactsAndZoteroItemsAreOffered) {
  // Nothing is read for the desktop's sake: before the launcher asked, there
  // are no applications, contacts or Zotero items.
  EXPECT_TRUE(match("reporter").empty());
  home_.write(".local/share/contacts/ada.vcf",
              "BEGIN:VCARD\r\nVERSION:3.0\r\nFN:Ada Lovelace\r\nEMAIL:ada@example.org\r\nEND:VCARD\r\n");
  EXPECT_TRUE(match("lovelace").empty());

  ASSERT_TRUE(callMember(*client_, "StartIndexAppsWithSearchScopesCompletion", {""}, 30s).ok);
  auto apps = match("reporter");
  ASSERT_FALSE(apps.empty());
  EXPECT_EQ(apps[0].text, "Reporter");
  EXPECT_EQ(apps[0].type, 100);
  EXPECT_EQ(apps[0].strings.at("category"), "Applications");
  EXPECT_EQ(apps[0].icon, "office-chart-bar");
  EXPECT_EQ(apps[0].lists.at("actions"), std::vector<std::string>{"open"});
  auto byKeyword = match("charts");
  ASSERT_FALSE(byKeyword.empty());
  EXPECT_EQ(byKeyword[0].text, "Reporter");

  // The launcher's contact search loads the address books. A load that sees
  // the card's folder change under it is dropped again (the file was just
  // written): ask until the entries stay.
  std::vector<Match> people;
  for (int i = 0; i < 50 && people.empty(); ++i) {
    ASSERT_TRUE(callMember(*client_, "SearchContactsWithQueryMaxcountCompletionHandler", {"ada", "10"}).ok);
    people = match("lovelace");
    if (people.empty()) std::this_thread::sleep_for(100ms);
  }
  ASSERT_EQ(people.size(), 1u);
  EXPECT_EQ(people[0].text, "Ada Lovelace");
  EXPECT_EQ(people[0].id, "contact:mailto:ada@example.org");

  std::string library = home_.path() + "/Zotero";
  fs::create_directories(library);
  {
    zotero_fixture::ZoteroLibraryFixture zotero(library);
    zotero.addItem("journalArticle", {{"title", "Notes on the Analytical Engine"}, {"date", "1843"}});
    zotero.close();
  }
  ASSERT_TRUE(callMember(*client_, "IndexZoteroAtUseCacheIfAvailableCompletion", {library, "false"}, 30s).ok);
  auto papers = match("analytical engine");
  ASSERT_EQ(papers.size(), 1u);
  EXPECT_EQ(papers[0].strings.at("category"), "Zotero");
  EXPECT_EQ(papers[0].id.rfind("zotero:", 0), 0u);

  // Each opens as the desktop opens it: the application by its entry, the
  // address and the item by their schemes' default application.
  sd_bus_message_unref(callHost(kRunnerPath, kRunner, "Run", "ss", apps[0].id.c_str(), ""));
  sd_bus_message_unref(callHost(kRunnerPath, kRunner, "Run", "ss", people[0].id.c_str(), ""));
  sd_bus_message_unref(callHost(kRunnerPath, kRunner, "Run", "ss", papers[0].id.c_str(), ""));
  auto lines = opened(3);
  ASSERT_EQ(lines.size(), 3u);
  std::sort(lines.begin(), lines.end());
  EXPECT_EQ(lines[0], "launched-reporter");
  EXPECT_EQ(lines[1], "mailto:ada@example.org");
  EXPECT_EQ(lines[2], "zotero://select/library/items/" + papers[0].id.substr(7));
}

}  // namespace
}  // namespace quorvi::testing
