// quorvi: the command-line client of quorvifind, for people and for tests.
//
//   quorvi [OPTIONS] MEMBER [ARGS...]     call any member by name or selector
//   quorvi [OPTIONS] wait SIGNAL          wait for a broadcast signal
//   quorvi [OPTIONS] index [DIR...]       index folders, showing progress
//   quorvi [OPTIONS] search [QUERY]       search the apps, then the files (interactive without QUERY)
//   quorvi [OPTIONS] ping                 is the service there?
//   quorvi [OPTIONS] doctor               what is installed, registered and running
//   quorvi [OPTIONS] rofi [TEXT]          rofi's script mode (see desktop_commands.h)
//   quorvi --help                         every operation with its arguments
#include <poll.h>
#include <systemd/sd-bus.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <algorithm>
#include <iostream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <unicode/locid.h>
#include <unicode/unistr.h>

#include "apps/app_entry.h"
#include "common/json.h"
#include "fuse/fuse.h"
#include "service/bus_client.h"
#include "tools/quorvi/desktop_commands.h"
#include "tools/quorvi/reply_printer.h"

namespace quorvi {
namespace {

struct Options {
  std::string address;
  double timeoutSeconds = 25;
  bool noReply = false;
  int64_t limit = 20;
};

void printHelp() {
  std::printf(
      "usage: quorvi [OPTIONS] MEMBER [ARGS...]\n"
      "       quorvi [OPTIONS] wait fileIndexStateDidChange|appIndexerStateDidChange\n"
      "       quorvi [OPTIONS] index [DIR...]\n"
      "       quorvi [OPTIONS] search [QUERY]         (apps first, then files; without QUERY\n"
      "                                               interactive: arrows choose, Enter opens)\n"
      "       quorvi [OPTIONS] search --interactive [WORDS...]   (interactive, from the words)\n"
      "       quorvi [OPTIONS] ping\n"
      "       quorvi [OPTIONS] doctor                 (installed, registered, running?)\n"
      "       quorvi [OPTIONS] rofi [TEXT]            (rofi -show quorvi -modi \"quorvi:quorvi rofi\")\n"
      "\n"
      "Calls quorvifind (%s on the session bus). MEMBER is a member name or a\n"
      "selector. Arguments by type: s text; x integer; b true/false; as a JSON\n"
      "array [\"a\",\"b\"] or a comma list a,b (\"\" for none); ay @FILE or text.\n"
      "JSON replies are pretty-printed; nil is shown as nil.\n"
      "\n"
      "options:\n"
      "  --address ADDRESS  a D-Bus address instead of the session bus\n"
      "  --timeout SECONDS  how long to wait for a reply (default 25)\n"
      "  --no-reply         send the call flagged \"no reply expected\"\n"
      "  --limit N          hits shown by `search` (default 20)\n"
      "\n"
      "operations:\n",
      kBusName);
  for (const auto& m : allMembers()) {
    std::string args;
    auto types = splitSignature(m.inSignature);
    for (std::size_t i = 0; i < types.size(); ++i) args += " " + m.inNames[i] + ":" + types[i];
    std::string out = m.outSignature.empty() ? "acknowledged at once" : std::string(m.outSignature);
    if (m.number == 1 || m.number == 26) out += ", never sent";
    std::printf("  %2d %s%s\n       %s -> %s\n", m.number, std::string(m.member).c_str(), args.c_str(),
                std::string(m.selector).c_str(), out.c_str());
  }
}

std::unique_ptr<BusClient> connectOrDie(const Options& options) {
  std::string error;
  auto client = BusClient::connect(options.address, &error);
  if (!client) {
    std::fprintf(stderr, "quorvi: %s\n", error.c_str());
    std::exit(1);
  }
  return client;
}

std::chrono::microseconds timeoutOf(const Options& options) {
  return std::chrono::microseconds(int64_t(options.timeoutSeconds * 1e6));
}

BusClient::CallResult callOrDie(BusClient& client, const Options& options, const std::string& name,
                                const std::vector<std::string>& words) {
  const MemberInfo* member = findMember(name);
  CallArguments arguments;
  std::string error;
  if (!argumentsFromWords(member->inSignature, words, arguments, &error)) {
    std::fprintf(stderr, "quorvi: %s: %s\n", name.c_str(), error.c_str());
    std::exit(2);
  }
  auto result = client.call(*member, arguments, timeoutOf(options));
  if (!result.ok) {
    std::fprintf(stderr, "quorvi: %s: %s %s\n", name.c_str(), result.errorName.c_str(), result.errorMessage.c_str());
    std::exit(1);
  }
  return result;
}

int callCommand(const Options& options, const MemberInfo& member, const std::vector<std::string>& words) {
  CallArguments arguments;
  std::string error;
  if (!argumentsFromWords(member.inSignature, words, arguments, &error)) {
    std::fprintf(stderr, "quorvi: %s: %s\n", std::string(member.member).c_str(), error.c_str());
    return 2;
  }
  auto client = connectOrDie(options);
  if (options.noReply) return client->callNoReply(member, arguments) ? 0 : 1;
  auto result = client->call(member, arguments, timeoutOf(options));
  if (!result.ok) {
    std::fprintf(stderr, "quorvi: %s: %s\n", result.errorName.c_str(), result.errorMessage.c_str());
    return 1;
  }
  std::fputs(formatReply(member, result.values).c_str(), stdout);
  return 0;
}

int waitCommand(const Options& options, const std::string& signal) {
  auto client = connectOrDie(options);
  client->subscribe(signal);
  auto timeout = std::chrono::milliseconds(int64_t(options.timeoutSeconds * 1000));
  if (!client->waitForSignal(signal, 0, timeout)) {
    std::fprintf(stderr, "quorvi: no %s within %.0f s\n", signal.c_str(), options.timeoutSeconds);
    return 1;
  }
  std::printf("%s\n", signal.c_str());
  return 0;
}

// The index's state: (ready, description text, count) from #10.
struct IndexState {
  bool ready = false;
  int64_t count = 0;
  std::string text;
};

IndexState readIndexState(BusClient& client, const Options& options) {
  auto result = callOrDie(client, options, "GetFileIndexResultDescriptionWithCompletion", {});
  IndexState state;
  if (result.values.size() == 2) {
    if (result.values[0].value) {
      Json json = Json::parse(*result.values[0].value, nullptr, false);
      if (json.is_object()) {
        state.ready = json.value("isReady", false);
        state.count = json.value("countOfFiles", int64_t(0));
      }
    }
    state.text = result.values[1].value.value_or("");
  }
  return state;
}

int indexCommand(const Options& options, std::vector<std::string> folders) {
  if (folders.empty()) folders.push_back("~");
  for (auto& folder : folders) {
    if (!folder.starts_with("/") && !folder.starts_with("~")) {
      char* resolved = ::realpath(folder.c_str(), nullptr);
      if (resolved) folder = resolved;
      std::free(resolved);
    }
  }
  auto client = connectOrDie(options);
  client->subscribe("fileIndexStateDidChange");
  Json scopes = folders;
  callOrDie(*client, options, "StartIndexFilesWithSearchScopes", {scopes.dump()});
  auto started = std::chrono::steady_clock::now();
  const bool tty = ::isatty(STDOUT_FILENO);
  int seen = 0;
  // Every state change is a signal; between signals, show that work goes on.
  for (;;) {
    bool signalled = client->waitForSignal("fileIndexStateDidChange", seen, std::chrono::milliseconds(250));
    if (signalled) seen = client->signalCount("fileIndexStateDidChange");
    double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    auto snapshot = callOrDie(*client, options, "GetPerformanceSnapshotWithCompletion", {});
    int64_t progress = 0;
    bool indexing = true;
    if (!snapshot.values.empty() && snapshot.values[0].value) {
      Json json = Json::parse(*snapshot.values[0].value, nullptr, false);
      if (json.is_object()) {
        progress = json.value("scanProgress", json.value("countOfFiles", int64_t(0)));
        indexing = json.value("isIndexing", true);
      }
    }
    IndexState state = readIndexState(*client, options);
    if (tty) {
      std::printf("\r\033[Kindexing %s: %lld entries, %.1f s", folders.front().c_str(), (long long)progress, elapsed);
      std::fflush(stdout);
    }
    if (state.ready && !indexing && elapsed > 0.2) {
      if (tty) std::printf("\n");
      std::printf("%lld files indexed in %.2f s%s%s\n", (long long)state.count, elapsed,
                  state.text.empty() ? "" : ": ", state.text.c_str());
      return 0;
    }
    if (elapsed > options.timeoutSeconds * 40) {
      std::fprintf(stderr, "\nquorvi: the index did not become ready\n");
      return 1;
    }
  }
}

// The launcher sends queries in lower case; so does this tool (full Unicode
// lowercasing, so that "É" finds "é").
std::string lowercase(const std::string& text) {
  std::string out;
  icu::UnicodeString::fromUTF8(text).toLower(icu::Locale::getRoot()).toUTF8String(out);
  return out;
}

// The app index's entries, read once per search session. When the index is
// not ready yet, a scan is started (with no scopes of its own) and waited
// for; an index that stays empty gives no apps.
std::vector<FuseableRef> loadApps(BusClient& client, const Options& options) {
  auto ready = callOrDie(client, options, "CheckAppIndexIsReadyWithCompletion", {});
  if (ready.values.empty() || !ready.values[0].flag) {
    client.subscribe("appIndexerStateDidChange");
    if (const MemberInfo* start = findMember("StartIndexAppsWithSearchScopesCompletion")) {
      CallArguments arguments;
      std::string error;
      if (argumentsFromWords(start->inSignature, {"[]"}, arguments, &error)) client.callNoReply(*start, arguments);
    }
    client.waitForSignal("appIndexerStateDidChange", 0, std::chrono::seconds(10));
  }
  std::vector<FuseableRef> apps;
  auto result = callOrDie(client, options, "GetAppsWithCompletionHandler", {});
  if (result.values.empty() || !result.values[0].value) return apps;
  Json list = Json::parse(*result.values[0].value, nullptr, false);
  if (!list.is_array()) return apps;
  for (const auto& item : list) {
    if (auto entry = AppEntry::fromJson(item)) apps.push_back(std::make_shared<AppEntry>(std::move(*entry)));
  }
  return apps;
}

// One line of `search`: what is shown, and the service's identifier of what
// Enter opens (the desktop objects' "app:" and "file:" identifiers).
struct Hit {
  std::string line;
  std::string identifier;
};

// Apps that match, best first, as "name  (path)" lines: the approximate
// matcher over each entry's match strings.
std::vector<Hit> matchingApps(const std::vector<FuseableRef>& apps, const std::string& query, size_t limit) {
  Fuse fuse(/*location=*/0, /*distance=*/100, /*threshold=*/0.3, /*maxPatternLength=*/32,
            /*isCaseSensitive=*/false, /*tokenize=*/true);
  auto results = fuse.search(query, apps);
  std::stable_sort(results.begin(), results.end(),
                   [](const FuseItemResult& a, const FuseItemResult& b) { return a.score < b.score; });
  std::vector<Hit> hits;
  for (const auto& result : results) {
    if (hits.size() == limit) break;
    const auto& entry = static_cast<const AppEntry&>(*apps[size_t(result.index)]);
    const char* kind = entry.category == AppCategory::application ? "app"
                       : entry.category == AppCategory::venturaSettingsExtension ? "settings"
                                                                                 : "device";
    hits.push_back({"[" + std::string(kind) + "] " + entry.nameOfDisplay + "  (" + entry.path + ")", "app:" + entry.path});
  }
  return hits;
}

// Hits of one query: matching apps first, then files as "path" lines
// (folders end in "/"), and the time taken.
std::vector<Hit> searchOnce(BusClient& client, const Options& options, const std::vector<FuseableRef>& apps,
                            const std::string& query, double* milliseconds) {
  auto started = std::chrono::steady_clock::now();
  std::string lower = lowercase(query);
  std::vector<Hit> hits = matchingApps(apps, lower, 5);
  auto result = callOrDie(client, options, "SearchFilesWithQueryMaxcountCompletion",
                          {lower, std::to_string(options.limit)});
  *milliseconds = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - started).count();
  if (result.values.empty() || !result.values[0].value) return hits;
  Json found = Json::parse(*result.values[0].value, nullptr, false);
  if (!found.is_array()) return hits;
  for (const auto& hit : found) {
    std::string path = hit.value("path", "");
    hits.push_back({path + (hit.value("isFolder", false) ? "/" : ""), "file:" + path});
  }
  return hits;
}

void printHits(const std::vector<Hit>& hits, double ms) {
  for (const auto& hit : hits) std::printf("  %s\n", hit.line.c_str());
  std::printf("(%zu hits, %.1f ms)\n", hits.size(), ms);
}

// The line with each occurrence of the query's words in bold (ASCII case
// ignored; other text must match as typed).
std::string highlighted(const std::string& line, const std::string& query) {
  std::string lowerLine = line;
  for (char& c : lowerLine) c = char(std::tolower(static_cast<unsigned char>(c)));
  std::vector<bool> bold(line.size(), false);
  std::istringstream words(lowercase(query));
  for (std::string word; words >> word;) {
    for (auto at = lowerLine.find(word); at != std::string::npos; at = lowerLine.find(word, at + 1))
      std::fill(bold.begin() + long(at), bold.begin() + long(at + word.size()), true);
  }
  std::string out;
  for (std::size_t i = 0; i < line.size(); ++i) {
    if (bold[i] && (i == 0 || !bold[i - 1])) out += "\033[1m";
    out += line[i];
    if (bold[i] && (i + 1 == line.size() || !bold[i + 1])) out += "\033[22m";
  }
  return out;
}

// Drops the last UTF-8 character of text.
void eraseLastCharacter(std::string& text) {
  while (!text.empty()) {
    unsigned char c = text.back();
    text.pop_back();
    if ((c & 0xc0) != 0x80) break;
  }
}

// A byte of input within the time, or -1.
int readByte(int timeoutMs) {
  pollfd fd{STDIN_FILENO, POLLIN, 0};
  if (timeoutMs >= 0 && ::poll(&fd, 1, timeoutMs) <= 0) return -1;
  unsigned char c;
  return ::read(STDIN_FILENO, &c, 1) == 1 ? c : -1;
}

enum class Key { character, up, down, enter, erase, clearLine, quit, none };

// One key press: arrow keys arrive as "ESC [ A"; a lone ESC quits.
Key readKey(char* character) {
  int c = readByte(-1);
  if (c < 0 || c == 4) return Key::quit;
  if (c == 27) {
    int next = readByte(50);
    if (next < 0) return Key::quit;
    int final = next == '[' || next == 'O' ? readByte(50) : -1;
    return final == 'A' ? Key::up : final == 'B' ? Key::down : Key::none;
  }
  if (c == '\r' || c == '\n') return Key::enter;
  if (c == 127 || c == 8) return Key::erase;
  if (c == 21) return Key::clearLine;  // Ctrl-U
  if (c == 16) return Key::up;         // Ctrl-P
  if (c == 14) return Key::down;       // Ctrl-N
  if (c < 32) return Key::none;
  *character = char(c);
  return Key::character;
}

// Asks the service to open the hit as the desktop would (its KRunner object's
// Run); false with a reason when it cannot be asked.
bool openHit(BusClient& client, const Hit& hit, std::string* error) {
  sd_bus_error busError = SD_BUS_ERROR_NULL;
  int r = sd_bus_call_method(client.bus(), kBusName, "/com/quorvi/quorvifind/krunner", "org.kde.krunner1", "Run",
                             &busError, nullptr, "ss", hit.identifier.c_str(), "");
  if (r < 0 && error) *error = busError.message ? busError.message : "no answer";
  sd_bus_error_free(&busError);
  return r >= 0;
}

int searchCommand(const Options& options, std::vector<std::string> words) {
  // "--interactive WORDS...": the interactive search, starting from the words
  // (GNOME Shell's "search in the application" opens this).
  bool interactive = !words.empty() && words.front() == "--interactive";
  std::string query;
  if (interactive) {
    words.erase(words.begin());
    for (const auto& w : words) query += (query.empty() ? "" : " ") + w;
    words.clear();
  }
  auto client = connectOrDie(options);
  auto apps = loadApps(*client, options);
  double ms = 0;
  if (!words.empty()) {
    std::string query;
    for (const auto& w : words) query += (query.empty() ? "" : " ") + w;
    printHits(searchOnce(*client, options, apps, query, &ms), ms);
    return 0;
  }
  if (!::isatty(STDIN_FILENO)) {  // one query per line
    for (std::string line; std::getline(std::cin, line);) {
      std::printf("> %s\n", line.c_str());
      printHits(searchOnce(*client, options, apps, line, &ms), ms);
    }
    return 0;
  }
  termios saved;
  ::tcgetattr(STDIN_FILENO, &saved);
  termios raw = saved;
  raw.c_lflag &= ~(ICANON | ECHO);
  raw.c_iflag &= ~ICRNL;  // Enter arrives as '\r' or '\n' alike
  ::tcsetattr(STDIN_FILENO, TCSANOW, &raw);
  std::string status;
  std::vector<Hit> hits = query.empty() ? std::vector<Hit>() : searchOnce(*client, options, apps, query, &ms);
  std::size_t selected = 0;
  for (;;) {
    std::printf("\033[H\033[Jsearch (arrows choose, Enter opens, Esc quits): %s\n\n", query.c_str());
    if (!query.empty()) {
      for (std::size_t i = 0; i < hits.size(); ++i) {
        std::string line = highlighted(hits[i].line, query);
        if (i == selected) {
          std::printf("\033[7m> %s\033[27m\n", line.c_str());
        } else {
          std::printf("  %s\n", line.c_str());
        }
      }
      std::printf("(%zu hits, %.1f ms)\n", hits.size(), ms);
    }
    if (!status.empty()) std::printf("%s\n", status.c_str());
    std::printf("\033[1;%zuH", 48 + query.size());  // approximate: keeps the cursor near the query
    std::fflush(stdout);
    char c = 0;
    Key key = readKey(&c);
    status.clear();
    if (key == Key::quit) break;
    if (key == Key::up || key == Key::down) {
      if (!hits.empty()) selected = (selected + (key == Key::up ? hits.size() - 1 : 1)) % hits.size();
      continue;
    }
    if (key == Key::enter) {
      if (selected < hits.size()) {
        std::string error;
        status = openHit(*client, hits[selected], &error) ? "opened " + hits[selected].line
                                                          : "cannot open: " + error;
      }
      continue;
    }
    if (key == Key::erase) {
      eraseLastCharacter(query);
    } else if (key == Key::clearLine) {
      query.clear();
    } else if (key == Key::character) {
      query += c;
    } else {
      continue;
    }
    selected = 0;
    hits = query.empty() ? std::vector<Hit>() : searchOnce(*client, options, apps, query, &ms);
  }
  ::tcsetattr(STDIN_FILENO, TCSANOW, &saved);
  std::printf("\n");
  return 0;
}

}  // namespace
}  // namespace quorvi

int main(int argc, char** argv) {
  using namespace quorvi;
  Options options;
  std::vector<std::string> words;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    if (!words.empty()) {
      words.push_back(arg);  // after the command everything is an argument
    } else if (arg == "--help" || arg == "-h" || arg == "help") {
      printHelp();
      return 0;
    } else if (arg == "--address" && i + 1 < argc) {
      options.address = argv[++i];
    } else if (arg == "--timeout" && i + 1 < argc) {
      options.timeoutSeconds = std::atof(argv[++i]);
      if (options.timeoutSeconds <= 0) options.timeoutSeconds = 25;
    } else if (arg == "--limit" && i + 1 < argc) {
      options.limit = std::atoll(argv[++i]);
    } else if (arg == "--no-reply") {
      options.noReply = true;
    } else if (arg.starts_with("--")) {
      std::fprintf(stderr, "quorvi: unknown option %s (see --help)\n", arg.c_str());
      return 2;
    } else {
      words.push_back(arg);
    }
  }
  if (words.empty()) {
    printHelp();
    return 2;
  }
  std::string command = words.front();
  words.erase(words.begin());
  if (command == "ping") {
    auto client = connectOrDie(options);
    auto result = client->ping(std::chrono::microseconds(int64_t(options.timeoutSeconds * 1e6)));
    std::printf("%s\n", result.ok ? "quorvifind is running" : result.errorMessage.c_str());
    return result.ok ? 0 : 1;
  }
  if (command == "wait" && words.size() == 1) return waitCommand(options, words[0]);
  if (command == "index") return indexCommand(options, words);
  if (command == "search") return searchCommand(options, words);
  if (command == "doctor") return doctorCommand(options.address);
  if (command == "rofi") return rofiCommand(options.address, words);
  if (command == "call" && !words.empty()) {
    command = words.front();
    words.erase(words.begin());
  }
  if (const MemberInfo* member = findMember(command)) return callCommand(options, *member, words);
  std::fprintf(stderr, "quorvi: no member or command %s (see --help)\n", command.c_str());
  return 2;
}
