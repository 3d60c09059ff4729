// Times the app index against what a Linux program would otherwise do to
// list the installed applications, over the same generated folders:
//  - GIO's g_app_info_get_all() (in a fresh process each time: GIO keeps
//    its own index for the life of a process);
//  - a plain GKeyFile walk (every .desktop file loaded, its Name read);
//  - our full scan (a new AppIndexer: catalog read cold, entries built,
//    the reply encoded), and a rescan of the same catalog with nothing changed;
//  - with --bus: #4 over the bus on a running quorvifind, and how long a newly
//    installed desktop file takes to show in #4.
//
//   apps_bench generate DIR COUNT        write COUNT desktop entries below DIR
//   apps_bench gio-once DIR              (child) time one g_app_info_get_all()
//   apps_bench run DIR [--repetitions N] [--bus ADDRESS] [--installs N]
#include <gio/gio.h>
#include <glib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "apps/app_indexer.h"
#include "apps/app_scan.h"
#include "platform/process_runner.h"
#include "service/bus_client.h"

using namespace quorvi;
namespace fs = std::filesystem;

namespace {

double millisecondsOf(const std::function<void()>& work) {
  auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
}

double median(std::vector<double> values) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  size_t n = values.size();
  return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

const char* kLocales[] = {"af", "ar", "ast", "be", "bg", "bn", "br", "bs", "ca", "cs", "cy", "da", "de", "el",
                          "en_GB", "eo", "es", "et", "eu", "fa", "fi", "fr", "ga", "gl", "he", "hi", "hr", "hu",
                          "id", "is", "it", "ja", "ka", "kk", "km", "ko", "lt", "lv", "mk", "ml", "mr", "ms",
                          "nb", "nl", "nn", "oc", "pa", "pl", "pt", "pt_BR", "ro", "ru", "sk", "sl", "sq", "sr",
                          "sv", "ta", "te", "th", "tr", "uk", "vi", "zh_CN", "zh_TW"};
const char* kWords[] = {"Text", "Image", "Sound", "Video", "Mail", "Web", "Office", "Chart", "Note", "Code",
                        "Game", "Map", "Photo", "Music", "File", "System", "Disk", "Network", "Clock", "Paint"};

// Entries shaped like a desktop's: most short, some with every translation
// of their name, comment and keywords, a few with actions.
std::string entryText(int i) {
  std::string name = std::string(kWords[i % 20]) + " " + kWords[(i / 20) % 20] + " " + std::to_string(i);
  int translations = i % 10 < 6 ? 3 : (i % 10 < 9 ? 30 : int(std::size(kLocales)));
  std::string text = "[Desktop Entry]\nVersion=1.0\nType=Application\nName=" + name + "\n";
  for (int t = 0; t < translations; ++t) text += "Name[" + std::string(kLocales[t]) + "]=" + name + " (" + kLocales[t] + ")\n";
  text += "GenericName=" + std::string(kWords[(i + 3) % 20]) + " Tool\nComment=Work with " + kWords[i % 20] + " things\n";
  for (int t = 0; t < translations; ++t) {
    text += "Comment[" + std::string(kLocales[t]) + "]=Arbeite mit Dingen, localized text for " + kLocales[t] + "\n";
  }
  text += "Keywords=" + std::string(kWords[i % 20]) + ";" + kWords[(i + 7) % 20] + ";editor;\n";
  for (int t = 0; t < translations / 2; ++t) text += "Keywords[" + std::string(kLocales[t]) + "]=a;b;c;\n";
  text += "Exec=/usr/bin/true %U\nIcon=app-" + std::to_string(i) + "\nTerminal=false\nStartupNotify=true\n";
  text += "Categories=Utility;" + std::string(kWords[i % 20]) + ";\n";
  text += "MimeType=text/plain;x-scheme-handler/app" + std::to_string(i) + ";\n";
  if (i % 7 == 0) text += "NoDisplay=true\n";
  if (i % 5 == 0) {
    text += "Actions=new-window;\n\n[Desktop Action new-window]\nName=New Window\nExec=/usr/bin/true --new\n";
    for (int t = 0; t < translations; ++t) text += "Name[" + std::string(kLocales[t]) + "]=New window " + kLocales[t] + "\n";
  }
  return text;
}

void writeFile(const fs::path& path, const std::string& text) {
  fs::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary) << text;
}

int generate(const std::string& root, int count) {
  // Most entries in the system folder, some in subfolders, a few user ones.
  for (int i = 0; i < count; ++i) {
    fs::path folder = i % 25 == 0 ? fs::path(root) / "home/.local/share/applications"
                                  : (i % 11 == 0 ? fs::path(root) / "share/applications/kde4"
                                                 : fs::path(root) / "share/applications");
    writeFile(folder / ("org.example.App" + std::to_string(i) + ".desktop"), entryText(i));
  }
  return 0;
}

std::vector<std::string> folders(const std::string& root) {
  return {root + "/home/.local/share/applications", root + "/share/applications"};
}

// keepTranslations: as a reader that names apps in a language other than
// the process locale's must load them (the app index does the same).
size_t keyFileWalk(const std::string& root, bool keepTranslations = false) {
  size_t count = 0;
  for (const auto& folder : folders(root)) {
    std::error_code error;
    for (auto it = fs::recursive_directory_iterator(folder, error); !error && it != fs::recursive_directory_iterator();
         it.increment(error)) {
      if (it->path().extension() != ".desktop") continue;
      GKeyFile* file = g_key_file_new();
      GKeyFileFlags flags = keepTranslations ? G_KEY_FILE_KEEP_TRANSLATIONS : G_KEY_FILE_NONE;
      if (g_key_file_load_from_file(file, it->path().c_str(), flags, nullptr)) {
        gchar* name = g_key_file_get_locale_string(file, "Desktop Entry", "Name", keepTranslations ? "zh_CN" : nullptr,
                                                   nullptr);
        if (name) ++count;
        g_free(name);
      }
      g_key_file_free(file);
    }
  }
  return count;
}

int gioOnce(const std::string& root) {
  g_setenv("XDG_DATA_HOME", (root + "/home/.local/share").c_str(), TRUE);
  g_setenv("XDG_DATA_DIRS", (root + "/share").c_str(), TRUE);
  g_object_unref(g_file_new_for_path("/"));  // the type system and the VFS, outside the timing
  size_t count = 0;
  double ms = millisecondsOf([&] {
    GList* all = g_app_info_get_all();
    count = g_list_length(all);
    g_list_free_full(all, g_object_unref);
  });
  std::printf("%.3f %zu\n", ms, count);
  return 0;
}

double gioChild(const std::string& self, const std::string& root, size_t* count) {
  ProcessResult result = runProcess(self, {"gio-once", root});
  double ms = 0;
  std::sscanf(result.standardOutput.c_str(), "%lf %zu", &ms, count);
  return ms;
}

AppEnvironment environmentOf(const std::string& root) {
  AppEnvironment environment = AppEnvironment::isolated(root);
  return environment;
}

double lastLoggedScan = 0;  // what the index logs as its scan's duration

size_t ourScan(const std::string& root) {
  AppIndexer::Options options;
  options.environment = environmentOf(root);
  options.watchesFileEvents = false;
  AppIndexer indexer(std::move(options));
  indexer.setOnLog([](const std::string& line) {
    if (line.starts_with("#aindex measure: ")) lastLoggedScan = std::atof(line.c_str() + 17);
  });
  std::atomic<bool> done{false};
  size_t count = 0;
  indexer.startIndexing({}, [&](const AppListRef& list) {
    count = list->entries.size();
    done = true;
  });
  while (!done) std::this_thread::sleep_for(std::chrono::microseconds(50));
  return count;
}

int run(const std::string& self, const std::string& root, int repetitions, const std::string& busAddress,
        int installs) {
  size_t gioCount = 0, walkCount = 0, ourCount = 0;
  std::vector<double> gio, walk, walkTranslations, ours, logged, catalogCold, rescan, build, encode;
  DesktopCatalog warm(environmentOf(root).applicationDirectories());
  warm.snapshot();
  keyFileWalk(root);  // page cache
  for (int r = 0; r < repetitions; ++r) {
    gio.push_back(gioChild(self, root, &gioCount));
    walk.push_back(millisecondsOf([&] { walkCount = keyFileWalk(root); }));
    walkTranslations.push_back(millisecondsOf([&] { keyFileWalk(root, true); }));
    ours.push_back(millisecondsOf([&] { ourCount = ourScan(root); }));
    logged.push_back(lastLoggedScan);
    catalogCold.push_back(millisecondsOf([&] { DesktopCatalog(environmentOf(root).applicationDirectories()).snapshot(); }));
    rescan.push_back(millisecondsOf([&] { warm.refresh(); }));
    std::vector<AppEntry> entries;
    build.push_back(millisecondsOf([&] { entries = desktopEntryApps(*warm.snapshot(), environmentOf(root), {}); }));
    encode.push_back(millisecondsOf([&] { encodeAppEntries(entries); }));
  }
  size_t files = 0;
  for (const auto& folder : folders(root)) {
    for (auto it = fs::recursive_directory_iterator(folder); it != fs::recursive_directory_iterator(); ++it) {
      files += it->path().extension() == ".desktop";
    }
  }
  std::printf("desktop entries: %zu files; listed: GIO %zu, GKeyFile walk %zu names, app index %zu entries; "
              "repetitions: %d\n", files, gioCount, walkCount, ourCount, repetitions);
  std::printf("  %-58s median %8.2f ms\n", "GIO g_app_info_get_all() (fresh process, call only)", median(gio));
  std::printf("  %-58s median %8.2f ms\n", "GKeyFile walk (load each file, read Name)", median(walk));
  std::printf("  %-58s median %8.2f ms\n", "GKeyFile walk keeping translations (read Name[zh_CN])",
              median(walkTranslations));
  std::printf("  %-58s median %8.2f ms\n", "app index full scan (new index: catalog, entries, JSON)", median(ours));
  std::printf("  %-58s median %8.2f ms\n", "  the scan as the index logs it (no set-up, no hand-over)", median(logged));
  std::printf("  %-58s median %8.2f ms\n", "  of which: desktop catalog read cold", median(catalogCold));
  std::printf("  %-58s median %8.2f ms\n", "  of which: entries built from the catalog", median(build));
  std::printf("  %-58s median %8.2f ms\n", "  of which: JSON reply encoded", median(encode));
  std::printf("  %-58s median %8.2f ms\n", "catalog rescan, nothing changed", median(rescan));

  std::string busLine;
  if (!busAddress.empty()) {
    std::string error;
    auto client = BusClient::connect(busAddress, &error);
    const MemberInfo* start = findMember("StartIndexAppsWithSearchScopesCompletion");
    const MemberInfo* get = findMember("GetAppsWithCompletionHandler");
    for (int attempt = 0; client && attempt < 100 && !client->serviceIsRunning(); ++attempt) {
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    if (!client || !client->serviceIsRunning()) {
      std::fprintf(stderr, "no service on %s: %s\n", busAddress.c_str(), error.c_str());
      return 1;
    }
    CallArguments scopes;
    argumentsFromWords("as", {"[]"}, scopes, &error);
    auto scanned = client->call(*start, scopes, std::chrono::seconds(60));
    if (!scanned.ok || !scanned.values[0].value) {
      std::fprintf(stderr, "#2 failed: %s\n", scanned.errorName.c_str());
      return 1;
    }
    size_t bytes = 0;
    auto getApps = [&] {
      auto result = client->call(*get, CallArguments{});
      if (!result.ok || !result.values[0].value) {
        std::fprintf(stderr, "#4 failed: %s\n", result.errorName.c_str());
        std::exit(1);
      }
      bytes = result.values[0].value->size();
      return std::move(*result.values[0].value);
    };
    std::vector<double> calls;
    for (int r = 0; r < std::max(repetitions, 20); ++r) calls.push_back(millisecondsOf([&] { getApps(); }));
    std::printf("  %-58s median %8.2f ms  (%zu bytes)\n", "#4 over the bus (quorvifind)", median(calls), bytes);
    std::vector<double> seen;
    for (int i = 0; i < installs; ++i) {
      std::string id = "org.example.Installed" + std::to_string(i) + "-" + std::to_string(::getpid());
      fs::path target = fs::path(root) / "home/.local/share/applications" / (id + ".desktop");
      fs::path temporary = target.string() + ".part";
      writeFile(temporary, entryText(9001 + 7 * i));  // never one of the NoDisplay entries (i % 7 == 0)
      auto landed = std::chrono::steady_clock::now();
      fs::rename(temporary, target);
      for (;;) {
        if (getApps().find(target.string()) != std::string::npos) break;
        if (std::chrono::steady_clock::now() - landed > std::chrono::seconds(30)) {
          std::fprintf(stderr, "installed entry not seen within 30 s\n");
          return 1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
      }
      seen.push_back(std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - landed).count());
      fs::remove(target);
      std::this_thread::sleep_for(std::chrono::milliseconds(1500));  // let the removal settle
    }
    if (!seen.empty()) {
      std::printf("  %-58s median %8.2f ms  (%d installs)\n", "installed desktop file seen in #4 after", median(seen),
                  installs);
    }
    char text[160];
    std::snprintf(text, sizeof text, ", #4 over the bus %.2f ms, install seen after %.0f ms", median(calls),
                  median(seen));
    busLine = text;
  }
  std::printf("full scan vs g_app_info_get_all(): %.2fx, vs GKeyFile walk: %.2fx%s\n", median(ours) / median(gio),
              median(ours) / median(walk), busLine.c_str());
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc >= 4 && std::strcmp(argv[1], "generate") == 0) return generate(argv[2], std::atoi(argv[3]));
  if (argc >= 3 && std::strcmp(argv[1], "gio-once") == 0) return gioOnce(argv[2]);
  if (argc >= 3 && std::strcmp(argv[1], "run") == 0) {
    int repetitions = 11, installs = 5;
    std::string bus;
    for (int i = 3; i + 1 < argc; ++i) {
      if (std::strcmp(argv[i], "--repetitions") == 0) repetitions = std::max(1, std::atoi(argv[i + 1]));
      if (std::strcmp(argv[i], "--bus") == 0) bus = argv[i + 1];
      if (std::strcmp(argv[i], "--installs") == 0) installs = std::max(0, std::atoi(argv[i + 1]));
    }
    std::string self = fs::read_symlink("/proc/self/exe").string();
    return run(self, argv[2], repetitions, bus, installs);
  }
  std::fprintf(stderr, "usage: apps_bench generate DIR COUNT | gio-once DIR | run DIR [--repetitions N] [--bus A] [--installs N]\n");
  return 2;
}
