#include "desktop/desktop_bus_objects.h"

#include <systemd/sd-bus.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <memory>
#include <mutex>
#include <vector>

#include "common/dispatch.h"
#include "desktop/desktop_opener.h"
#include "desktop/desktop_search.h"

namespace quorvi {

namespace {

// KRunner's match types (Plasma::QueryMatch::Type).
constexpr int32_t kExactMatch = 100;
constexpr int32_t kPossibleMatch = 30;

struct Host {
  sd_bus* bus = nullptr;
  PerformOnBusThread perform;
  std::vector<sd_bus_slot*> slots;

  // Keeps an incoming call alive until its reply is sent; released on the bus
  // thread whichever thread drops it.
  std::shared_ptr<sd_bus_message> keep(sd_bus_message* message) {
    sd_bus_message_ref(message);
    PerformOnBusThread onBus = perform;
    return std::shared_ptr<sd_bus_message>(message, [onBus](sd_bus_message* m) {
      onBus([m] { sd_bus_message_unref(m); });
    });
  }

  // Sends the reply `fill` writes, on the bus thread.
  void replyLater(std::shared_ptr<sd_bus_message> call, std::function<int(sd_bus_message*)> fill) {
    perform([this, call = std::move(call), fill = std::move(fill)] {
      if (sd_bus_message_get_expect_reply(call.get()) <= 0) return;
      sd_bus_message* reply = nullptr;
      int r = sd_bus_message_new_method_return(call.get(), &reply);
      if (r >= 0) r = fill(reply);
      if (r >= 0) {
        sd_bus_send(bus, reply, nullptr);
      } else {
        sd_bus_reply_method_errorf(call.get(), "com.quorvi.Error.Internal", "cannot write the reply");
      }
      sd_bus_message_unref(reply);
    });
  }

  // Runs work on the request pool and replies with what it writes.
  void answerFromPool(sd_bus_message* message, std::function<std::function<int(sd_bus_message*)>()> work) {
    auto call = keep(message);
    DispatchQueue::global().async([this, call = std::move(call), work = std::move(work)]() mutable {
      std::function<int(sd_bus_message*)> fill;
      try {
        fill = work();
      } catch (const std::exception& error) {
        // A fault of ours: the host sees an error reply, the service goes on.
        std::fprintf(stderr, "quorvifind: desktop: search failed: %s\n", error.what());
        fill = [](sd_bus_message*) { return -EIO; };
      }
      replyLater(std::move(call), std::move(fill));
    });
  }
};

// Openings take turns on a serial queue of their own: they are rare, each may
// wait for a program to start, and GIO's launching is best not run twice at
// once; a slow launch never holds a request worker.
DispatchQueue& openings() {
  static auto* queue = new std::shared_ptr<DispatchQueue>(DispatchQueue::makeSerial("com.quorvi.desktop.open"));
  return **queue;
}

// Runs an opening task; a fault is logged, never fatal.
template <typename Work>
void guarded(Work&& work) {
  try {
    work();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "quorvifind: desktop: %s\n", error.what());
  }
}

Host& hostOf(void* userdata) { return *static_cast<Host*>(userdata); }

// Reads an "as", keeping at most `limit` strings (the rest are read past).
// Element by element: sd_bus_message_read_strv grows its list one string
// at a time, which takes quadratic time on the bus thread for a huge array.
int readStrings(sd_bus_message* message, std::vector<std::string>& out,
                std::size_t limit = DesktopSearch::kMaxIdentifiers) {
  int r = sd_bus_message_enter_container(message, 'a', "s");
  if (r < 0) return r;
  const char* s = nullptr;
  while ((r = sd_bus_message_read_basic(message, 's', &s)) > 0) {
    if (out.size() < limit) out.emplace_back(s);
  }
  if (r < 0) return r;
  return sd_bus_message_exit_container(message);
}

int appendStrings(sd_bus_message* reply, const std::vector<std::string>& strings) {
  int r = sd_bus_message_open_container(reply, 'a', "s");
  for (const auto& s : strings) {
    if (r >= 0) r = sd_bus_message_append_basic(reply, 's', s.c_str());
  }
  if (r >= 0) r = sd_bus_message_close_container(reply);
  return r;
}

int appendStringEntry(sd_bus_message* reply, const char* key, const std::string& value) {
  return sd_bus_message_append(reply, "{sv}", key, "s", value.c_str());
}

int appendStringListEntry(sd_bus_message* reply, const char* key, const std::vector<std::string>& values) {
  int r = sd_bus_message_open_container(reply, 'e', "sv");
  if (r >= 0) r = sd_bus_message_append_basic(reply, 's', key);
  if (r >= 0) r = sd_bus_message_open_container(reply, 'v', "as");
  if (r >= 0) r = appendStrings(reply, values);
  if (r >= 0) r = sd_bus_message_close_container(reply);
  if (r >= 0) r = sd_bus_message_close_container(reply);
  return r;
}

// A themed icon for GNOME Shell, both ways it reads one: "icon", what
// g_icon_serialize() makes of a GThemedIcon, ('themed', <['name']>); and the
// older "gicon", the icon's string form.
int appendIconEntries(sd_bus_message* reply, const std::string& iconName) {
  int r = sd_bus_message_open_container(reply, 'e', "sv");
  if (r >= 0) r = sd_bus_message_append_basic(reply, 's', "icon");
  if (r >= 0) r = sd_bus_message_open_container(reply, 'v', "(sv)");
  if (r >= 0) r = sd_bus_message_append(reply, "(sv)", "themed", "as", 1, iconName.c_str());
  if (r >= 0) r = sd_bus_message_close_container(reply);
  if (r >= 0) r = sd_bus_message_close_container(reply);
  if (r >= 0) r = appendStringEntry(reply, "gicon", iconName);
  return r;
}

// Reports the call as answered with an empty return; the work goes on.
void acknowledge(sd_bus_message* message) {
  if (sd_bus_message_get_expect_reply(message) > 0) sd_bus_reply_method_return(message, "");
}

std::vector<std::string> identifiersOf(const std::vector<DesktopResult>& results) {
  std::vector<std::string> ids;
  ids.reserve(results.size());
  for (const auto& result : results) ids.push_back(result.identifier);
  return ids;
}

// --- org.gnome.Shell.SearchProvider2 -------------------------------------

// The last initial set that was cut at the limit: narrowing it could miss
// better results that did not fit, so its subsearch searches again.
struct CutSet {
  std::mutex mutex;
  std::vector<std::string> identifiers;
};
CutSet& cutSet() {
  static CutSet* set = new CutSet();
  return *set;
}

std::vector<std::string> searchForShell(const std::vector<std::string>& terms) {
  auto results = DesktopSearch::shared().search(terms, kSearchProviderLimit + 1);
  bool cut = results.size() > kSearchProviderLimit;
  if (cut) results.resize(kSearchProviderLimit);
  auto ids = identifiersOf(results);
  std::lock_guard lock(cutSet().mutex);
  cutSet().identifiers = cut ? ids : std::vector<std::string>();
  return ids;
}

int onGetInitialResultSet(sd_bus_message* message, void* userdata, sd_bus_error*) {
  std::vector<std::string> terms;
  int r = readStrings(message, terms);
  if (r < 0) return r;
  hostOf(userdata).answerFromPool(message, [terms] {
    auto ids = searchForShell(terms);
    return [ids](sd_bus_message* reply) { return appendStrings(reply, ids); };
  });
  return 1;
}

int onGetSubsearchResultSet(sd_bus_message* message, void* userdata, sd_bus_error*) {
  std::vector<std::string> previous, terms;
  int r = readStrings(message, previous);
  if (r >= 0) r = readStrings(message, terms);
  if (r < 0) return r;
  bool wasCut;
  {
    std::lock_guard lock(cutSet().mutex);
    wasCut = !previous.empty() && previous == cutSet().identifiers;
  }
  if (wasCut) {
    hostOf(userdata).answerFromPool(message, [terms] {
      auto ids = searchForShell(terms);
      return [ids](sd_bus_message* reply) { return appendStrings(reply, ids); };
    });
    return 1;
  }
  auto kept = DesktopSearch::shared().refine(previous, terms);
  sd_bus_message* reply = nullptr;
  r = sd_bus_message_new_method_return(message, &reply);
  if (r >= 0) r = appendStrings(reply, kept);
  if (r >= 0) r = sd_bus_send(nullptr, reply, nullptr);
  sd_bus_message_unref(reply);
  return r < 0 ? r : 1;
}

int onGetResultMetas(sd_bus_message* message, void* userdata, sd_bus_error*) {
  std::vector<std::string> identifiers;
  int r = readStrings(message, identifiers);
  if (r < 0) return r;
  hostOf(userdata).answerFromPool(message, [identifiers] {
    std::vector<DesktopResult> results;
    std::size_t count = std::min(identifiers.size(), DesktopSearch::kMaxIdentifiers);
    for (std::size_t i = 0; i < count; ++i) {
      if (auto result = DesktopSearch::shared().result(identifiers[i])) results.push_back(std::move(*result));
    }
    return [results](sd_bus_message* reply) {
      int r = sd_bus_message_open_container(reply, 'a', "a{sv}");
      for (const auto& result : results) {
        if (r >= 0) r = sd_bus_message_open_container(reply, 'a', "{sv}");
        if (r >= 0) r = appendStringEntry(reply, "id", result.identifier);
        if (r >= 0) r = appendStringEntry(reply, "name", result.name);
        if (r >= 0) r = appendStringEntry(reply, "description", result.description);
        if (r >= 0 && !result.iconName.empty()) r = appendIconEntries(reply, result.iconName);
        if (r >= 0) r = sd_bus_message_close_container(reply);
      }
      if (r >= 0) r = sd_bus_message_close_container(reply);
      return r;
    };
  });
  return 1;
}

int onActivateResult(sd_bus_message* message, void*, sd_bus_error*) {
  const char* identifier = nullptr;
  int r = sd_bus_message_read(message, "s", &identifier);
  if (r < 0) return r;
  std::string id = identifier ? identifier : "";
  acknowledge(message);
  openings().async([id] {
    guarded([&] {
      if (auto result = DesktopSearch::shared().result(id)) {
        DesktopOpener::open(*result);
      } else {
        std::fprintf(stderr, "quorvifind: desktop: no result %s to open\n", id.c_str());
      }
    });
  });
  return 1;
}

int onLaunchSearch(sd_bus_message* message, void*, sd_bus_error*) {
  std::vector<std::string> terms;
  int r = readStrings(message, terms, DesktopSearch::kMaxWords);
  if (r < 0) return r;
  acknowledge(message);
  openings().async([terms] { guarded([&] { DesktopOpener::launchSearch(kDesktopEntryId, terms); }); });
  return 1;
}

const sd_bus_vtable kSearchProviderVtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD_WITH_NAMES("GetInitialResultSet", "as", SD_BUS_PARAM(terms), "as", SD_BUS_PARAM(results),
                             onGetInitialResultSet, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_NAMES("GetSubsearchResultSet", "asas", SD_BUS_PARAM(previous_results) SD_BUS_PARAM(terms),
                             "as", SD_BUS_PARAM(results), onGetSubsearchResultSet, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_NAMES("GetResultMetas", "as", SD_BUS_PARAM(identifiers), "aa{sv}", SD_BUS_PARAM(metas),
                             onGetResultMetas, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_NAMES("ActivateResult", "sasu",
                             SD_BUS_PARAM(identifier) SD_BUS_PARAM(terms) SD_BUS_PARAM(timestamp), "", ,
                             onActivateResult, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_NAMES("LaunchSearch", "asu", SD_BUS_PARAM(terms) SD_BUS_PARAM(timestamp), "", ,
                             onLaunchSearch, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

// --- org.kde.krunner1 ----------------------------------------------------

struct RunnerAction {
  const char* id;
  const char* text;
  const char* icon;
};
constexpr RunnerAction kRunnerActions[] = {
    {"open", "Open", "document-open"},
    {"openFolder", "Open containing folder", "document-open-folder"},
    {"copyPath", "Copy path", "edit-copy"},
};

const char* categoryOf(DesktopResultKind kind) {
  switch (kind) {
    case DesktopResultKind::application: return "Applications";
    case DesktopResultKind::folder: return "Folders";
    case DesktopResultKind::file: return "Files";
    case DesktopResultKind::zoteroItem: return "Zotero";
    case DesktopResultKind::contact: return "Contacts";
  }
  return "";
}

bool isOnDisk(const DesktopResult& result) {
  return result.kind == DesktopResultKind::file || result.kind == DesktopResultKind::folder;
}

std::string fileUri(const std::string& path) {
  static const char kHex[] = "0123456789ABCDEF";
  std::string uri = "file://";
  for (unsigned char c : path) {
    if (std::isalnum(c) || std::strchr("/-._~!$&'()*+,;=:@", c)) {
      uri += static_cast<char>(c);
    } else {
      uri += '%';
      uri += kHex[c >> 4];
      uri += kHex[c & 15];
    }
  }
  return uri;
}

int appendMatch(sd_bus_message* reply, const DesktopResult& result) {
  int r = sd_bus_message_open_container(reply, 'r', "sssida{sv}");
  if (r >= 0)
    r = sd_bus_message_append(reply, "sssid", result.identifier.c_str(), result.name.c_str(),
                              result.iconName.c_str(), result.isExactMatch ? kExactMatch : kPossibleMatch,
                              result.relevance);
  if (r >= 0) r = sd_bus_message_open_container(reply, 'a', "{sv}");
  if (r >= 0) r = appendStringEntry(reply, "subtext", result.description);
  if (r >= 0) r = appendStringEntry(reply, "category", categoryOf(result.kind));
  if (r >= 0 && isOnDisk(result)) r = appendStringListEntry(reply, "urls", {fileUri(result.target)});
  std::vector<std::string> actions = {"open"};
  if (isOnDisk(result)) actions = {"open", "openFolder", "copyPath"};
  if (r >= 0) r = appendStringListEntry(reply, "actions", actions);
  if (r >= 0) r = sd_bus_message_close_container(reply);
  if (r >= 0) r = sd_bus_message_close_container(reply);
  return r;
}

int onMatch(sd_bus_message* message, void* userdata, sd_bus_error*) {
  const char* query = nullptr;
  int r = sd_bus_message_read(message, "s", &query);
  if (r < 0) return r;
  std::string text = query ? query : "";
  hostOf(userdata).answerFromPool(message, [text] {
    auto results = DesktopSearch::shared().search({text}, kKRunnerMatchLimit);
    return [results](sd_bus_message* reply) {
      int r = sd_bus_message_open_container(reply, 'a', "(sssida{sv})");
      for (const auto& result : results) {
        if (r >= 0) r = appendMatch(reply, result);
      }
      if (r >= 0) r = sd_bus_message_close_container(reply);
      return r;
    };
  });
  return 1;
}

int onActions(sd_bus_message* message, void*, sd_bus_error*) {
  sd_bus_message* reply = nullptr;
  int r = sd_bus_message_new_method_return(message, &reply);
  if (r >= 0) r = sd_bus_message_open_container(reply, 'a', "(sss)");
  for (const auto& action : kRunnerActions) {
    if (r >= 0) r = sd_bus_message_append(reply, "(sss)", action.id, action.text, action.icon);
  }
  if (r >= 0) r = sd_bus_message_close_container(reply);
  if (r >= 0) r = sd_bus_send(nullptr, reply, nullptr);
  sd_bus_message_unref(reply);
  return r < 0 ? r : 1;
}

void run(const std::string& id, const std::string& action);

int onRun(sd_bus_message* message, void*, sd_bus_error*) {
  const char* matchId = nullptr;
  const char* actionId = nullptr;
  int r = sd_bus_message_read(message, "ss", &matchId, &actionId);
  if (r < 0) return r;
  std::string id = matchId ? matchId : "", action = actionId ? actionId : "";
  acknowledge(message);
  openings().async([id, action] { guarded([&] { run(id, action); }); });
  return 1;
}

// KRunner's Run: the match's default action or the one named.
void run(const std::string& id, const std::string& action) {
  auto result = DesktopSearch::shared().result(id);
  if (!result) {
    std::fprintf(stderr, "quorvifind: desktop: no match %s to run\n", id.c_str());
  } else if (action.empty() || action == "open") {
    DesktopOpener::open(*result);
  } else if (action == "openFolder") {
    DesktopOpener::openContainingFolder(*result);
  } else if (action == "copyPath") {
    DesktopOpener::copyToClipboard(isOnDisk(*result) ? result->target : result->description);
  } else {
    std::fprintf(stderr, "quorvifind: desktop: unknown action %s\n", action.c_str());
  }
}

// The results stay remembered (a bounded number): a Run may still come for
// a match of the session that just ended.
int onTeardown(sd_bus_message* message, void*, sd_bus_error*) {
  return sd_bus_reply_method_return(message, "");
}

int onConfig(sd_bus_message* message, void*, sd_bus_error*) {
  // One letter would match most of the disk; KRunner waits for two.
  return sd_bus_reply_method_return(message, "a{sv}", 1, "MinLetterCount", "i", int32_t(2));
}

const sd_bus_vtable kKRunnerVtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("Teardown", "", "", onTeardown, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_NAMES("Config", "", , "a{sv}", SD_BUS_PARAM(config), onConfig, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_NAMES("Actions", "", , "a(sss)", SD_BUS_PARAM(matches), onActions, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_NAMES("Run", "ss", SD_BUS_PARAM(matchId) SD_BUS_PARAM(actionId), "", , onRun,
                             SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_NAMES("Match", "s", SD_BUS_PARAM(query), "a(sssida{sv})", SD_BUS_PARAM(matches), onMatch,
                             SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

}  // namespace

bool exportDesktopObjects(sd_bus* bus, PerformOnBusThread perform, std::string* error) {
  // Lives as long as the process: the connection may call it until the end.
  auto* host = new Host{bus, std::move(perform), {}};
  struct Export {
    const char* path;
    const char* interface;
    const sd_bus_vtable* vtable;
  };
  for (const Export& e : {Export{kKRunnerObjectPath, kKRunnerInterface, kKRunnerVtable},
                          Export{kSearchProviderObjectPath, kSearchProviderInterface, kSearchProviderVtable}}) {
    sd_bus_slot* slot = nullptr;
    int r = sd_bus_add_object_vtable(bus, &slot, e.path, e.interface, e.vtable, host);
    if (r < 0) {
      if (error) *error = std::string("cannot export ") + e.path + ": " + std::strerror(-r);
      return false;
    }
    host->slots.push_back(slot);
  }
  return true;
}

}  // namespace quorvi
