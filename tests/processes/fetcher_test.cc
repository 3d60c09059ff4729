// QuitProcessFetcher: the steps on plain values, the desktop entries, and
// whole fetches against real processes and sockets.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <thread>

#include "listening_child.h"
#include "processes/quit_process_fetcher.h"
#include "service/service_provider.h"

namespace quorvi {
namespace {

namespace fs = std::filesystem;
using testing::ListeningChild;

class ScratchFolder {
 public:
  ScratchFolder() {
    static int counter = 0;
    path_ = fs::temp_directory_path() / ("quorvi-processes-" + std::to_string(::getpid()) + "-" +
                                         std::to_string(counter++));
    fs::create_directories(path_);
  }
  ~ScratchFolder() { fs::remove_all(path_); }
  std::string write(const std::string& relative, const std::string& text) const {
    fs::path file = path_ / relative;
    fs::create_directories(file.parent_path());
    std::ofstream(file, std::ios::binary) << text;
    return file.string();
  }
  std::string path() const { return path_.string(); }

 private:
  fs::path path_;
};

std::string selfExecutable() { return fs::read_symlink("/proc/self/exe").string(); }

ProcessEntry entry(int64_t pid, int64_t ppid, std::string name, std::string path) {
  ProcessEntry e;
  e.pid = pid;
  e.ppid = ppid;
  e.name = std::move(name);
  e.path = std::move(path);
  e.matchs = {std::to_string(pid)};
  return e;
}

TEST(FetcherSteps, RowsBecomeEntriesSortedByNameAndVanishedPidsAreLeftOut) {
  ScratchFolder proc;
  for (auto [pid, name] : {std::pair{20, "beta"}, {21, "Alpha"}, {22, "beta"}, {23, "alpha"}}) {
    proc.write(std::to_string(pid) + "/comm", std::string(name) + "\n");
    fs::create_symlink("/usr/bin/" + std::string(name), proc.path() + "/" + std::to_string(pid) + "/exe");
  }
  auto row = [](int32_t pid, int32_t ppid, std::string cpu, int64_t kilobytes) {
    ProcessRow r;
    r.pid = pid;
    r.ppid = ppid;
    r.cpu = std::move(cpu);
    r.residentKilobytes = kilobytes;
    return r;
  };
  std::vector<ProcessRow> rows = {row(20, 1, "0.5", 10), row(21, 1, "0.0", INT64_MAX), row(22, 20, "1.0", 2),
                                  row(23, 1, "0.0", 1), row(99, 1, "0.0", 1)};  // 99 has ended
  auto entries = entriesFromRows(rows, ProcessHelper(proc.path()));
  std::vector<int64_t> order;
  for (const auto& e : entries) order.push_back(e.pid);
  EXPECT_EQ(order, (std::vector<int64_t>{21, 23, 20, 22}));  // byte order, ties keep the table's order
  const ProcessEntry& first = entries[2];
  EXPECT_EQ(first.mem, 10 * 1024);
  EXPECT_EQ(first.cpu, "0.5");
  EXPECT_EQ(first.path, "/usr/bin/beta");
  EXPECT_EQ(first.matchs, (std::vector<std::string>{"20", "beta"}));
  EXPECT_EQ(entries[0].matchs, (std::vector<std::string>{"21", "alpha"}));
  EXPECT_EQ(entries[0].mem, INT64_MAX / 1024 * 1024);  // an absurd size is capped, not overflowed
  EXPECT_EQ(first.activationPolicy, kActivationPolicyProhibited);

  // The real /proc: a reaped child's pid is left out, this process is kept.
  auto live = entriesFromRows({row(testing::vanishedPid(), 1, "0.0", 1), row(::getpid(), 1, "0.0", 1)},
                              ProcessHelper());
  ASSERT_EQ(live.size(), 1u);
  EXPECT_EQ(live[0].pid, ::getpid());
}

TEST(FetcherSteps, OneEntryPerListeningPort) {
  std::vector<ProcessEntry> all = {entry(20, 1, "node", "/usr/bin/node"), entry(30, 1, "nginx", "/usr/sbin/nginx")};
  std::vector<Listener> listeners = {{"node", "a", 20, 3000}, {"gone", "a", 99, 80}, {"node", "a", 20, 3001},
                                     {"nginx", "root", 30, 8080}};
  auto ports = listeningEntries(all, listeners);
  ASSERT_EQ(ports.size(), 3u);
  EXPECT_EQ(ports[0].port, 3000);
  EXPECT_EQ(ports[1].port, 3001);
  EXPECT_EQ(ports[1].pid, 20);
  EXPECT_EQ(ports[2].matchs.back(), "8080");
  EXPECT_FALSE(all[0].port);  // allProcesses is left as it was
}

TEST(FetcherSteps, RegularApplications) {
  std::vector<DesktopApplication> apps = {
      {"org.example.Editor.desktop", "/usr/share/applications/org.example.Editor.desktop", "Editor",
       "/usr/lib/editor/editor", "editor", false, "", 0},
      {"files.desktop", "/usr/share/applications/files.desktop", "Files", "/usr/bin/files", "files", true, "", 0},
      {"browser.desktop", "/usr/share/applications/browser.desktop", "browser", "/usr/bin/browser", "browser", false,
       "", 0},
  };
  std::vector<ProcessEntry> all = {
      entry(10, 1, "editor", "/usr/lib/editor/editor"),
      entry(11, 10, "editor", "/usr/lib/editor/editor"),    // its helper: not listed again
      entry(12, 1, "files", "/usr/bin/files"),               // the file manager: never offered
      entry(13, 1, "browser", "/opt/browser/browser"),       // wrapper handed over: matched by name
      entry(14, 1, "bash", "/usr/bin/bash"),
      entry(15, 99, "editor", "/usr/lib/editor/editor"),     // a second, independent instance
  };
  auto normal = regularApplicationEntries(all, apps);
  ASSERT_EQ(normal.size(), 3u);
  EXPECT_EQ(normal[0].pid, 13);  // "browser" before "Editor", ignoring case
  EXPECT_EQ(normal[1].pid, 10);
  EXPECT_EQ(normal[2].pid, 15);
  EXPECT_EQ(normal[1].activationPolicy, kActivationPolicyRegular);
  EXPECT_EQ(normal[1].name, "Editor");
  EXPECT_EQ(normal[1].bundleIdentifier, "org.example.Editor.desktop");
  EXPECT_EQ(normal[1].path, "/usr/share/applications/org.example.Editor.desktop");
  EXPECT_EQ(normal[1].matchs, (std::vector<std::string>{"10", "editor", "org.example.editor"}));

  // A Chinese name is found by its pinyin too.
  apps[0].name = "文本编辑器";
  auto chinese = regularApplicationEntries(all, apps);
  ASSERT_EQ(chinese.size(), 3u);
  const auto& keys = chinese[2].matchs;
  EXPECT_EQ(chinese[2].name, "文本编辑器");
  EXPECT_NE(std::find(keys.begin(), keys.end(), "wenbenbianjiqi"), keys.end());
  EXPECT_NE(std::find(keys.begin(), keys.end(), "wbbjq"), keys.end());
}

TEST(FetcherSteps, SandboxedApplicationsAreRecognisedByTheirControlGroup) {
  DesktopApplication calculator{"org.example.Calc.desktop", "/x/org.example.Calc.desktop", "Calculator", "", "",
                                false, "flatpak:org.example.Calc", 0};
  DesktopApplication player{"player_player.desktop", "/x/player_player.desktop", "Player", "", "", false,
                            "snap:player_player", 0};
  std::vector<ProcessEntry> all = {
      entry(30, 1, "bwrap", "/usr/bin/bwrap"),          // the sandbox's first process
      entry(31, 30, "calc", "/app/bin/calc"),           // inside it: a helper of the same application
      entry(32, 1, "player", "/snap/player/1/player"),
      entry(33, 1, "bash", "/usr/bin/bash"),            // an ordinary process in no sandbox
  };
  std::map<int64_t, std::string> keys = {{30, "flatpak:org.example.Calc"}, {31, "flatpak:org.example.Calc"},
                                         {32, "snap:player_player"}};
  std::vector<int64_t> asked;
  auto lookup = [&](int64_t pid) -> std::optional<std::string> {
    asked.push_back(pid);
    auto found = keys.find(pid);
    return found == keys.end() ? std::nullopt : std::optional(found->second);
  };
  auto normal = regularApplicationEntries(all, {calculator, player}, lookup);
  ASSERT_EQ(normal.size(), 2u);
  EXPECT_EQ(normal[0].pid, 30);
  EXPECT_EQ(normal[0].name, "Calculator");
  EXPECT_EQ(normal[0].bundleIdentifier, "org.example.Calc.desktop");
  EXPECT_EQ(normal[1].pid, 32);
  // Without sandboxed applications the control groups are not read at all.
  asked.clear();
  DesktopApplication plain{"t.desktop", "/x/t.desktop", "T", "/usr/bin/t", "t", false, "", 0};
  regularApplicationEntries(all, {plain}, lookup);
  EXPECT_TRUE(asked.empty());
}

TEST(DesktopApplications, ControlGroupsNameTheSandboxedApplication) {
  EXPECT_EQ(sandboxKeyOfControlGroup("0::/user.slice/user-1000.slice/user@1000.service/app.slice/"
                                     "app-flatpak-org.gnome.Calculator-52137.scope\n"),
            "flatpak:org.gnome.Calculator");
  EXPECT_EQ(sandboxKeyOfControlGroup("0::/user.slice/user-1000.slice/user@1000.service/app.slice/"
                                     "app-flatpak-io.github.some\\x2dthing-9.scope/subgroup\n"),
            "flatpak:io.github.some-thing");
  EXPECT_EQ(sandboxKeyOfControlGroup("0::/user.slice/user-1000.slice/user@1000.service/app.slice/"
                                     "snap.firefox.firefox-2d3c7b8e-5f4a-4e2b-9c1d-0a1b2c3d4e5f.scope\n"),
            "snap:firefox_firefox");
  EXPECT_EQ(sandboxKeyOfControlGroup("12:pids:/\n1:name=systemd:/user.slice/snap.my-tool.run-it-7.scope\n"),
            "snap:my-tool_run-it");
  EXPECT_FALSE(sandboxKeyOfControlGroup("0::/user.slice/user-1000.slice/user@1000.service/app.slice/"
                                        "app-gnome-org.gnome.TextEditor-4242.scope\n"));
  EXPECT_FALSE(sandboxKeyOfControlGroup("0::/system.slice/snapd.service\n"));
  EXPECT_FALSE(sandboxKeyOfControlGroup("0::/init.scope\n"));
  EXPECT_FALSE(sandboxKeyOfControlGroup(""));
  EXPECT_FALSE(sandboxKeyOfControlGroup("garbage without colons"));
}

TEST(DesktopApplications, InterpretersAreTellingNothingButProgramsNamedLikeThemAre) {
  for (const char* launcher : {"python3", "python3.11", "ruby3.1", "lua5.4", "perl5.36.0", "node18", "bash", "env"}) {
    EXPECT_TRUE(isGenericLauncher(launcher)) << launcher;
  }
  for (const char* program : {"luanti", "rubyripper", "pythonista", "javaws-viewer", "nodeeditor", "perlpad", "gedit"}) {
    EXPECT_FALSE(isGenericLauncher(program)) << program;
  }
  std::string self = selfExecutable();
  ScratchFolder bin;
  std::string luanti = bin.path() + "/luanti";
  fs::copy_file(self, luanti);
  auto entry = parseDesktopEntry("[Desktop Entry]\nType=Application\nName=Luanti\nExec=" + luanti + " --go\n",
                                 "net.luanti.desktop", "/x/net.luanti.desktop");
  ASSERT_TRUE(entry);
  auto application = desktopApplicationOf(*entry, SupportedLanguage::english, {}, {});
  ASSERT_TRUE(application);
  EXPECT_EQ(application->programFileName, "luanti");
  EXPECT_EQ(application->execArgumentCount, 1);
}

TEST(DesktopApplications, WhichEntriesAreApplications) {
  std::string self = selfExecutable();
  auto parse = [](const std::string& text) -> std::optional<DesktopApplication> {
    auto entry = parseDesktopEntry(text, "t.desktop", "/x/t.desktop");
    if (!entry) return std::nullopt;
    return desktopApplicationOf(*entry, SupportedLanguage::english, {"GNOME"}, {});
  };
  auto app = parse("[Desktop Entry]\nType=Application\nName=Tests\nExec=" + self + " %U\n");
  ASSERT_TRUE(app);
  EXPECT_EQ(app->program, fs::canonical(self).string());
  EXPECT_EQ(app->execArgumentCount, 0);  // field codes are no arguments
  EXPECT_FALSE(app->isFileManager);
  EXPECT_TRUE(parse("[Desktop Entry]\nType=Application\nName=F\nCategories=System;FileManager;\nExec=" + self)
                  ->isFileManager);
  std::string base = "[Desktop Entry]\nType=Application\nName=T\n";
  EXPECT_FALSE(parse(base + "Exec=" + self + "\nNoDisplay=true\n"));
  EXPECT_FALSE(parse(base + "Exec=" + self + "\nHidden=true\n"));
  EXPECT_FALSE(parse(base + "Exec=" + self + "\nTerminal=true\n"));
  EXPECT_FALSE(parse(base + "Exec=" + self + "\nOnlyShowIn=KDE;\n"));
  EXPECT_TRUE(parse(base + "Exec=" + self + "\nOnlyShowIn=KDE;GNOME;\n"));
  EXPECT_FALSE(parse("[Desktop Entry]\nType=Link\nName=T\nExec=" + self + "\n"));
  EXPECT_FALSE(parse(base + "Exec=sh -c 'run thing'\n"));        // runs anything
  EXPECT_FALSE(parse(base + "Exec=python3 /opt/tool.py\n"));
  EXPECT_FALSE(parse(base + "Exec=/nonexistent/program\n"));
  EXPECT_FALSE(parse(base));
  // A sandboxed application is one although its program is the sandbox's launcher.
  auto flatpak = parse(base + "Exec=/usr/bin/flatpak run --branch=stable org.example.Calc\nX-Flatpak=org.example.Calc\n");
  ASSERT_TRUE(flatpak);
  EXPECT_EQ(flatpak->sandboxKey, "flatpak:org.example.Calc");
  EXPECT_TRUE(flatpak->program.empty());
}

// Writes the two files in both orders, into fresh catalogs: the same entry
// wins each time.
TEST(DesktopApplications, OfSeveralEntriesForOneProgramThePreferredWins) {
  std::string self = selfExecutable();
  std::string program = fs::path(self).filename().string();
  auto winner = [&](const std::vector<std::pair<std::string, std::string>>& files) {
    ScratchFolder apps;
    for (const auto& [name, exec] : files) {
      apps.write("applications/" + name, "[Desktop Entry]\nType=Application\nName=" + name + "\nExec=" + exec + "\n");
    }
    DesktopCatalog catalog({apps.path() + "/applications"});
    DesktopApplicationCatalog applications(catalog, {}, {});
    auto normal = regularApplicationEntries({entry(50, 1, program, fs::canonical(self).string())},
                                            applications.applications(SupportedLanguage::english));
    return normal.empty() ? std::string() : *normal[0].bundleIdentifier;
  };
  std::vector<std::pair<std::string, std::string>> plainAndPrivate = {{"a-private.desktop", self + " --private %U"},
                                                                       {"z-browser.desktop", self + " %U"}};
  EXPECT_EQ(winner(plainAndPrivate), "z-browser.desktop");  // fewest arguments
  std::reverse(plainAndPrivate.begin(), plainAndPrivate.end());
  EXPECT_EQ(winner(plainAndPrivate), "z-browser.desktop");
  std::vector<std::pair<std::string, std::string>> named = {{"b.desktop", self},
                                                            {"org.example." + program + ".desktop", self + " --x"}};
  EXPECT_EQ(winner(named), "org.example." + program + ".desktop");  // named after its program
  std::reverse(named.begin(), named.end());
  EXPECT_EQ(winner(named), "org.example." + program + ".desktop");
  EXPECT_EQ(winner({{"b.desktop", self}, {"a.desktop", self}}), "a.desktop");  // then the smaller id
  EXPECT_EQ(winner({{"a.desktop", self}, {"b.desktop", self}}), "a.desktop");
}

TEST(DesktopApplications, CatalogChangesAreSeenWithoutWaitingForThem) {
  ScratchFolder home, system;
  std::string self = selfExecutable();
  std::string text = "[Desktop Entry]\nType=Application\nExec=" + self + "\nName=";
  home.write("applications/mine.desktop", text + "Mine\n");
  home.write("applications/shadowed.desktop", text + "Hidden\nHidden=true\n");
  system.write("applications/shadowed.desktop", text + "Shadowed\n");
  system.write("applications/kde/tool.desktop", text + "Tool\nName[zh_CN]=工具\n");
  system.write("applications/readme.txt", "not an entry");
  DesktopCatalog catalog({home.path() + "/applications", system.path() + "/applications", system.path() + "/missing"});
  DesktopApplicationCatalog applications(catalog, {}, {});
  auto ids = [&](SupportedLanguage language) {
    std::map<std::string, std::string> names;
    for (const auto& app : applications.applications(language)) names[app.desktopId] = app.name;
    return names;
  };
  EXPECT_EQ(ids(SupportedLanguage::english),
            (std::map<std::string, std::string>{{"mine.desktop", "Mine"}, {"kde-tool.desktop", "Tool"}}));
  EXPECT_EQ(ids(SupportedLanguage::chinese)["kde-tool.desktop"], "工具");
  // A new entry: the request that notices the folder change answers at once
  // and queues the reading; a later request sees the entry.
  system.write("applications/kde/new.desktop", text + "New\n");
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (!ids(SupportedLanguage::english).count("kde-new.desktop") && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  EXPECT_EQ(ids(SupportedLanguage::english).count("kde-new.desktop"), 1u);
}

class FetchTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // This test program is the "application": its own process is listed in
    // normalProcesses; the child it forks is a helper of it.
    apps_.write("applications/quorvi-tests.desktop",
                "[Desktop Entry]\nType=Application\nName=Quorvi Tests\nExec=" + selfExecutable() + "\n");
  }
  std::optional<RunningProcesses> fetch(ProcessTableSource table, PortSource ports) {
    ProcessFetchOptions options;
    options.tableSource = table;
    options.portSource = ports;
    options.catalog = &catalog_;
    return QuitProcessFetcher(options).fetch();
  }
  void expectChildAndApplication(const RunningProcesses& result, const ListeningChild& child) {
    std::vector<int64_t> ports;
    for (const auto& e : result.portProcesses) {
      if (e.pid == child.pid()) ports.push_back(*e.port);
    }
    // One port over IPv4 and IPv6 once, the other once: two entries.
    EXPECT_EQ(ports, (std::vector<int64_t>{child.dualStackPort(), child.secondPort()}));
    size_t childEntries = 0;
    for (const auto& e : result.allProcesses) {
      EXPECT_GT(e.pid, 0);
      EXPECT_NE(e.name, "PID");
      EXPECT_FALSE(e.port);
      if (e.pid == child.pid()) {
        ++childEntries;
        EXPECT_EQ(e.name, "quorvi fetch");
        EXPECT_EQ(e.ppid, ::getpid());
      }
    }
    EXPECT_EQ(childEntries, 1u);
    ASSERT_EQ(result.normalProcesses.size(), 1u);  // the child is a helper of this process
    EXPECT_EQ(result.normalProcesses[0].pid, ::getpid());
    EXPECT_EQ(result.normalProcesses[0].name, "Quorvi Tests");
    EXPECT_EQ(result.normalProcesses[0].bundleIdentifier, "quorvi-tests.desktop");
  }

  ScratchFolder apps_;
  DesktopCatalog desktopCatalog_{{apps_.path() + "/applications"}};
  DesktopApplicationCatalog catalog_{desktopCatalog_, {}, {}};
};

TEST_F(FetchTest, NativeSourcesFindAChildsPorts) {
  ListeningChild child("quorvi fetch");
  ASSERT_TRUE(child.ok());
  auto result = fetch(ProcessTableSource::automatic, PortSource::automatic);
  ASSERT_TRUE(result);
  expectChildAndApplication(*result, child);
}

TEST_F(FetchTest, ToolSourcesFindTheSame) {
  if (PortListener::lsofPath().empty()) GTEST_SKIP() << "lsof is not installed";
  ListeningChild child("quorvi fetch");
  ASSERT_TRUE(child.ok());
  auto result = fetch(ProcessTableSource::ps, PortSource::lsof);
  ASSERT_TRUE(result);
  expectChildAndApplication(*result, child);
}

TEST(RunningProcessesJson, DirectWriterMatchesTheLibrary) {
  auto live = QuitProcessFetcher().fetch();
  ASSERT_TRUE(live);
  RunningProcesses record = *live;
  ProcessEntry odd = entry(-7, 0, "q\"b\\s\n\t\r\b\f\x01\x1f\x7f é 中 \xff\xfe end", "/x\xc3");
  odd.bundleIdentifier = "id.desktop";
  odd.port = 65535;
  odd.mem = INT64_MAX;
  odd.matchs.push_back("");
  record.normalProcesses.push_back(odd);
  odd.bundleIdentifier.reset();
  record.portProcesses.push_back(odd);
  EXPECT_EQ(encodeRunningProcesses(record), *encodeJson(toJson(record)));
  EXPECT_EQ(encodeRunningProcesses({}), R"({"normalProcesses":[],"portProcesses":[],"allProcesses":[]})");
}

TEST(RunningProcessesRequest, ReplyIsTheRecordAsJson) {
  ListeningChild child("quorvi reply");
  ListeningChild oddName("odd\xff\xfename");  // command names are bytes, not always UTF-8
  ASSERT_TRUE(child.ok() && oddName.ok());
  std::vector<ReplyValue> values;
  ServiceProvider::shared().getRunningProcessesWithCompletion(
      Reply([&](std::vector<ReplyValue> sent) { values = std::move(sent); }));
  ASSERT_EQ(values.size(), 1u);
  ASSERT_TRUE(values[0].value);
  Json document = Json::parse(*values[0].value);
  std::vector<std::string> keys;
  for (const auto& [key, value] : document.items()) keys.push_back(key);
  EXPECT_EQ(keys, (std::vector<std::string>{"normalProcesses", "portProcesses", "allProcesses"}));
  const Json* port = nullptr;
  for (const auto& e : document["portProcesses"]) {
    if (e["pid"] == child.pid() && e["port"] == child.secondPort()) port = &e;
  }
  ASSERT_TRUE(port);
  std::vector<std::string> fields;
  for (const auto& [key, value] : port->items()) fields.push_back(key);
  EXPECT_EQ(fields, (std::vector<std::string>{"activationPolicy", "pid", "ppid", "name", "path", "cpu", "mem",
                                              "user", "port", "matchs"}));
  EXPECT_EQ((*port)["matchs"][0], std::to_string(child.pid()));
  EXPECT_EQ((*port)["name"], "quorvi reply");
  EXPECT_TRUE((*port)["mem"].is_number_integer());
  EXPECT_TRUE((*port)["cpu"].is_string());
  bool oddNameListed = false;
  for (const auto& e : document["allProcesses"]) {
    if (e["pid"] == oddName.pid()) oddNameListed = e["name"] == "odd\uFFFD\uFFFDname";
  }
  EXPECT_TRUE(oddNameListed);
}

}  // namespace
}  // namespace quorvi
