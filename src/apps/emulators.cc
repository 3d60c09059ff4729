#include "apps/emulators.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <map>

#include "common/json.h"
#include "platform/process_runner.h"
#include "platform/safe_file.h"

namespace quorvi {

namespace {

constexpr std::string_view kRuntimePrefix = "com.apple.CoreSimulator.SimRuntime.";
constexpr std::size_t kIniByteCap = 256u << 10;

bool isDirectory(const std::string& path) {
  struct stat info;
  return ::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

// key=value lines of a small ini file (no sections in AVD files).
std::map<std::string, std::string> readIni(const std::string& path) {
  std::map<std::string, std::string> values;
  auto bytes = readRegularFile(path, kIniByteCap);
  if (!bytes) return values;
  std::size_t start = 0;
  while (start < bytes->size()) {
    std::size_t end = bytes->find('\n', start);
    if (end == std::string::npos) end = bytes->size();
    std::string line = bytes->substr(start, end - start);
    start = end + 1;
    if (!line.empty() && line.back() == '\r') line.pop_back();
    std::size_t equals = line.find('=');
    if (equals == std::string::npos || line[0] == '#') continue;
    auto trim = [](std::string text) {
      std::size_t b = text.find_first_not_of(" \t");
      std::size_t e = text.find_last_not_of(" \t");
      return b == std::string::npos ? std::string() : text.substr(b, e - b + 1);
    };
    values[trim(line.substr(0, equals))] = trim(line.substr(equals + 1));
  }
  return values;
}

}  // namespace

std::string readableRuntimeName(std::string_view runtimeIdentifier) {
  if (!runtimeIdentifier.starts_with(kRuntimePrefix)) return std::string(runtimeIdentifier);
  std::string rest(runtimeIdentifier.substr(kRuntimePrefix.size()));
  std::size_t dash = rest.find('-');
  if (dash == std::string::npos) return rest;
  std::string version = rest.substr(dash + 1);
  std::replace(version.begin(), version.end(), '-', '.');
  return rest.substr(0, dash) + " " + version;
}

std::vector<EmulatorDevice> parseSimulatorList(std::string_view text) {
  std::vector<EmulatorDevice> devices;
  Json json = Json::parse(text, nullptr, /*allow_exceptions=*/false);
  if (!json.is_object() || !json.contains("devices") || !json["devices"].is_object()) return devices;
  for (const auto& [runtime, list] : json["devices"].items()) {
    if (!list.is_array()) continue;
    for (const auto& device : list) {
      if (!device.is_object()) continue;
      auto text = [&](const char* key) {
        auto found = device.find(key);
        return found != device.end() && found->is_string() ? found->get<std::string>() : std::string();
      };
      std::string name = text("name"), dataPath = text("dataPath");
      while (dataPath.size() > 1 && dataPath.back() == '/') dataPath.pop_back();
      std::size_t slash = dataPath.rfind('/');
      if (name.empty() || slash == std::string::npos || slash == 0) continue;
      devices.push_back({name, dataPath.substr(0, slash), text("udid"), readableRuntimeName(runtime)});
    }
  }
  return devices;
}

std::vector<EmulatorDevice> listSimulators(const std::string& command, const std::vector<std::string>& searchPath,
                                           std::chrono::milliseconds watchdog) {
  std::size_t space = command.find(' ');
  std::string tool = command.substr(0, space);
  if (tool.empty()) return {};
  std::string path;
  if (tool.front() == '/') {
    if (::access(tool.c_str(), X_OK) == 0) path = tool;
  } else {
    for (const auto& dir : searchPath) {
      if (::access((dir + "/" + tool).c_str(), X_OK) == 0) {
        path = dir + "/" + tool;
        break;
      }
    }
  }
  if (path.empty()) return {};  // no tool: nothing is run
  std::string resolved = path + (space == std::string::npos ? "" : command.substr(space));
  ProcessOptions options;
  options.timeout = watchdog;
  options.captureStandardError = false;
  options.maxOutputBytes = 16u << 20;
  ProcessResult result = runProcess("/bin/sh", {"-c", resolved}, options);
  if (!result.launched || result.timedOut) return {};
  return parseSimulatorList(result.standardOutput);
}

std::vector<EmulatorDevice> listAndroidVirtualDevices(const std::vector<std::string>& folders) {
  std::vector<EmulatorDevice> devices;
  for (const auto& folder : folders) {
    DIR* dir = ::opendir(folder.c_str());
    if (!dir) continue;
    std::vector<std::string> names;
    while (dirent* item = ::readdir(dir)) {
      std::string name = item->d_name;
      if (name.size() > 4 && name.ends_with(".ini")) names.push_back(name.substr(0, name.size() - 4));
    }
    ::closedir(dir);
    std::sort(names.begin(), names.end());
    std::string parent = folder.substr(0, folder.rfind('/'));
    for (const auto& name : names) {
      auto ini = readIni(folder + "/" + name + ".ini");
      std::string path = ini["path"];
      if (path.empty() || !isDirectory(path)) {
        path = ini["path.rel"].empty() ? folder + "/" + name + ".avd" : parent + "/" + ini["path.rel"];
      }
      if (!isDirectory(path)) continue;
      std::string shown = readIni(path + "/config.ini")["avd.ini.displayname"];
      if (shown.empty()) {
        shown = name;
        std::replace(shown.begin(), shown.end(), '_', ' ');
      }
      devices.push_back({shown, path, name, ini["target"]});
    }
  }
  return devices;
}

}  // namespace quorvi
