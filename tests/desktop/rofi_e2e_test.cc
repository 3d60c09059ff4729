// A person using the service through rofi: an X server of its own (Xvfb),
// the real quorvifind on a private bus, rofi in `quorvi rofi` script mode,
// keys typed with xdotool. The rows rofi draws are read back from a
// screenshot with Tesseract; the screenshot is kept in the build folder
// (test-artefacts/rofi-search.png).
#include <fcntl.h>
#include <poll.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <pty.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <regex>
#include <sstream>
#include <thread>

#include "support/test_bus.h"

extern char** environ;

namespace quorvi::testing {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

// A stand-in default application for text files: it appends what it was
// asked to open to $HOME/opened.
void registerRecorderAsDefaultApplication(const TemporaryDirectory& home) {
  home.write("recorder", "#!/bin/sh\nprintf '%s\\n' \"$*\" >> \"$HOME/opened\"\n", true);
  home.write(".local/share/applications/recorder.desktop", "[Desktop Entry]\nType=Application\nName=Recorder\nExec=" +
                                                               home.path() + "/recorder %u\nMimeType=text/plain;\n");
  home.write(".config/mimeapps.list", "[Default Applications]\ntext/plain=recorder.desktop\n");
}

// A child process ended (TERM, then KILL) when the object goes.
class Child {
 public:
  // passFd, when given, reaches the child as descriptor 3; no other
  // descriptor of ours does (a build lock held by the test runner would live
  // on in a leftover child).
  Child(std::vector<std::string> argv, std::vector<std::string> env, std::string log = "/dev/null",
        int passFd = -1) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
    if (passFd >= 0) posix_spawn_file_actions_adddup2(&actions, passFd, 3);
    posix_spawn_file_actions_addclosefrom_np(&actions, passFd >= 0 ? 4 : 3);
    std::vector<char*> args, envp;
    for (auto& a : argv) args.push_back(a.data());
    args.push_back(nullptr);
    for (auto& e : env) envp.push_back(e.data());
    envp.push_back(nullptr);
    if (::posix_spawnp(&pid_, args[0], &actions, nullptr, args.data(), envp.data()) != 0) pid_ = -1;
    posix_spawn_file_actions_destroy(&actions);
  }
  ~Child() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGTERM);
    for (int i = 0; i < 200; ++i) {
      if (::waitpid(pid_, nullptr, WNOHANG) == pid_) return;
      std::this_thread::sleep_for(10ms);
    }
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }
  bool ok() const { return pid_ > 0; }
  bool exited() {
    if (pid_ <= 0) return true;
    if (::waitpid(pid_, nullptr, WNOHANG) == pid_) {
      pid_ = -1;
      return true;
    }
    return false;
  }

 private:
  pid_t pid_ = -1;
};

std::vector<std::string> environmentWith(std::map<std::string, std::string> extra) {
  std::map<std::string, std::string> env;
  for (char** e = environ; *e; ++e) {
    std::string entry = *e;
    auto eq = entry.find('=');
    if (eq != std::string::npos) env[entry.substr(0, eq)] = entry.substr(eq + 1);
  }
  for (auto& [k, v] : extra) env[k] = v;
  std::vector<std::string> out;
  for (auto& [k, v] : env) out.push_back(k + "=" + v);
  return out;
}

int run(const std::string& command) { return std::system(command.c_str()); }

// Starts Xvfb on a display it picks itself (-displayfd); "" when it cannot.
std::string startXvfb(std::unique_ptr<Child>& xvfb, const std::string& dir) {
  std::string fdFile = dir + "/display";
  // Xvfb writes the display number to the descriptor; a file serves.
  int fd = ::open(fdFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  if (fd < 0) return "";
  xvfb = std::make_unique<Child>(
      std::vector<std::string>{"Xvfb", "-displayfd", "3", "-screen", "0", "1280x800x24", "-nolisten", "tcp"},
      environmentWith({}), "/dev/null", fd);
  ::close(fd);
  for (int i = 0; i < 500; ++i) {
    std::string number = readFile(fdFile);
    if (!number.empty() && number.back() == '\n') return ":" + number.substr(0, number.size() - 1);
    std::this_thread::sleep_for(10ms);
  }
  return "";
}

TEST(RofiTest, TypedWordsShowTheServicesMatchesAndTheChosenOneOpens) {
  for (const char* tool : {"Xvfb", "rofi", "xdotool", "import", "tesseract"})
    ASSERT_EQ(run(std::string("command -v ") + tool + " >/dev/null"), 0) << tool << " is missing (tools/setup.sh)";
  TestBus bus;
  ASSERT_TRUE(bus.ok());
  TemporaryDirectory home;
  const std::string& h = home.path();
  registerRecorderAsDefaultApplication(home);
  home.write("docs/budget.txt", "");
  home.write("docs/budget plan 2025.txt", "");
  home.write("docs/holiday photos.txt", "");
  home.write(".system-share/applications/org.example.Ledger.desktop",
             "[Desktop Entry]\nType=Application\nName=Ledger\nKeywords=budget;\nExec=" + h + "/recorder ledger\n");
  ServiceProcess service(bus, h, {{"XDG_DATA_DIRS", h + "/.system-share:/usr/share"}});
  ASSERT_TRUE(service.ok()) << service.output();
  auto client = bus.connect();
  ASSERT_TRUE(client->subscribe("fileIndexStateDidChange"));
  ASSERT_TRUE(callMember(*client, "StartIndexFilesWithSearchScopes", {h + "/docs"}).ok);
  for (int i = 0; i < 100; ++i) {
    auto found = callMember(*client, "SearchFilesWithQueryMaxcountCompletion", {"budget", "10"});
    if (found.ok && !found.values.empty() && found.values[0].text()) break;
    client->waitForSignal("fileIndexStateDidChange", client->signalCount("fileIndexStateDidChange"), 100ms);
  }

  std::unique_ptr<Child> xvfb;
  std::string display = startXvfb(xvfb, h);
  ASSERT_FALSE(display.empty()) << "Xvfb did not start";
  std::string quorvi = buildDirectory() + "/tools/quorvi/quorvi";
  auto env = environmentWith({{"DISPLAY", display},
                              {"HOME", h},
                              {"XDG_CONFIG_HOME", h + "/.config"},
                              {"DBUS_SESSION_BUS_ADDRESS", bus.address()}});
  Child rofi({"rofi", "-show", "quorvi", "-modi", "quorvi:" + quorvi + " rofi", "-theme-str",
              "* { font: \"DejaVu Sans 18\"; } window { width: 1100px; } "
              "element selected.normal { background-color: #ffffff; text-color: #000000; }"},
             env, h + "/rofi.log");
  ASSERT_TRUE(rofi.ok());
  std::string x = "DISPLAY=" + display + " ";
  // rofi is ready once its window is mapped.
  bool mapped = false;
  for (int i = 0; i < 500 && !mapped; ++i) {
    mapped = run(x + "xdotool search --onlyvisible --class rofi >/dev/null 2>&1") == 0;
    if (!mapped) std::this_thread::sleep_for(20ms);
  }
  ASSERT_TRUE(mapped) << readFile(h + "/rofi.log");
  // rofi's first call of the script has the applications scanned.
  bool appsReady = false;
  for (int i = 0; i < 200 && !appsReady; ++i) {
    auto ready = callMember(*client, "CheckAppIndexIsReadyWithCompletion", {});
    appsReady = ready.ok && !ready.values.empty() && ready.values[0].flag;
    if (!appsReady) std::this_thread::sleep_for(50ms);
  }
  ASSERT_TRUE(appsReady) << "quorvi rofi did not have the applications scanned";

  // The words, then Enter: the script asks the service and rofi lists the rows.
  ASSERT_EQ(run(x + "xdotool type --delay 40 'budget' && " + x + "xdotool key Return"), 0);
  std::string artefacts = buildDirectory() + "/test-artefacts";
  fs::create_directories(artefacts);
  std::string shot = artefacts + "/rofi-search.png";
  std::string text;
  for (int i = 0; i < 50; ++i) {
    std::this_thread::sleep_for(200ms);
    run(x + "import -window root '" + shot + "' 2>/dev/null");
    run("tesseract '" + shot + "' '" + h + "/ocr' --psm 6 >/dev/null 2>&1");  // one block of lines
    // Blanks as read are unreliable ("budget. txt"): compare without them.
    text = readFile(h + "/ocr.txt");
    std::erase_if(text, [](char c) { return c == ' '; });
    if (text.find("budgetplan2025.txt") != std::string::npos) break;
  }
  EXPECT_NE(text.find("3matchesfor"), std::string::npos) << text;
  auto exact = text.find("budget.txt"), longer = text.find("budgetplan2025.txt"), app = text.find("Ledger");
  ASSERT_NE(exact, std::string::npos) << text;
  ASSERT_NE(longer, std::string::npos) << text;
  ASSERT_NE(app, std::string::npos) << "the application found by its keyword:\n" << text;
  EXPECT_LT(exact, longer) << "the equal name comes first:\n" << text;
  EXPECT_LT(longer, app) << "a name starting with the word before a keyword match:\n" << text;
  EXPECT_EQ(text.find("holiday"), std::string::npos) << text;

  // Typing narrows the rows in rofi; Enter opens the one left.
  ASSERT_EQ(run(x + "xdotool type --delay 40 ' plan' && " + x + "xdotool key Return"), 0);
  std::string opened;
  for (int i = 0; i < 500 && opened.empty(); ++i) {
    std::this_thread::sleep_for(20ms);
    opened = readFile(h + "/opened");
  }
  EXPECT_EQ(opened, h + "/docs/budget plan 2025.txt\n");
}

// The frame `quorvi search` drew last, without its escape sequences.
std::string lastFrame(const std::string& screen) {
  std::string frame = screen.substr(std::min(screen.size(), screen.rfind("\033[H\033[J") + 1));
  static const std::regex escape("\033\\[[0-9;]*[A-Za-z]");
  frame = std::regex_replace(frame, escape, "");
  std::erase(frame, '\r');
  return frame;
}

TEST(TerminalSearchTest, ArrowsChooseAndEnterOpens) {
  TestBus bus;
  ASSERT_TRUE(bus.ok());
  TemporaryDirectory home;
  const std::string& h = home.path();
  registerRecorderAsDefaultApplication(home);
  home.write("docs/minutes one.txt", "");
  home.write("docs/minutes two.txt", "");
  ServiceProcess service(bus, h);
  ASSERT_TRUE(service.ok()) << service.output();
  auto client = bus.connect();
  ASSERT_TRUE(callMember(*client, "StartIndexFilesWithSearchScopes", {h + "/docs"}).ok);
  ASSERT_TRUE(client->subscribe("fileIndexStateDidChange"));
  for (int i = 0; i < 100; ++i) {
    auto found = callMember(*client, "SearchFilesWithQueryMaxcountCompletion", {"minutes", "10"});
    if (found.ok && !found.values.empty() && found.values[0].text()) break;
    client->waitForSignal("fileIndexStateDidChange", client->signalCount("fileIndexStateDidChange"), 100ms);
  }

  auto env = environmentWith({{"HOME", h}, {"DBUS_SESSION_BUS_ADDRESS", bus.address()}, {"TERM", "xterm"}});
  std::vector<char*> envp;
  for (auto& e : env) envp.push_back(e.data());
  envp.push_back(nullptr);
  std::string quorvi = buildDirectory() + "/tools/quorvi/quorvi";
  int terminal = -1;
  pid_t pid = ::forkpty(&terminal, nullptr, nullptr, nullptr);
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    ::closefrom(3);
    // Started as GNOME Shell's "search in the application" starts it: with
    // the first letters already typed.
    const char* argv[] = {quorvi.c_str(), "search", "--interactive", "min", nullptr};
    ::execve(argv[0], const_cast<char**>(argv), envp.data());
    ::_exit(127);
  }
  std::string screen;
  auto readUntil = [&](const std::function<bool()>& done) {
    char buffer[4096];
    for (int i = 0; i < 500 && !done(); ++i) {
      pollfd fd{terminal, POLLIN, 0};
      if (::poll(&fd, 1, 20) > 0) {
        ssize_t n = ::read(terminal, buffer, sizeof buffer);
        if (n <= 0) break;
        screen.append(buffer, std::size_t(n));
      }
    }
  };
  readUntil([&] { return screen.find("Esc quits") != std::string::npos; });
  ASSERT_EQ(::write(terminal, "utes", 4), 4);
  readUntil([&] {
    std::string frame = lastFrame(screen);
    return frame.find("quits): minutes\n") != std::string::npos && frame.find("(2 hits") != std::string::npos;
  });
  std::string frame = lastFrame(screen);
  ASSERT_NE(frame.find("quits): minutes\n"), std::string::npos) << "the first letters were not kept:\n" << frame;
  ASSERT_NE(frame.find("(2 hits"), std::string::npos) << frame;
  // The first hit is chosen; the arrow moves to the second, Enter opens it.
  std::smatch rows;
  ASSERT_TRUE(std::regex_search(frame, rows, std::regex("> (\\S[^\\n]*)\\n  (\\S[^\\n]*)\\n"))) << frame;
  std::string second = rows[2];
  EXPECT_NE(screen.find("\033[1mminutes\033[22m"), std::string::npos) << "the typed word is not highlighted";
  ASSERT_EQ(::write(terminal, "\033[B", 3), 3);
  readUntil([&] { return lastFrame(screen).find("> " + second) != std::string::npos; });
  ASSERT_EQ(::write(terminal, "\r", 1), 1);
  std::string opened;
  for (int i = 0; i < 500 && opened.empty(); ++i) {
    std::this_thread::sleep_for(20ms);
    opened = readFile(h + "/opened");
  }
  EXPECT_EQ(opened, second + "\n");
  ASSERT_EQ(::write(terminal, "\033", 1), 1);
  int status = 0;
  for (int i = 0; i < 200 && ::waitpid(pid, &status, WNOHANG) == 0; ++i) std::this_thread::sleep_for(10ms);
  if (::waitpid(pid, &status, WNOHANG) == 0) {
    ::kill(pid, SIGKILL);
    ::waitpid(pid, &status, 0);
    ADD_FAILURE() << "Esc did not end the search";
  }
  ::close(terminal);
}

}  // namespace
}  // namespace quorvi::testing
