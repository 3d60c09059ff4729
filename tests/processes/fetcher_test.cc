// QuitProcessFetcher: the steps on plain values, the desktop entries, and
// whole fetches against real processes and sockets.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

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
       "/usr/lib/editor/editor", "editor", false},
      {"files.desktop", "/usr/share/applications/files.desktop", "Files", "/usr/bin/files", "files", true},
      {"browser.desktop", "/usr/share/applications/browser.desktop", "browser", "/usr/bin/browser", "browser", false},
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

TEST(DesktopEntries, KeyFileReading) {
  auto keys = readDesktopEntryGroup(
      "# comment\n[Other]\nName=Wrong\n[Desktop Entry]\nName = Text\\sEditor\nName[zh_CN]=文本编辑器\n"
      "Exec=\"/opt/My App/run\" --flag %U\nbroken line\n[Desktop Action new]\nExec=other\n");
  EXPECT_EQ(keys["Name"], "Text Editor");
  EXPECT_EQ(keys["Exec"], "\"/opt/My App/run\" --flag %U");
  EXPECT_EQ(localizedName(keys, SupportedLanguage::chinese), "文本编辑器");
  EXPECT_EQ(localizedName(keys, SupportedLanguage::traditionChinese), "Text Editor");
  EXPECT_EQ(localizedName(keys, SupportedLanguage::english), "Text Editor");
  EXPECT_EQ(programOfExec(keys["Exec"]), "/opt/My App/run");
  EXPECT_EQ(programOfExec("env GDK_BACKEND=x11 LANG=C gedit %F"), "gedit");
  EXPECT_EQ(programOfExec("\"a\\\"b\" x"), "a\"b");
  EXPECT_FALSE(programOfExec(""));
  EXPECT_FALSE(programOfExec("env A=1"));
  EXPECT_TRUE(readDesktopEntryGroup(std::string("\xff\xfe[Desktop Entry\n=\n\0\0", 20)).empty());
}

TEST(DesktopEntries, WhichEntriesAreApplications) {
  std::string self = selfExecutable();
  auto parse = [](const std::string& text) {
    return desktopApplicationFromText(text, "t.desktop", "/x/t.desktop", SupportedLanguage::english);
  };
  auto app = parse("[Desktop Entry]\nType=Application\nName=Tests\nExec=" + self + " %U\n");
  ASSERT_TRUE(app);
  EXPECT_EQ(app->program, fs::canonical(self).string());
  EXPECT_FALSE(app->isFileManager);
  EXPECT_TRUE(parse("[Desktop Entry]\nType=Application\nName=F\nCategories=System;FileManager;\nExec=" + self)
                  ->isFileManager);
  std::string base = "[Desktop Entry]\nType=Application\nName=T\n";
  EXPECT_FALSE(parse(base + "Exec=" + self + "\nNoDisplay=true\n"));
  EXPECT_FALSE(parse(base + "Exec=" + self + "\nHidden=true\n"));
  EXPECT_FALSE(parse(base + "Exec=" + self + "\nTerminal=true\n"));
  EXPECT_FALSE(parse("[Desktop Entry]\nType=Link\nName=T\nExec=" + self + "\n"));
  EXPECT_FALSE(parse(base + "Exec=sh -c 'run thing'\n"));        // runs anything
  EXPECT_FALSE(parse(base + "Exec=python3 /opt/tool.py\n"));
  EXPECT_FALSE(parse(base + "Exec=/nonexistent/program\n"));
  EXPECT_FALSE(parse(base));
}

TEST(DesktopEntries, CatalogScansFoldersAndNoticesChanges) {
  ScratchFolder home, system;
  std::string self = selfExecutable();
  std::string entry = "[Desktop Entry]\nType=Application\nExec=" + self + "\nName=";
  home.write("applications/mine.desktop", entry + "Mine\n");
  home.write("applications/shadowed.desktop", entry + "Hidden\nHidden=true\n");
  system.write("applications/shadowed.desktop", entry + "Shadowed\n");
  system.write("applications/kde/tool.desktop", entry + "Tool\nName[zh_CN]=工具\n");
  system.write("applications/readme.txt", "not an entry");
  DesktopApplicationCatalog catalog({home.path() + "/applications", system.path() + "/applications",
                                     system.path() + "/missing"});
  auto ids = [&](SupportedLanguage language) {
    std::map<std::string, std::string> names;
    for (const auto& app : catalog.applications(language)) names[app.desktopId] = app.name;
    return names;
  };
  EXPECT_EQ(ids(SupportedLanguage::english),
            (std::map<std::string, std::string>{{"mine.desktop", "Mine"}, {"kde-tool.desktop", "Tool"}}));
  EXPECT_EQ(ids(SupportedLanguage::chinese)["kde-tool.desktop"], "工具");
  system.write("applications/kde/new.desktop", entry + "New\n");
  EXPECT_EQ(ids(SupportedLanguage::chinese).count("kde-new.desktop"), 1u);
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
  DesktopApplicationCatalog catalog_{{apps_.path() + "/applications"}};
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
