#include "tools/quorvi/desktop_commands.h"

#include <systemd/sd-bus.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>

#include "desktop/desktop_bus_objects.h"
#include "service/bus_client.h"
#include "service/members.h"

namespace quorvi {

namespace {

namespace fs = std::filesystem;

struct Row {
  std::string id, text, icon, subtext;
};

std::string environment(const char* name, const std::string& fallback) {
  const char* value = std::getenv(name);
  return value && *value ? value : fallback;
}

std::vector<std::string> dataDirectories() {
  std::string home = environment("HOME", "");
  std::vector<std::string> dirs = {environment("XDG_DATA_HOME", home + "/.local/share")};
  std::string list = environment("XDG_DATA_DIRS", "/usr/local/share:/usr/share");
  for (std::size_t at = 0; at <= list.size();) {
    std::size_t colon = list.find(':', at);
    if (colon == std::string::npos) colon = list.size();
    if (colon > at) dirs.push_back(list.substr(at, colon - at));
    at = colon + 1;
  }
  return dirs;
}

// The first place the file is found, or "".
std::string findIn(const std::vector<std::string>& dirs, const std::string& relative) {
  for (const auto& dir : dirs) {
    std::error_code error;
    if (fs::is_regular_file(dir + "/" + relative, error)) return dir + "/" + relative;
  }
  return "";
}

void report(bool ok, const std::string& what, const std::string& detail) {
  std::printf("  %s %-34s %s\n", ok ? "ok  " : "--  ", what.c_str(), detail.c_str());
}

// Calls a method of the bus daemon (or of another peer) and reads one value.
bool busCall(sd_bus* bus, const char* destination, const char* path, const char* interface, const char* method,
             sd_bus_message** reply, const char* types, const char* argument) {
  sd_bus_error error = SD_BUS_ERROR_NULL;
  int r = argument ? sd_bus_call_method(bus, destination, path, interface, method, &error, reply, types, argument)
                   : sd_bus_call_method(bus, destination, path, interface, method, &error, reply, "");
  sd_bus_error_free(&error);
  return r >= 0;
}

bool nameHasOwner(sd_bus* bus, const char* name) {
  sd_bus_message* reply = nullptr;
  int owned = 0;
  if (busCall(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "NameHasOwner", &reply,
              "s", name))
    sd_bus_message_read(reply, "b", &owned);
  sd_bus_message_unref(reply);
  return owned;
}

bool isActivatable(sd_bus* bus, const char* name) {
  sd_bus_message* reply = nullptr;
  bool found = false;
  if (busCall(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "ListActivatableNames",
              &reply, "", nullptr)) {
    char** names = nullptr;
    if (sd_bus_message_read_strv(reply, &names) >= 0) {
      for (char** n = names; n && *n; ++n) {
        found = found || std::string(*n) == name;
        free(*n);
      }
      free(names);
    }
  }
  sd_bus_message_unref(reply);
  return found;
}

// The unit's state from the user's systemd, when it is on this bus.
std::string unitState(sd_bus* bus) {
  if (!nameHasOwner(bus, "org.freedesktop.systemd1")) return "";
  sd_bus_message* reply = nullptr;
  std::string state;
  if (busCall(bus, "org.freedesktop.systemd1", "/org/freedesktop/systemd1", "org.freedesktop.systemd1.Manager",
              "LoadUnit", &reply, "s", "quorvifind.service")) {
    const char* path = nullptr;
    if (sd_bus_message_read(reply, "o", &path) >= 0) {
      for (const char* property : {"LoadState", "UnitFileState", "ActiveState"}) {
        char* value = nullptr;
        sd_bus_get_property_string(bus, "org.freedesktop.systemd1", path, "org.freedesktop.systemd1.Unit", property,
                                   nullptr, &value);
        state += std::string(state.empty() ? "" : ", ") + (value && *value ? value : "?");
        free(value);
      }
    }
  }
  sd_bus_message_unref(reply);
  return state;
}

// KRunner's Match over the bus, as KRunner calls it.
bool krunnerMatch(sd_bus* bus, const std::string& query, std::vector<Row>& rows, std::string* error) {
  sd_bus_error busError = SD_BUS_ERROR_NULL;
  sd_bus_message* reply = nullptr;
  int r = sd_bus_call_method(bus, kBusName, kKRunnerObjectPath, kKRunnerInterface, "Match", &busError, &reply, "s",
                             query.c_str());
  if (r < 0) {
    if (error) *error = busError.message ? busError.message : "no answer";
    sd_bus_error_free(&busError);
    return false;
  }
  sd_bus_message_enter_container(reply, 'a', "(sssida{sv})");
  while (sd_bus_message_enter_container(reply, 'r', "sssida{sv}") > 0) {
    Row row;
    const char *id, *text, *icon;
    int32_t type;
    double relevance;
    sd_bus_message_read(reply, "sssid", &id, &text, &icon, &type, &relevance);
    row.id = id, row.text = text, row.icon = icon;
    sd_bus_message_enter_container(reply, 'a', "{sv}");
    while (sd_bus_message_enter_container(reply, 'e', "sv") > 0) {
      const char* key = nullptr;
      sd_bus_message_read(reply, "s", &key);
      if (std::string(key) == "subtext") {
        const char* value = nullptr;
        sd_bus_message_read(reply, "v", "s", &value);
        row.subtext = value ? value : "";
      } else {
        sd_bus_message_skip(reply, "v");
      }
      sd_bus_message_exit_container(reply);
    }
    sd_bus_message_exit_container(reply);
    sd_bus_message_exit_container(reply);
    rows.push_back(std::move(row));
  }
  sd_bus_message_unref(reply);
  return true;
}

// Rofi's row text must not hold its separators.
std::string clean(std::string text) {
  for (char& c : text) {
    if (c == '\n' || c == '\0' || c == '\x1f') c = ' ';
  }
  return text;
}

}  // namespace

int doctorCommand(const std::string& address) {
  int problems = 0;
  std::printf("installed files\n");
  auto dirs = dataDirectories();
  struct Wanted {
    const char* what;
    std::string relative;
  } wanted[] = {
      {"bus activation", "dbus-1/services/com.quorvi.quorvifind.service"},
      {"published interface", "dbus-1/interfaces/com.quorvi.QuorviXPCServiceProtocol.xml"},
      {"KRunner runner", "krunner/dbusplugins/quorvifind-krunner.desktop"},
      {"GNOME Shell search provider", "gnome-shell/search-providers/com.quorvi.quorvifind.search-provider.ini"},
      {"desktop entry", std::string("applications/") + kDesktopEntryId},
  };
  for (const auto& w : wanted) {
    std::string found = findIn(dirs, w.relative);
    report(!found.empty(), w.what, found.empty() ? "not found (" + w.relative + ")" : found);
    problems += found.empty();
  }
  std::string home = environment("HOME", "");
  std::vector<std::string> unitDirs = {environment("XDG_CONFIG_HOME", home + "/.config") + "/systemd/user",
                                       "/etc/systemd/user", "/usr/local/lib/systemd/user", "/usr/lib/systemd/user"};
  for (const auto& dir : dirs) unitDirs.push_back(dir + "/../lib/systemd/user");
  std::string unit = findIn(unitDirs, "quorvifind.service");
  report(!unit.empty(), "systemd user unit", unit.empty() ? "not found" : fs::path(unit).lexically_normal().string());
  problems += unit.empty();

  std::printf("session bus\n");
  std::string error;
  auto client = BusClient::connect(address, &error);
  if (!client) {
    report(false, "session bus", error);
    return 1;
  }
  sd_bus* bus = client->bus();
  bool activatable = isActivatable(bus, kBusName);
  report(activatable, "activatable", activatable ? kBusName : "the bus does not know how to start the service");
  bool running = nameHasOwner(bus, kBusName);
  std::string pid;
  if (running) {
    sd_bus_message* reply = nullptr;
    uint32_t value = 0;
    if (busCall(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                "GetConnectionUnixProcessID", &reply, "s", kBusName))
      sd_bus_message_read(reply, "u", &value);
    sd_bus_message_unref(reply);
    pid = "process " + std::to_string(value);
  }
  report(running, "running", running ? pid : "not running (the first call starts it when activatable)");
  std::string state = unitState(bus);
  if (!state.empty()) report(state.find("loaded") == 0, "systemd unit", state);
  if (running) {
    std::vector<Row> rows;
    bool answers = krunnerMatch(bus, "quorvi-doctor-probe", rows, &error);
    report(answers, "KRunner and GNOME Shell objects", answers ? "answering" : error);
    problems += !answers;
    if (const MemberInfo* member = findMember("GetFileIndexResultDescriptionWithCompletion")) {
      auto result = client->call(*member, {});
      const std::string* text = result.ok && result.values.size() == 2 ? result.values[1].text() : nullptr;
      report(text && !text->empty(), "file index", text && !text->empty() ? *text : "no files indexed yet");
    }
    if (const MemberInfo* member = findMember("CheckAppIndexIsReadyWithCompletion")) {
      auto result = client->call(*member, {});
      bool ready = result.ok && !result.values.empty() && result.values[0].flag;
      report(ready, "app index", ready ? "ready" : "not scanned yet");
    }
  }
  problems += !activatable && !running;
  std::printf("%s\n", problems ? "some parts are missing (see above)" : "everything is in place");
  return problems ? 1 : 0;
}

int rofiCommand(const std::string& address, const std::vector<std::string>& words) {
  std::string retv = environment("ROFI_RETV", "0");
  std::string error;
  auto client = BusClient::connect(address, &error);
  if (!client) {
    std::printf("%cmessage\x1fquorvi: %s\n", '\0', clean(error).c_str());
    return 0;
  }
  if (retv == "1") {
    // A row was chosen: the service opens it (the row carries its identifier).
    std::string id = environment("ROFI_INFO", "");
    if (id.empty()) return 0;
    sd_bus_error busError = SD_BUS_ERROR_NULL;
    int r = sd_bus_call_method(client->bus(), kBusName, kKRunnerObjectPath, kKRunnerInterface, "Run", &busError,
                               nullptr, "ss", id.c_str(), "");
    if (r < 0) std::fprintf(stderr, "quorvi: cannot open %s: %s\n", id.c_str(), busError.message);
    sd_bus_error_free(&busError);
    return 0;  // no rows: rofi closes
  }
  std::printf("%cprompt\x1fquorvi\n", '\0');
  std::string query;
  if (retv == "2" && !words.empty()) query = words[0];
  if (retv == "0") {
    // rofi stands in for the launcher here: have the applications scanned
    // (in the background, about a second) while the user types, so that
    // they are among the matches. A scan already done is not repeated.
    const MemberInfo* ready = findMember("CheckAppIndexIsReadyWithCompletion");
    const MemberInfo* start = findMember("StartIndexAppsWithSearchScopesCompletion");
    auto answer = client->call(*ready, {}, std::chrono::seconds(2));
    if (answer.ok && !answer.values.empty() && !answer.values[0].flag) {
      CallArguments none;
      std::string ignored;
      argumentsFromWords(start->inSignature, {"[]"}, none, &ignored);
      client->callNoReply(*start, none);
    }
  }
  if (query.empty()) {
    std::printf("%cmessage\x1fType words and press Enter to search\n", '\0');
    return 0;
  }
  std::vector<Row> rows;
  if (!krunnerMatch(client->bus(), query, rows, &error)) {
    std::printf("%cmessage\x1fquorvi: %s\n", '\0', clean(error).c_str());
    return 0;
  }
  std::printf("%cmessage\x1f%zu matches for \"%s\" (type to narrow, Enter on new words to search again)\n", '\0',
              rows.size(), clean(query).c_str());
  for (const auto& row : rows) {
    std::string text = clean(row.text);
    if (!row.subtext.empty()) text += "  —  " + clean(row.subtext);
    std::printf("%s%cicon\x1f%s\x1finfo\x1f%s\n", text.c_str(), '\0', clean(row.icon).c_str(), clean(row.id).c_str());
  }
  return 0;
}

}  // namespace quorvi
